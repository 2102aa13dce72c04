"""The benchmarks of single operations, each in a program that does nothing else: a log record, a scan, the server's work
inside its process."""

import json
import os
import re
import subprocess

from harness import MILLI, RUN, Missed, fresh_directory, numbers, row

RECORD = re.compile(rb"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z INFO 4 0 \d+ \d+ bench/log_record\.cpp:\d+ "
                    rb"record\[(\d+)\] of thread\[(\d+)\]\.$")


def check_records(path, threads, count):
    """Checks that every record is there once and whole, and that each thread's records are in order."""
    after = [-1] * threads
    with open(path, "rb") as file:
        for line in file:
            match = RECORD.match(line)
            if not match:
                raise Missed(f"a mixed record: {line!r}")
            number, thread = int(match.group(1)), int(match.group(2))
            if number != after[thread] + 1:
                raise Missed(f"record {after[thread] + 1} of thread {thread} is lost")
            after[thread] = number
    if after != [count - 1] * threads:
        raise Missed("records are lost at the end")


def log_record(programs, quick):
    """A log record to a file, from one thread and from eight at once."""
    total = 8000 if quick else 400000
    rounds = 2 if quick else 5
    rows = []
    for threads in (1, 8):
        count = total // threads
        times = {"server": [], "floor": []}
        for turn in range(rounds + 1):
            for side, program in (("server", programs.bench_log_record), ("floor", programs.floor_log_record)):
                path = os.path.join(RUN, "log-record.log")
                if os.path.exists(path):
                    os.unlink(path)
                done = subprocess.run([program, str(threads), str(count)], env=dict(os.environ, ZQ_LOG_FILE=path),
                                      stdout=subprocess.PIPE, check=True, timeout=300)
                if turn > 0:
                    times[side].extend(numbers(done.stdout))
                if side == "server":
                    check_records(path, threads, count)
        rows.append(row(f"{threads} thread{'s' if threads > 1 else ''}: a record", "µs", times["server"],
                        times["floor"], 1000, "1.3 x"))
    return {"rows": rows, "note": f"{rounds} rounds of {total:,} records, server and floor by turns, after one that "
            "does not count; a figure is the mean of a hundred records in a row. Every record of every round was found "
            "whole, once and in its thread's order."}


def scan(programs, quick):
    """The processor time of one scan of the collection when nothing has changed. The server scans once a second. The
    floor makes the same calls and keeps nothing."""
    done = subprocess.run([os.path.join(programs.folder, "scan", "bench_scan"), fresh_directory("scan")],
                          stdout=subprocess.PIPE, check=True, timeout=300, text=True)
    rows = []
    series = {"server": [], "floor": []}
    for line in done.stdout.splitlines():
        columns = line.strip("| \n").split("|")
        if not columns[0].strip().isdigit():
            continue
        bundles = int(columns[0])
        rows.append(row(f"{bundles:,} bundles: a scan", "µs", [float(columns[1])], [float(columns[2])], 1, "1.5 x"))
        rows[-1]["server"]["count"] = None  # the program prints only the medians of its rounds
        for side in series:
            series[side].append((bundles, rows[-1][side]["median"]))
    if not rows:
        raise Missed("bench_scan has printed no table")
    return {"rows": rows, "note": "Medians of 20 to 2,000 scans, fewer for the larger collections, by turns with the "
            "floor.", "plot": {"x": "bundles", "y": "µs a scan", "series": series}}


def in_process(programs, quick):
    """Inside one process, by Google Benchmark: the server's functions on a platform that does nothing, and a log record
    that goes to /dev/null."""
    rows = []
    series = {}
    for program in (programs.bench_server, programs.bench_log):
        command = [program, "--benchmark_format=json", "--benchmark_repetitions=" + ("1" if quick else "5"),
                   "--benchmark_min_time=" + ("0.01" if quick else "0.1")]
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True, timeout=900)
        taken = {}
        for run in json.loads(done.stdout)["benchmarks"]:
            if run.get("run_type") == "iteration":
                factor = {"ns": 1, "us": 1000, "ms": MILLI}[run["time_unit"]]
                taken.setdefault(run["run_name"], []).append(run["real_time"] * factor)
        for name, values in taken.items():
            rows.append(row(name.replace("/real_time", "").replace(":", " "), "µs", values, None, 1000))
            kind, _, size = name.partition("/")
            if size.isdigit() and kind != "ManifestParsing":
                # The plot shows the whole time of a look-up, and the time per bundle of a walk over all bundles.
                each = int(size) if kind.startswith("Resolve") else 1
                series.setdefault(kind, []).append((int(size), rows[-1]["server"]["median"] / each))
    return {"rows": rows, "note": "Five repetitions. ResolveChain: each bundle requires the next; ResolveWide: every "
            "bundle requires the same ten; both with the whole walk in one figure, in the plot a bundle.",
            "plot": {"x": "bundles", "y": "µs a look-up, or a bundle", "series": series}}
