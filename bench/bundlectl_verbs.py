"""The benchmarks of bundlectl's verbs: the whole run of the program, from its start to its end."""

import os
import random
import subprocess
import time

from harness import MILLI, Missed, fresh_directory, row, write_bundle

MEBI = 1024 * 1024


def run_of(command, statuses):
    """How many nanoseconds a program takes. It must end with one of the statuses."""
    begin = time.monotonic_ns()
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, timeout=300)
    taken = time.monotonic_ns() - begin
    if done.returncode not in statuses:
        raise Missed(f"{' '.join(command)} ends with {done.returncode}: {done.stdout[-300:]}")
    return taken, done.stdout


def authored_collection(name, count):
    """Bundles as authors have them: a program each, scripts, a requirement for every other bundle."""
    collection = fresh_directory(name)
    for number in range(count):
        path = os.path.join(collection, f"bundle{number:05}")
        write_bundle(path, f"bundle{number:05}", "/bin/true", number, f"bundle{number - 1:05}" if number % 2 else "")
        os.makedirs(os.path.join(path, "script"))
        for script in ("install.sh", "update.sh"):
            with open(os.path.join(path, "script", script), "w", encoding="ascii") as file:
                file.write("#!/bin/sh\nmkdir -p \"$(dirname \"$0\")/../data\"\n")
            os.chmod(file.name, 0o755)
    return collection


def authors(programs, quick):
    """What bundlectl lint and bundlectl plan take for 1,000 bundles, each with a program and two scripts."""
    count, turns = 1000, 3 if quick else 20
    collection = authored_collection("authors", count)
    rows = []
    for verb, statuses, text in (("lint", (0,), b"1000 bundles: 0 errors"), ("plan", (1,), b"bundle00999")):
        taken = []
        for _ in range(turns):
            time_taken, output = run_of([programs.bundlectl, verb, collection], statuses)
            if text not in output:
                raise Missed(f"bundlectl {verb} does not tell of all bundles: {output[-300:]}")
            taken.append(time_taken)
        rows.append(row(f"{count:,} bundles: {verb}", "ms", taken, None, MILLI, "1,000 ms"))
    return {"rows": rows, "note": "From the start of the program to its end."}


def verify(programs, quick):
    """What bundlectl verify takes for a bundle of 128 MiB: its directory, and its archive. The floors are sha256sum of
    the same files, and gzip that unpacks the same archive into sha256sum."""
    size, turns = (16 if quick else 128) * MEBI, 3 if quick else 10
    collection = fresh_directory("verify")
    bundle = os.path.join(collection, "bundle")
    write_bundle(bundle, "bundle")
    numbers = random.Random(1)
    files = 16
    for number in range(files):
        with open(os.path.join(bundle, "bin", f"file{number}"), "wb") as file:
            # Half of it can be compressed, like a program.
            for _ in range(size // files // 65536):
                file.write(numbers.randbytes(32768) + bytes(32768))
    archive = os.path.join(collection, "bundle.tar.gz")
    run_of([programs.bundlectl, "pack", bundle, "-o", archive], (0,))
    unpacked = fresh_directory("verify-unpacked")
    subprocess.run(["tar", "-xzf", archive, "-C", unpacked], check=True, timeout=300)
    each = ["sha256sum", *sorted(os.path.join(unpacked, "bin", name) for name in os.listdir(f"{unpacked}/bin"))]
    pairs = (("a directory", unpacked, each, "1.2 x"),
             ("an archive", archive, ["sh", "-c", f"gzip -dc {archive} | sha256sum"], ""))
    rows = []
    for what, source, floor, target in pairs:
        times = {"server": [], "floor": []}
        for turn in range(turns + 1):
            for side, command in (("server", [programs.bundlectl, "verify", source]), ("floor", floor)):
                taken, _ = run_of(command, (0,))
                if turn > 0:
                    times[side].append(taken)
        rows.append(row(f"{size // MEBI} MiB: {what}", "ms", times["server"], times["floor"], MILLI, target))
    return {"rows": rows, "note": "From the start of the program to its end, verb and floor by turns, after one that "
            "does not count. The files lie in memory."}
