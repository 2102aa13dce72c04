"""The benchmarks. Each is a function of the programs and of whether to be quick. It returns a list of rows that compare
the server's figures with the floor's, and for some benchmarks a plot."""

import fcntl
import os
import random
import re
import select
import shutil
import signal
import subprocess
import threading
import time

import bundlectl_verbs
from harness import (MILLI, NANO, RUN, SOCKET, Missed, Reports, activity_of, collection_of_items,
                     fresh_directory, last_record, memory_of, numbers, row, running, server, server_command, until,
                     write_bundle)
from single_operations import in_process, log_record, scan


def items(reports, count, seconds):
    """Waits until that many items have started."""
    end = time.monotonic() + seconds
    return [reports.next(max(0.1, end - time.monotonic())) for _ in range(count)]


def relaunch(programs, quick):
    """From kill -9 of an item that has run for over two seconds to the first statement of its relaunched program. The
    server's item and the floor's are killed by turns."""
    kills = 3 if quick else 60
    warm_up = 2
    reports = {"server": Reports("relaunch-server"), "floor": Reports("relaunch-floor")}
    times = {"server": [], "floor": []}
    collection = collection_of_items("relaunch", 1, programs.bench_item)
    floor_command = [programs.floor_supervise, os.path.join(RUN, "relaunch-floor.log"), "1", programs.bench_item]
    with server(programs, "relaunch-server", collection, reports["server"]) as daemon, \
            running(programs, "relaunch-floor", floor_command, reports["floor"]):
        pids = {side: reports[side].next(10)[1] for side in reports}
        daemon.wait_for_end_of_log("bundle server start running...", 10)
        for turn in range(warm_up + kills):
            for side in reports:
                time.sleep(1.15)  # with the other's turn, over two seconds for each
                before = time.monotonic_ns()
                os.kill(pids[side], signal.SIGKILL)
                begun, pids[side], _ = reports[side].next(10)
                if turn >= warm_up:
                    times[side].append(begun - before)
    return {"rows": [row("kill to first statement", "ms", times["server"], times["floor"], MILLI,
                         "1.3 x in the median, 1.5 x in p99")],
            "note": f"{kills} kills each, by turns, after {warm_up} that do not count."}


def storm(programs, quick):
    """From the kill of all items at once until all run again. Each launch is followed by a pause of a second, so n of
    them take at least n - 1 s."""
    count = 4 if quick else 50
    rows = []
    for side in ("server", "floor"):
        reports = Reports("storm-" + side)
        command = server_command(programs, collection_of_items("storm", count, programs.bench_item)) \
            if side == "server" else \
            [programs.floor_supervise, os.path.join(RUN, "storm-floor.log"), str(count), programs.bench_item]
        with running(programs, "storm-" + side, command, reports):
            pids = [pid for _, pid, _ in items(reports, count, count + 20)]
            time.sleep(2.2)
            before = time.monotonic_ns()
            for pid in pids:
                os.kill(pid, signal.SIGKILL)
            back = items(reports, count, 2 * count + 20)
            if len({number for _, _, number in back}) != count:
                raise Missed(f"{side}: an item came back twice and another not at all")
            taken = [begun - before for begun, _, _ in back]
        rows.append((taken[0], taken[-1], (taken[-1] - (count - 1) * NANO) / count))
    (server_first, server_all, server_each), (floor_first, floor_all, floor_each) = rows
    return {"rows": [row("the first is back", "ms", [server_first], [floor_first], MILLI, "as a relaunch"),
                     row(f"all {count} are back", "s", [server_all], [floor_all], NANO),
                     row("beyond the pauses, a launch", "ms", [server_each], [floor_each], MILLI, "0.5 ms")],
            "note": f"One storm of {count} items; each came back once."}


def memory(programs, quick):
    """The server's memory with n items running; the floor is a daemon of the framework with a directory watcher."""
    rows = []
    series = {"in all": [], "anonymous": []}
    with running(programs, "memory-floor", [programs.floor_memory, fresh_directory("empty")]) as floor:
        time.sleep(3)
        floor_pss, floor_anonymous = memory_of(floor.pid)
    for count in ((0, 1, 4) if quick else (0, 1, 10, 50, 200)):
        reports = Reports("memory")
        with server(programs, "memory", collection_of_items("memory", count, programs.bench_item), reports) as daemon:
            items(reports, count, count + 30)
            daemon.wait_for_end_of_log("bundle server start running...", 30)
            time.sleep(3)
            pss, anonymous = memory_of(daemon.pid)
        series["in all"].append((count, pss))
        series["anonymous"].append((count, anonymous))
        at_zero = count == 0
        rows.append(row(f"{count} items: in all", "KiB", [pss], [floor_pss] if at_zero else None, 1,
                        "below 6,656 KiB" if count == 200 else ""))
        rows.append(row(f"{count} items: anonymous", "KiB", [anonymous], [floor_anonymous] if at_zero else None, 1,
                        "1.2 x" if at_zero else ""))
    last, first = series["anonymous"][-1], series["anonymous"][0]
    rows.append(row("anonymous, an item more", "KiB", [(last[1] - first[1]) / last[0]], None, 1, "1 KiB"))
    return {"rows": rows, "note": "The proportional share (PSS), three seconds after the start-up was over; one start "
            "for each number of items.", "plot": {"x": "items", "y": "KiB", "series": series}}


def idle(programs, quick):
    """What the server does when nothing happens, with n bundles running."""
    count, seconds = (4, 5) if quick else (50, 60)
    reports = Reports("idle")
    with server(programs, "idle", collection_of_items("idle", count, programs.bench_item), reports) as daemon:
        items(reports, count, count + 30)
        daemon.wait_for_end_of_log("bundle server start running...", 30)
        time.sleep(3)
        switches, used = activity_of(daemon.pid)
        begin = time.monotonic()
        time.sleep(seconds)
        later_switches, later_used = activity_of(daemon.pid)
        taken = time.monotonic() - begin
    return {"rows": [row(f"{count} bundles: wake-ups a second", "", [(later_switches - switches) / taken], None, 1,
                         "1.0"),
                     row(f"{count} bundles: processor time a second", "ms", [(later_used - used) / taken], None, MILLI,
                         "0.1 ms")],
            "note": f"Voluntary context switches and time on a processor of all threads, over {seconds} s."}


def hot_add(programs, quick):
    """From a bundle's arrival in the collection of the running server, at a random moment, to its item's first
    statement."""
    renames, copies = (2, 1) if quick else (30, 10)
    random.seed(1)
    collection = fresh_directory("hot-add")
    staging = fresh_directory("hot-add-staging")
    reports = Reports("hot-add")
    times = {"rename": [], "copy": []}
    with server(programs, "hot-add", collection, reports) as daemon:
        daemon.wait_for_end_of_log("bundle server start running...", 10)
        for number, way in enumerate(["rename"] * renames + ["copy"] * copies):
            name = f"bundle{number:05}"
            source, target = os.path.join(staging, name), os.path.join(collection, name)
            write_bundle(source, name, programs.bench_item, number)
            time.sleep(1.5 + random.random())  # the pause of the launch before takes a second
            before = time.monotonic_ns()
            if way == "rename":
                os.rename(source, target)
            else:
                shutil.copytree(source, target)
            times[way].append(reports.next(10)[0] - before)
    return {"rows": [row("renamed in", "s", times["rename"], None, NANO, "median 1.55 s, worst 2.05 s"),
                     row("copied in place", "s", times["copy"], None, NANO, "one scan (1 s) later")],
            "note": f"{renames} renames and {copies} copies at random moments. The server scans once a second and "
            "waits a second before it loads."}


def start_up(programs, quick):
    """From the exec of the server to the first statement of the last of n items. The pauses take n - 1 s of this time."""
    rows = []
    for count, repetitions in ((1, 3), (3, 1)) if quick else ((1, 40), (10, 5), (50, 1)):
        beyond = {"server": [], "floor": []}
        collection = collection_of_items("start-up", count, programs.bench_item)
        for repetition in range(repetitions + (1 if count == 1 else 0)):
            for side in beyond:
                reports = Reports("start-up-" + side)
                command = server_command(programs, collection) if side == "server" else \
                    [programs.floor_supervise, os.path.join(RUN, "start-up-floor.log"), str(count),
                     programs.bench_item]
                with running(programs, "start-up-" + side, command, reports) as process:
                    last = items(reports, count, count + 20)[-1][0]
                    taken = last - process.stamps()[0]
                reports.close()
                if count > 1 or repetition > 0:  # the first run has cold caches
                    beyond[side].append(taken - (count - 1) * NANO)
        limit = 6 if count == 1 else 6 + 0.5 * count
        rows.append(row(f"{count} item{'s' if count > 1 else ''}: beyond the {count - 1} s of pauses", "ms",
                        beyond["server"], beyond["floor"], MILLI, f"{limit:g} ms"))
    return {"rows": rows, "note": "Server and floor by turns."}


def ask(programs, socket, clients, amount):
    done = subprocess.run([programs.bench_request_client, socket, str(clients), str(amount)], stdout=subprocess.PIPE,
                          check=True, timeout=300)
    return numbers(done.stdout)


class ShortenedLog(threading.Thread):
    """Empties a log every two seconds, so that a minute of requests does not fill the memory that holds it."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self._path = path
        self._over = threading.Event()

    def run(self):
        while not self._over.wait(2):
            os.truncate(self._path, 0)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        self.join()


def request(programs, quick):
    """A request to delete an unknown bundle: the round trip for a client, and the number of round trips in a second."""
    requests, rounds, seconds = (500, 2, 2) if quick else (5000, 10, 60)
    floor_socket = os.path.join(RUN, "request-floor.socket")
    rows = []
    with server(programs, "request-server", fresh_directory("request")) as daemon, \
            running(programs, "request-floor",
                    [programs.floor_request, os.path.join(RUN, "request-floor.log"), floor_socket]) as floor:
        daemon.wait_for_end_of_log("bundle server start running...", 10)
        until(lambda: os.path.exists(floor_socket), 10, "the floor's socket")
        sides = {"server": (daemon, SOCKET), "floor": (floor, floor_socket)}
        for clients in (1, 8):
            times = {"server": [], "floor": []}
            rates = {"server": [], "floor": []}
            for turn in range(rounds + 1):
                for side, (process, socket) in sides.items():
                    begin = time.monotonic()
                    taken = ask(programs, socket, clients, requests)
                    if turn > 0:  # the first turn warms up
                        times[side].extend(taken)
                        rates[side].append(len(taken) / (time.monotonic() - begin))
                    os.truncate(process.log, 0)
            plural = "s" if clients > 1 else ""
            rows.append(row(f"{clients} client{plural}: round trip", "µs", times["server"], times["floor"], 1000,
                            "1.15 x in the median, 1.3 x in p99"))
            rows.append(row(f"{clients} client{plural}: requests a second", "", rates["server"], rates["floor"], 1,
                            "0.85 x"))
        with ShortenedLog(daemon.log):
            answered = len(ask(programs, SOCKET, 8, f"{seconds}s"))
        rows.append(row(f"8 clients for {seconds} s: requests a second", "", [answered / seconds]))
    return {"rows": rows, "note": f"{rounds} rounds of {requests} requests a client, server and floor by turns, after "
            f"one that does not count. In {seconds} s of load the server answered {answered:,} requests, each with "
            "404."}


def write_collection(name, count):
    collection = fresh_directory(name)
    for number in range(count):
        write_bundle(os.path.join(collection, f"bundle{number:05}"), f"bundle{number:05}",
                     requires=f"bundle{number - 1:05}" if number % 2 else "")
    return collection


def load(programs, quick):
    """Loading and resolving: from the exec to "init bundle server done." for a collection of n bundles without items.
    Every other bundle requires another one. The floor reads the same files and writes as many records."""
    rows = []
    series = {"server": [], "floor": []}
    for count, repetitions in ((100, 2), (1000, 1)) if quick else ((100, 20), (1000, 10), (5000, 5), (20000, 3)):
        collection = write_collection("load", count)
        each = {"server": [], "floor": []}
        for repetition in range(repetitions + 1):
            for side in each:
                command = server_command(programs, collection) if side == "server" else \
                    [programs.floor_load, os.path.join(RUN, "load-floor.log"), collection]
                with running(programs, "load-" + side, command) as process:
                    process.wait_for_end_of_log("init bundle server done.", 120)
                    taken = last_record(process, "init bundle server done.") - process.stamps()[1]
                if repetition > 0:
                    each[side].append(taken / count)
        rows.append(row(f"{count:,} bundles: a bundle", "µs", each["server"], each["floor"], 1000, "1.6 x"))
        for side in series:
            series[side].append((count, rows[-1][side]["median"]))
    grows = dict(series["server"])
    note = "Server and floor by turns, the first of each not counted."
    if 20000 in grows:
        note += f" A bundle of 20,000 costs {grows[20000] / grows[1000]:.2f} times one of 1,000 (target 1.1)."
    return {"rows": rows, "note": note, "plot": {"x": "bundles", "y": "µs a bundle", "series": series}}


def peak_memory(command):
    """The most memory that a program has used before it writes, in KiB. Its output does not fit into the pipe, so it
    waits there to be looked at."""
    with subprocess.Popen(command, stdout=subprocess.PIPE) as child:
        fcntl.fcntl(child.stdout, fcntl.F_SETPIPE_SZ, 4096)
        select.select([child.stdout], [], [], 60)
        with open(f"/proc/{child.pid}/status", encoding="ascii", errors="replace") as file:
            peak = re.search(r"VmHWM:\s*(\d+) kB", file.read())
        child.stdout.read()
    if peak is None:
        raise Missed("the program ends before its memory is looked at")
    return int(peak[1])


def status(programs, quick):
    """The cost of bundlectl status for 200 bundles: the time of the whole run, and its memory."""
    count, turns = 200, 3 if quick else 30
    taken = []
    with server(programs, "status", write_collection("status", count)) as process:
        process.wait_for_end_of_log("init bundle server done.", 120)
        command = [programs.bundlectl, "status", "--log", process.log]
        for _ in range(turns):
            begin = time.monotonic_ns()
            ended = subprocess.run(command, stdout=subprocess.PIPE, check=False)
            taken.append(time.monotonic_ns() - begin)
            if ended.returncode != 0 or f"{count} of {count} bundles".encode() not in ended.stdout:
                raise Missed(f"bundlectl status ends with {ended.returncode}: {ended.stdout[-300:]}")
        memory_used = [peak_memory(command) for _ in range(turns)]
    return {"rows": [row(f"{count} bundles", "ms", taken, None, MILLI, "100"),
                     row(f"{count} bundles: memory", "MiB", memory_used, None, 1024, "10")],
            "note": "From the start of the program to its end."}


ALL = {"relaunch": relaunch, "storm": storm, "memory": memory, "idle": idle, "hot-add": hot_add, "start-up": start_up,
       "request": request, "load": load, "scan": scan, "log-record": log_record, "status": status,
       "authors": bundlectl_verbs.authors, "verify": bundlectl_verbs.verify, "in-process": in_process}
