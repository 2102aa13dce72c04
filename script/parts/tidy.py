"""Writes the rules by which ninja runs clang-tidy, so that a source is looked at again only when it, a file that it
includes, or a .clang-tidy has changed: all sources take the better part of an hour on two cores.

usage: tidy.py ROOT BUILD FOLDER...

BUILD is built, because what a source includes is known to its ninja. The rules stand in BUILD/tidy/build.ninja. A source
of FOLDER that the build does not compile has no rule.
"""

import json
import os
import re
import subprocess
import sys

RULE = """rule tidy
  command = clang-tidy -quiet -p {build} $in 2> $out.log && touch $out || {{ cat $out.log; false; }}
  description = clang-tidy $in

"""


def included(build):
    """What each object was made of."""
    lines = subprocess.run(["ninja", "-C", build, "-t", "deps"], check=True, capture_output=True, text=True).stdout
    files = {}
    for line in lines.splitlines():
        if line.startswith("    "):
            files[target].append(os.path.normpath(os.path.join(build, line.strip())))
        elif line:
            target = line.split(": #deps")[0]
            files[target] = []
    return files


def escape(path):
    return path.replace("$", "$$").replace(" ", "$ ").replace(":", "$:")


def main(root, build, *folders):
    wanted = tuple(os.path.join(root, folder, "") for folder in folders)
    files = included(build)
    with open(os.path.join(build, "compile_commands.json")) as file:
        commands = [command for command in json.load(file) if command["file"].startswith(wanted)]
    rules = {}
    for command in commands:
        # A source of several programs has several commands; clang-tidy takes the first itself.
        rules.setdefault(command["file"], re.search(r" -o (\S+)", command["command"])[1])
    settings = [os.path.join(root, folder, ".clang-tidy") for folder in ("", *folders)]
    settings = [file for file in settings if os.path.exists(file)]
    os.makedirs(os.path.join(build, "tidy"), exist_ok=True)
    with open(os.path.join(build, "tidy", "build.ninja"), "w") as file:
        file.write(RULE.format(build=escape(build)))
        for source, target in rules.items():
            stamp = os.path.relpath(source, root).replace(os.sep, "-")
            changing = " ".join(map(escape, settings + files[target]))
            file.write(f"build {escape(stamp)}: tidy {escape(source)} | {changing}\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
