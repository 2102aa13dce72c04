"""What gcovr cannot leave out or show by itself.

usage: coverage.py sum ALL COUNTS          writes the counts without the branches that only an exception takes
       coverage.py gaps COUNTS SOURCE...   prints the lines and branches of the sources that no test has run
"""

import json
import sys


def read(path):
    with open(path) as file:
        return json.load(file)


def sum_up(all_counts, kept):
    counts = read(all_counts)
    for source in counts["files"]:
        for line in source["lines"]:
            line["branches"] = [branch for branch in line["branches"] if not branch["throw"]]
    with open(kept, "w") as file:
        json.dump(counts, file)


def show_gaps(counts, *wanted):
    for source in read(counts)["files"]:
        if source["file"] not in wanted:
            continue
        with open(source["file"]) as file:
            texts = file.read().split("\n")
        for line in source["lines"]:
            untaken = sum(branch["count"] == 0 for branch in line["branches"])
            if line["gcovr/noncode"] or (line["count"] > 0 and untaken == 0):
                continue
            number = line["line_number"]
            what = f"{untaken} of {len(line['branches'])} branches" if line["count"] > 0 else "not run"
            print(f"{source['file']}:{number}: {what}: {texts[number - 1].strip()}")


if __name__ == "__main__":
    {"sum": sum_up, "gaps": show_gaps}[sys.argv[1]](*sys.argv[2:])
