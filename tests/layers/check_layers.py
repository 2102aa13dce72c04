#!/usr/bin/env python3
"""Reads the #include lines of all sources below ROOT and names each that points the wrong way.

usage: check_layers.py ROOT                    names the faults; ends with status 1 when there are any
       check_layers.py ROOT --picture          prints who includes whom, as docs/architecture.md shows it
       check_layers.py ROOT --compare FILE     ends with status 1 unless FILE shows that picture
"""

import pathlib
import sys
import textwrap

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "script" / "parts"))
from check_sources import included_units, sources_of  # noqa: E402

SERVER = "system_server"

# The parts of the project, by their folders, and what each may include. A part may name those above it only, so there
# are no circles.
PARTS = {
    "platform/include": set(),
    "public/include": {"platform/include"},
    "common": {"platform/include", "public/include"},
    "platform/host": {"platform/include", "public/include", "common"},
    SERVER: {"platform/include", "public/include", "common"},
    "client": {"platform/include", "public/include", "common"},
    "tools": {"platform/include", "public/include", "common", "client", SERVER},
    "examples": set(),
    "tests/support": {"platform/include", "public/include", "common", SERVER},
    "bench": {"platform/include", "public/include", "common", SERVER, "tests/support"},
    "tests/device": {"platform/include"},
    "tests/system": {"platform/include", "public/include", "common", "client", "tests/support"},
    "tests/bundlectl": {"public/include", "common", "tools", "tests/support", "tests/system"},
    "tests/client": {"platform/include", "common", "client", "tests/support", "tests/system"},
    "tests/tools": {"public/include", "common", "tests/support"},
    "tests/platform": {"platform/include", "public/include", "common", "platform/host", "tests/support"},
    "tests/unit": {"platform/include", "public/include", "common", SERVER, "tests/support"},
    "tests/fuzz": {"platform/include", "public/include", "common", "platform/host", SERVER, "tools", "tests/support"},
}

# Inside the server: its layers from the lowest, their units, and the layers that they may include. The watcher knows
# nothing of bundles.
LAYERS = {
    "helpers": ("atomic_shared_ptr bundle_layout bundle_log child_wait content_hash dir_stream directory_sync file_type group_leader inherited_state "
                "item_kind item_launch launch_numbers start_up_signals termination_signals thread_annotations", ""),
    "manifest": ("bundle_manifest", "helpers"),
    "storage": ("bundle_storage_dir", "helpers manifest"),
    "bundle": ("bundle", "helpers manifest storage"),
    "factory": ("bundle_factory", "helpers manifest storage bundle"),
    "activators": ("bundle_activator bundle_activator_factory bundle_process_activator bundle_process_monitor "
                   "bundle_thread_activator", "helpers manifest storage bundle factory"),
    "manager": ("bundle_manager dependency_chains waiting_bundles", "helpers manifest storage bundle factory activators"),
    "watcher": ("bundle_dir_watcher collection_scan framework_watcher item_details item_fingerprint known_item "
                "removal_tries watched_item", "helpers"),
    "server": ("bundle_removal bundle_server bundle_server_requests collection_follower",
               "helpers manifest storage bundle factory activators manager watcher"),
    "main": ("main", "helpers manifest storage bundle factory activators manager watcher server"),
}


def part_of(unit):
    folders = [part for part in PARTS if unit.is_relative_to(part)]
    return max(folders, key=len, default=None)


def layer_of(unit):
    return next((layer for layer, (units, _) in LAYERS.items() if unit.name in units.split()), None)


def included_by_unit(root):
    """For each unit, a header and its source, the units that it includes."""
    folders = [path for path in root.iterdir() if path.is_dir() and path.name != "build" and path.name[0] != "."]
    sources = [file for file in sources_of(folders) if file.suffix in (".h", ".cpp", ".c")]
    units, by_name = {}, {}
    for file in sources:
        units.setdefault(file.with_suffix(""), []).append(file)
        by_name.setdefault(file.name, []).append(file)
    included = {unit: set(included_units(files, by_name)) - {unit} for unit, files in units.items()}
    return {unit.relative_to(root): {other.relative_to(root) for other in others} for unit, others in included.items()}


def faults(included):
    for unit, others in sorted(included.items()):
        part = part_of(unit)
        layer = layer_of(unit) if part == SERVER else None
        if part is None or (part == SERVER and layer is None):
            yield f"{unit} has no {'layer' if part else 'part'}: give it one in tests/layers/check_layers.py"
            continue
        for other in sorted(others):
            if part_of(other) not in PARTS[part] | {part}:
                yield f"{unit} includes {other}, which {part} must not know"
            elif layer and part_of(other) == SERVER and layer_of(other) not in LAYERS[layer][1].split() + [layer, None]:
                yield f"{unit} includes {other}, which the layer {layer} must not know"


def arrows(names, included, name_of):
    """For each name those that it includes itself, without those that it includes by way of another."""
    direct = {name: set() for name in names}
    for unit, others in included.items():
        if name_of(unit) in direct:
            direct[name_of(unit)] |= {name_of(other) for other in others} & set(names) - {name_of(unit)}
    reachable = {}
    for name in names:  # from the lowest
        reachable[name] = direct[name].union(*(reachable.get(other, set()) for other in direct[name]))
    return {name: [other for other in names if other in direct[name] and not any(
        other in reachable.get(between, set()) for between in direct[name])] for name in names}


def rows(names, included, name_of):
    width = max(map(len, names))
    found = arrows(names, included, name_of)
    for name in reversed(names):
        yield f"{name:{width}} → {', '.join(found[name])}" if found[name] else name


def picture(included):
    inside = {unit: others for unit, others in included.items() if part_of(unit) == SERVER}
    lines = [*rows(list(PARTS), included, part_of), "", f"Inside {SERVER}, with the files of each layer:"]
    for row in rows(list(LAYERS), inside, layer_of):
        layer = row.split()[0]
        units = ", ".join(LAYERS[layer][0].split())
        lines += ["", row, *textwrap.wrap(units, 100, initial_indent="    ", subsequent_indent="    ")]
    return "\n".join(lines) + "\n"


def main(root, option="", document=""):
    included = included_by_unit(pathlib.Path(root))
    if option == "--picture":
        print(picture(included), end="")
        return 0
    if option == "--compare":
        if f"```text\n{picture(included)}```\n" in pathlib.Path(document).read_text():
            return 0
        print(f"{document} shows another picture than check_layers.py --picture prints")
        return 1
    found = list(faults(included)) if included else [f"there is nothing to check in {root}"]
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
