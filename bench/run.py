"""Runs benchmarks in the namespaces that script/bench has made. See script/bench --help."""

import argparse
import datetime
import json
import os
import sys

import instructions
import report
from benchmarks import ALL
from harness import RUN, Missed, Programs


def arguments():
    parser = argparse.ArgumentParser(prog="script/bench")
    parser.add_argument("names", nargs="*", metavar="NAME")
    parser.add_argument("--json", metavar="FILE")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--page", required=True)
    parser.add_argument("--figures", required=True)
    given = parser.parse_args()
    unknown = [name for name in given.names if name not in ALL]
    if unknown:
        parser.error(f"no such benchmark: {', '.join(unknown)}. There are: {', '.join(ALL)}")
    return given


def load_average():
    return "%.1f" % os.getloadavg()[0]


def run(names, programs, quick):
    results = {}
    for name in names:
        before = load_average()
        print(f"\n{name}: {ALL[name].__doc__}", flush=True)
        results[name] = ALL[name](programs, quick)
        results[name]["conditions"] = (f"Taken on {datetime.date.today().isoformat()}; load average {before} before, "
                                        f"{load_average()} after.")
        print(report.plain(results[name]))
        print(f"{results[name]['note']} {results[name]['conditions']}", flush=True)
    return results


def main():
    given = arguments()
    # It kills all other processes and uses /mnt, which is safe only as the first process of its own namespaces.
    if os.getpid() != 1:
        sys.exit("bench: run script/bench, which makes the namespaces")
    os.makedirs(RUN, exist_ok=True)
    programs = Programs(given.build_dir)
    try:
        if given.check or given.keep:
            return instructions.check(programs, given.keep)
        results = run(given.names or list(ALL), programs, given.quick)
    except Missed as missed:
        sys.exit(f"bench: {missed}")
    if given.json:
        with open(given.json, "w", encoding="utf-8") as file:
            json.dump({"machine": dict(report.machine()), "results": results}, file, indent=2, ensure_ascii=False)
    if not given.quick:
        report.write_documents(given.page, given.figures, results)
        print(f"\nThe tables are in {given.figures}.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
