"""Shared code of the benchmarks: bundles, the daemon and its floors as processes, items' reports, figures.

Everything runs in private namespaces, which script/bench has made. /mnt is an empty tmpfs. This process is the first of
its process namespace, so it can kill everything that a benchmark leaves.
"""

import array
import contextlib
import math
import os
import re
import select
import shutil
import signal
import struct
import subprocess
import time

RUN = "/mnt/bench"
SOCKET = "/mnt/bolt/bundlesvr.paas.kov"
NANO = 1_000_000_000
MILLI = 1_000_000


class Programs:
    """The paths of the built programs."""

    def __init__(self, build):
        self.server = os.path.join(build, "system_server/bundle_server_module/bundle_server")
        self.bundlectl = os.path.join(build, "tools/bundlectl/bundlectl")
        self.folder = os.path.join(build, "bench")

    def __getattr__(self, name):
        return os.path.join(self.folder, name)


class Missed(Exception):
    """Something that a benchmark waited for did not happen, or was wrong."""


def percentile(values, percent):
    """The smallest value that at least that many percent of the values do not exceed."""
    ordered = sorted(values)
    return ordered[max(0, math.ceil(len(ordered) * percent / 100) - 1)]


def summary(values):
    return {"count": len(values), "median": percentile(values, 50), "p90": percentile(values, 90),
            "p99": percentile(values, 99), "max": max(values)}


def row(what, unit, values, floor=None, scale=1, target=""):
    """One line of a table. The values are in units of scale nanoseconds."""
    line = {"what": what, "unit": unit, "target": target, "server": summary([value / scale for value in values])}
    if floor is not None:
        line["floor"] = summary([value / scale for value in floor])
    return line


def until(condition, seconds, what):
    """Waits for a condition and checks it every few milliseconds."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return
        time.sleep(0.005)
    raise Missed(f"{what} did not happen within {seconds} s")


def fresh_directory(*parts):
    path = os.path.join(RUN, *parts)
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


def write_bundle(directory, name, item=None, number=0, requires=""):
    """Writes a bundle's directory. The item, if any, gets the name "item<number>"."""
    os.makedirs(os.path.join(directory, "bin"))
    with open(os.path.join(directory, "BundleManifest.ini"), "w", encoding="ascii") as manifest:
        manifest.write(f"[global]\nbundle_name = {name}\nbundle_load_mode = 0\n")
        if requires:
            manifest.write(f"bundle_dependencies = {requires}\n")
        if item:
            manifest.write(f"[item]\nitem_name = item{number}\n")
    if item:
        shutil.copy(item, os.path.join(directory, "bin", f"item{number}"))


def collection_of_items(name, count, item):
    collection = fresh_directory(name)
    for number in range(count):
        write_bundle(os.path.join(collection, f"bundle{number:05}"), f"bundle{number:05}", item, number)
    return collection


class Reports:
    """The FIFO to which items report their start."""

    SIZE = 16

    def __init__(self, name):
        self.path = os.path.join(RUN, name + ".fifo")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)
        os.mkfifo(self.path)
        self.fd = os.open(self.path, os.O_RDWR | os.O_CLOEXEC)

    def next(self, seconds):
        """(time, pid, number) of the next item that starts."""
        if not select.select([self.fd], [], [], seconds)[0]:
            raise Missed(f"no item has started within {seconds} s")
        return struct.unpack("=qii", os.read(self.fd, self.SIZE))

    def close(self):
        os.close(self.fd)


class Process:
    """A program and its descendants, in a session of their own."""

    def __init__(self, programs, name, command, reports=None):
        self.log = os.path.join(RUN, name + ".log")
        self._stamp = os.path.join(RUN, name + ".stamp")
        for path in (self.log, self._stamp):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
        environment = dict(os.environ, ZQ_LOG_FILE=self.log, BENCH_REPORT=reports.path if reports else "")
        self._errors = os.path.join(RUN, name + ".errors")
        with open(self._errors, "wb") as errors:
            self.popen = subprocess.Popen([programs.bench_stamp, self._stamp, *command], env=environment,
                                          stdin=subprocess.DEVNULL, stdout=errors, stderr=errors,
                                          start_new_session=True)
        self.pid = self.popen.pid

    def stamps(self):
        """The time of the exec, by the monotonic clock and by the log's clock."""
        until(lambda: os.path.exists(self._stamp) and os.path.getsize(self._stamp) > 0, 10, "the start")
        with open(self._stamp, encoding="ascii") as file:
            return tuple(int(part) for part in file.read().split())

    def errors(self):
        with open(self._errors, encoding="utf-8", errors="replace") as file:
            return file.read().strip()

    def wait_for_end_of_log(self, text, seconds):
        """Waits until one of the last records has the text."""
        def is_there():
            if self.popen.poll() not in (None, 0):
                raise Missed(f"it ended with status {self.popen.returncode}: {self.errors()}")
            return text in self.end_of_log()
        until(is_there, seconds, f"the record '{text}'")

    def end_of_log(self):
        try:
            with open(self.log, "rb") as file:
                file.seek(max(0, os.path.getsize(self.log) - 8192))
                return file.read().decode("utf-8", "replace")
        except FileNotFoundError:
            return ""

    def kill(self):
        """Kills it and its descendants, which stay in its session."""
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.pid, signal.SIGKILL)
        self.popen.wait()
        until(self._nothing_left, 20, "the end of all processes")

    def _nothing_left(self):
        left = False
        for entry in os.listdir("/proc"):
            if entry.isdigit() and int(entry) != os.getpid():
                with contextlib.suppress(OSError):
                    if os.getsid(int(entry)) == self.pid:
                        os.kill(int(entry), signal.SIGKILL)
                        left = True
        # This process is the first of its namespace, so it must reap the processes that the server has left.
        with contextlib.suppress(ChildProcessError):
            while os.waitpid(-1, os.WNOHANG)[0] != 0:
                pass
        return not left


@contextlib.contextmanager
def running(programs, name, command, reports=None):
    process = Process(programs, name, command, reports)
    try:
        yield process
    finally:
        process.kill()


def server_command(programs, collection):
    config = collection + ".ini"
    with open(config, "w", encoding="ascii") as file:
        file.write(f"[global]\nbundle_collection_dir = {collection}\n")
    return [programs.server, "-f", config]


def server(programs, name, collection, reports=None):
    return running(programs, name, server_command(programs, collection), reports)


TIME = re.compile(r"(\d+)-(\d+)-(\d+)T(\d+):(\d+):(\d+)\.(\d+)Z")


def time_of_record(record):
    """The time of a log record in nanoseconds of the log's clock: the server's columns, or a floor's plain seconds."""
    first = record.split(" ", 1)[0]
    match = TIME.match(first)
    if match:
        parts = [int(group) for group in match.groups()]
        import calendar
        return calendar.timegm((*parts[:6], 0, 0, 0)) * NANO + parts[6] * 1000
    seconds, micros = first.rstrip("Z").split(".")
    return int(seconds) * NANO + int(micros) * 1000


def last_record(process, text):
    for record in reversed(process.end_of_log().splitlines()):
        if text in record:
            return time_of_record(record)
    raise Missed(f"no record '{text}'")


def numbers(output):
    """The 64-bit numbers that a program has written."""
    values = array.array("q")
    values.frombytes(output)
    return values


def memory_of(pid):
    """PSS and its anonymous part, in KiB."""
    found = {}
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        for line in file:
            key, _, rest = line.partition(":")
            if key in ("Pss", "Pss_Anon"):
                found[key] = int(rest.split()[0])
    return found["Pss"], found["Pss_Anon"]


def activity_of(pid):
    """Voluntary context switches and nanoseconds on a processor, over all threads."""
    switches = 0
    time_used = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        base = f"/proc/{pid}/task/{task}/"
        with open(base + "status", encoding="ascii") as file:
            switches += int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)", file.read(), re.M).group(1))
        with open(base + "schedstat", encoding="ascii") as file:
            time_used += int(file.read().split()[0])
    return switches, time_used
