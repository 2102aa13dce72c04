"""Finds sources that are too large. Prints a line for each finding, and ends with status 1 when there are any.

usage: check_sources.py ROOT FOLDER...

- a source file of more than 400 lines
- a function of more than 40 lines, counted as clang-tidy does; its body opens with a brace on a line of its own
- units (a header and its source) that include each other, directly or by way of others
- more suppressions of clang-tidy than 9 in what is installed, or 14 in what tests and measures it
"""

import os
import pathlib
import re
import sys

MOST_LINES = 400
MOST_FUNCTION_LINES = 40
MOST_SUPPRESSIONS = {"installed": 9, "tests": 14}
SOURCES = {".h", ".cpp", ".c", ".py", ".sh"}
COMPILED = {".h", ".cpp", ".c"}
BODY = re.compile(r"^( *)\{\n(.*?)^\1\}", re.MULTILINE | re.DOTALL)
INCLUDE = re.compile(r'^\s*#\s*include\s*["<]([^">]+)[">]', re.MULTILINE)


def sources_of(folders):
    return sorted(file for folder in folders for file in folder.rglob("*") if file.suffix in SOURCES)


def long_files(sources):
    for file in sources:
        lines = len(file.read_text().splitlines())
        if lines > MOST_LINES:
            yield f"{file}: {lines} lines, at most {MOST_LINES}: give one of its subjects a file of its own"


def long_functions(sources):
    for file in sources:
        if file.suffix not in COMPILED:
            continue
        text = file.read_text()
        for match in BODY.finditer(text):
            lines = match[2].count("\n") + 1
            if lines > MOST_FUNCTION_LINES:
                begin = text.count("\n", 0, match.start())
                name = text.splitlines()[begin - 1].strip()
                yield f"{file}:{begin}: {lines} lines, at most {MOST_FUNCTION_LINES}: {name}"


def included_units(files, files_by_name):
    """The units that a unit's files include. Searches a name beside the file first."""
    for file in files:
        for name in INCLUDE.findall(file.read_text()):
            same_name = files_by_name.get(pathlib.PurePath(name).name, [])
            beside = pathlib.Path(os.path.normpath(file.parent / name))
            candidates = [beside] if beside in same_name else [
                other for other in same_name if ("/" + str(other)).endswith("/" + name)]
            if candidates:
                yield candidates[0].with_suffix("")


def circles(sources):
    units = {}
    by_name = {}
    for file in sources:
        units.setdefault(file.with_suffix(""), []).append(file)
        by_name.setdefault(file.name, []).append(file)
    includes = {unit: set(included_units(files, by_name)) - {unit} for unit, files in units.items()}
    done = set()

    def walk(unit, path):
        if unit in path:
            yield "these include each other: " + " -> ".join(map(str, path[path.index(unit):] + [unit]))
        elif unit not in done:
            for other in sorted(includes[unit]):
                yield from walk(other, path + [unit])
            done.add(unit)

    for unit in units:
        yield from walk(unit, [])


def suppressions(sources):
    counts = {"installed": 0, "tests": 0}
    for file in sources:
        kind = "tests" if file.parts[0] in ("tests", "bench") else "installed"
        counts[kind] += len(re.findall(r"\bNOLINT(?!END)", file.read_text()))
    for kind, most in MOST_SUPPRESSIONS.items():
        if counts[kind] > most:
            yield f"{counts[kind]} suppressions of clang-tidy ({kind}), at most {most}"


def main(root, *names):
    os.chdir(root)
    sources = sources_of([pathlib.Path(name) for name in names])
    findings = [*long_files(sources), *long_functions(sources), *circles(sources), *suppressions(sources)]
    print("\n".join(findings), end="\n" if findings else "")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
