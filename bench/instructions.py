"""Counts with callgrind the instructions of work that must not get slower. Unlike times, they do not depend on the load."""

import json
import os
import re
import signal
import subprocess

from benchmarks import ask, write_collection
from harness import RUN, SOCKET, Missed, fresh_directory, running, server_command, until

KEPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "instructions.json")
GROWTH = 1.05
BUNDLES = 1000
REQUESTS = 200


def count(programs, name, collection, functions, work):
    """The instructions that the server spends inside the functions and the functions that they call."""
    out = os.path.join(RUN, name + ".callgrind")
    command = ["/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=" + out, "--collect-atstart=no"]
    command += ["--toggle-collect=" + function for function in functions]
    with running(programs, name, command + server_command(programs, collection)) as process:
        process.wait_for_end_of_log("bundle server start running...", 300)
        until(lambda: os.path.exists(SOCKET), 30, "the service's socket")
        work()
        os.kill(process.pid, signal.SIGTERM)
        process.popen.wait(timeout=60)
    with open(out, encoding="utf-8") as file:
        found = re.search(r"^(?:summary|totals): (\d+)", file.read(), re.M)
    if not found or int(found.group(1)) == 0:
        raise Missed(f"{name}: callgrind has counted nothing; are the functions' names still right?")
    return int(found.group(1))


def measure(programs):
    manager = "SystemServer::BundleManager::"
    load = count(programs, "instructions-load", write_collection("instructions-load", BUNDLES),
                 [manager + "LoadAllBundles*", manager + "ResolveAllBundles*"], lambda: None)
    requests = count(programs, "instructions-request", fresh_directory("instructions-request"),
                     ["HostPlatform::Connection::OnReadable*"], lambda: ask(programs, SOCKET, 1, REQUESTS))
    return {"load and resolve, a bundle of 1,000": load // BUNDLES, "one request": requests // REQUESTS}


def check(programs, keep):
    """Compares the figures with those in the tree, or stores them there. Returns the exit status."""
    found = measure(programs)
    if keep:
        with open(KEPT, "w", encoding="ascii") as file:
            json.dump(found, file, indent=2)
            file.write("\n")
    with open(KEPT, encoding="ascii") as file:
        kept = json.load(file)
    status = 0
    for what, instructions in found.items():
        grown = instructions > kept[what] * GROWTH
        status = 1 if grown else status
        print(f"{what}: {instructions:,} instructions, kept {kept[what]:,} ({instructions / kept[what] - 1:+.1%})"
              + (": GROWN BY MORE THAN 5 %" if grown else ""))
    return status
