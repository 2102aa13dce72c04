#!/usr/bin/env python3
"""Tests of the Python module. Run in a mount namespace with a /mnt of its own."""

import contextlib
import os
import shutil
import signal
import socket
import stat
import struct
import sys
import threading
import time
import unittest

sys.path.insert(0, sys.argv.pop(1))
sys.dont_write_bytecode = True
import bundle_client  # noqa: E402 pylint: disable=wrong-import-position

SERVICE = "/mnt/bolt/bundlesvr.paas.kov"
EVENTS = "/mnt/bolt/event.paas.kov"
LONG = 60
HEADER = struct.Struct("=HBBHH")


def packet(method=0x80, status=200, content=b"", length=None, uri=0):
    return HEADER.pack(len(content) if length is None else length, 0, method, uri, status) + content


def event_of(publisher, event):
    return packet(1, 0, publisher.ljust(16, b"\0") + event.ljust(16, b"\0") + bytes(32))


def silence(peer):
    while peer.recv(65536):
        pass


def answer_with(answer):
    def talk(peer):
        peer.recv(65536)
        peer.send(answer)

    return talk


@contextlib.contextmanager
def service(talk):
    """Replaces the server: handles each connection as the test says."""
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    listener.bind(SERVICE)
    listener.listen(16)

    def serve():
        while True:
            peer, _ = listener.accept()
            with peer:
                if ended.is_set():
                    return
                with contextlib.suppress(OSError):
                    talk(peer)

    ended = threading.Event()
    thread = threading.Thread(target=serve)
    thread.start()
    try:
        yield
    finally:
        ended.set()
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as last:
            last.connect(SERVICE)
            thread.join()
        listener.close()
        os.unlink(SERVICE)


def descriptors():
    return sorted(os.listdir("/proc/self/fd"))


class Test(unittest.TestCase):
    def setUp(self):
        shutil.rmtree("/mnt/bolt", ignore_errors=True)
        os.mkdir("/mnt/bolt")

    def assert_takes(self, least, call, error=None):
        start = time.monotonic()
        if error:
            with self.assertRaises(error):
                call()
        else:
            self.assertIsNone(call())
        duration = time.monotonic() - start
        self.assertGreaterEqual(duration, least)
        self.assertLess(duration, 30)


class DeletingABundle(Test):
    def test_sends_its_name_in_a_field_of_zeros(self):
        requests = []

        def talk(peer):
            requests.append(peer.recv(65536))
            peer.send(packet())

        with service(talk):
            bundle_client.delete("rädio", LONG)
            bundle_client.delete(b"n" * 127, None)
        self.assertEqual(requests, [packet(4, 0, "rädio".encode().ljust(128, b"\0")), packet(4, 0, b"n" * 127 + b"\0")])

    def test_raises_an_error_for_each_other_status(self):
        errors = {400: bundle_client.Failed, 404: bundle_client.UnknownBundle, 0: bundle_client.UnknownStatus,
                  500: bundle_client.UnknownStatus}
        for status, error in errors.items():
            with service(answer_with(packet(status=status))), self.assertRaises(error) as raised:
                bundle_client.delete("radio", LONG)
            self.assertIn("radio", str(raised.exception))
            self.assertIsInstance(raised.exception, bundle_client.Error)

    def test_takes_only_names_that_fit(self):
        for name in ("", "n" * 128, "a\0b", b""):
            with self.assertRaises(ValueError):
                bundle_client.delete(name, LONG)

    def test_tells_why_no_server_is_reached(self):
        with self.assertRaisesRegex(bundle_client.Unreachable, "No such file or directory"):
            bundle_client.delete("radio", LONG)
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as dead:
            dead.bind(SERVICE)
        with self.assertRaisesRegex(bundle_client.Unreachable, "Connection refused"):
            bundle_client.delete("radio", LONG)

    def test_judges_hostile_answers(self):
        longest = b"c" * 65528
        broken = [b"x", packet()[:7], packet() + b"x", packet() + longest, packet(length=1), packet(length=65535),
                  packet(method=4)]
        for answer in broken:
            with service(answer_with(answer)), self.assertRaises(bundle_client.BrokenReply, msg=answer[:20]):
                bundle_client.delete("radio", LONG)
        for answer in (packet(content=b"x"), packet(content=longest)):
            with service(answer_with(answer)):
                bundle_client.delete("radio", LONG)
        with service(answer_with(b"")), self.assertRaises(bundle_client.Closed):
            bundle_client.delete("radio", LONG)

    def test_tells_that_the_server_has_closed_the_connection(self):
        for talk in (lambda peer: None, lambda peer: peer.recv(65536), lambda peer: peer.shutdown(socket.SHUT_RDWR)):
            for _ in range(20):
                with service(talk), self.assertRaises(bundle_client.Closed):
                    bundle_client.delete("radio", LONG)

    def test_waits_for_an_answer_as_long_as_its_limit(self):
        with service(silence):
            self.assert_takes(0.15, lambda: bundle_client.delete("radio", 0.15), bundle_client.NoReply)
            self.assert_takes(0, lambda: bundle_client.delete("radio", 0), bundle_client.NoReply)

    def test_waits_for_a_place_in_the_queue_as_long_as_its_limit(self):
        with contextlib.ExitStack() as stack:
            listener = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET))
            listener.bind(SERVICE)
            listener.listen(0)
            with contextlib.suppress(BlockingIOError):
                while True:
                    waiting = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET))
                    waiting.setblocking(False)
                    waiting.connect(SERVICE)
            self.assert_takes(0.15, lambda: bundle_client.delete("radio", 0.15), bundle_client.NoReply)
            self.assert_takes(0, lambda: bundle_client.delete("radio", 0), bundle_client.NoReply)

    def test_is_not_ended_by_signals(self):
        signal.signal(signal.SIGALRM, lambda *_: None)
        signal.setitimer(signal.ITIMER_REAL, 0.003, 0.003)
        try:
            with service(silence):
                self.assert_takes(0.15, lambda: bundle_client.delete("radio", 0.15), bundle_client.NoReply)
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)

    def test_leaves_no_descriptor_open(self):
        before = descriptors()
        for talk in (answer_with(packet()), answer_with(b"short"), silence, lambda peer: None):
            with service(talk), contextlib.suppress(bundle_client.Error):
                bundle_client.delete("radio", 0.05)
        self.assertEqual(descriptors(), before)

    def test_gives_each_of_many_threads_its_own_answer(self):
        def talk(peer):
            peer.send(packet(status=int(peer.recv(65536)[HEADER.size:].rstrip(b"\0"))))

        wrong = []

        def ask(name, error):
            for _ in range(20):
                try:
                    bundle_client.delete(name, LONG)
                    raised = None
                except bundle_client.Error as exception:
                    raised = type(exception)
                if raised is not error:
                    wrong.append((name, raised))

        errors = (("200", None), ("400", bundle_client.Failed), ("404", bundle_client.UnknownBundle))
        with service(talk):
            threads = [threading.Thread(target=ask, args=pair) for pair in errors * 3]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        self.assertEqual(wrong, [])


class ARequest(Test):
    def test_returns_the_status_whatever_it_is(self):
        with service(answer_with(packet(status=503))):
            self.assertEqual(bundle_client.request(9, b"content", LONG), 503)

    def test_is_refused_when_it_does_not_fit_the_wire(self):
        for method, content in ((128, b""), (-1, b""), (4, b"c" * 65529)):
            with self.assertRaises(ValueError):
                bundle_client.request(method, content)


class Publishing(Test):
    def test_is_heard_by_a_listener(self):
        with bundle_client.Listener() as listener:
            self.assertTrue(bundle_client.publish("tuner", "station.found"))
            self.assertEqual(listener.next(LONG), ("tuner", "station.found"))

    def test_writes_the_record_of_the_wire(self):
        os.mkfifo(EVENTS)
        fifo = os.open(EVENTS, os.O_RDWR | os.O_NONBLOCK)
        self.assertTrue(bundle_client.publish("tuner", "station.found"))
        self.assertEqual(os.read(fifo, 1000), event_of(b"tuner", b"station.found"))
        os.close(fifo)

    def test_reports_that_no_program_listens(self):
        self.assertFalse(bundle_client.publish("tuner", "event"))
        bundle_client.Listener().close()
        self.assertTrue(stat.S_ISFIFO(os.stat(EVENTS).st_mode))
        self.assertFalse(bundle_client.publish("tuner", "event"))

    def test_never_waits_for_a_listener_that_has_fallen_behind(self):
        with bundle_client.Listener() as listener:
            published = 0
            while bundle_client.publish("tuner", "event"):
                published += 1
            self.assertGreaterEqual(published, 500)
            for _ in range(published):
                self.assertEqual(listener.next(0), ("tuner", "event"))
            self.assertIsNone(listener.next(0))
            self.assertEqual(listener.skipped(), 0)

    def test_takes_only_names_that_fit(self):
        for names in (("n" * 16, "event"), ("tuner", "n" * 16), ("a\0b", "event")):
            with self.assertRaises(ValueError):
                bundle_client.publish(*names)

    def test_does_not_touch_what_is_no_event_service(self):
        with open(EVENTS, "w", encoding="utf-8") as file:
            file.write("mine")
        before = descriptors()
        with self.assertRaises(FileExistsError):
            bundle_client.publish("tuner", "event")
        with self.assertRaises(FileExistsError):
            bundle_client.Listener()
        self.assertEqual(descriptors(), before)
        with open(EVENTS, encoding="utf-8") as file:
            self.assertEqual(file.read(), "mine")
        os.unlink(EVENTS)
        os.mkfifo("/mnt/bolt/elsewhere")
        os.symlink("elsewhere", EVENTS)
        with self.assertRaises(FileExistsError):
            bundle_client.publish("tuner", "event")
        with self.assertRaises(FileExistsError):
            bundle_client.Listener()
        self.assertEqual(descriptors(), before)


class Listening(Test):
    def write(self, content):
        fifo = os.open(EVENTS, os.O_RDWR | os.O_NONBLOCK)
        self.assertEqual(os.write(fifo, content), len(content))
        os.close(fifo)

    def test_makes_the_event_service_where_it_is_missing(self):
        os.rmdir("/mnt/bolt")
        before = os.umask(0o077)
        with bundle_client.Listener():
            os.umask(before)
            self.assertEqual(os.stat("/mnt/bolt").st_mode, stat.S_IFDIR | 0o755)
            self.assertEqual(os.stat(EVENTS).st_mode, stat.S_IFIFO | 0o660)

    def test_waits_as_long_as_its_limit(self):
        with bundle_client.Listener() as listener:
            self.assert_takes(0.15, lambda: listener.next(0.15))
            self.assert_takes(0, lambda: listener.next(0))

    def test_gives_the_events_in_their_order(self):
        with bundle_client.Listener() as listener:
            for number in range(500):
                self.assertTrue(bundle_client.publish("tuner", str(number)))
            for number, event in zip(range(500), listener):
                self.assertEqual(event, ("tuner", str(number)))

    def test_skips_what_is_no_event_and_counts_it(self):
        with bundle_client.Listener() as listener:
            for junk in (b"x", b"1234567", b"j" * 500, packet(1, 0, b"short"), packet(1, 0, b"x" * 64, uri=5)):
                self.write(junk)
                self.assertIsNone(listener.next(0))
                self.assertEqual(listener.skipped(), len(junk))
                self.write(junk + event_of(b"still", b"here"))
                self.assertEqual(listener.next(0), ("still", "here"))
                self.assertEqual(listener.skipped(), len(junk))
            self.write(event_of(b"half", b"an event")[:40])
            self.assertIsNone(listener.next(0))
            self.assertEqual(listener.skipped(), 40)

    def test_shows_names_that_fill_their_fields_or_are_no_text(self):
        with bundle_client.Listener() as listener:
            self.write(event_of(b"p" * 16, b"e" * 16))
            self.write(event_of(b"\xff", b""))
            self.assertEqual(listener.next(0), ("p" * 16, "e" * 16))
            self.assertEqual(listener.next(0), ("\ufffd", ""))

    def test_leaves_no_descriptor_open(self):
        before = descriptors()
        listener = bundle_client.Listener()
        self.assertEqual(os.get_inheritable(listener.fileno()), False)
        listener.close()
        listener.close()
        del listener
        bundle_client.publish("tuner", "event")
        self.assertEqual(descriptors(), before)


if __name__ == "__main__":
    unittest.main(verbosity=1)
