"""Clients of the bundle server: delete a bundle, publish events and listen for them.

One file, which needs nothing but Python 3.7 or later and Linux. Copy it beside the program that uses it.

    import bundle_client

    with bundle_client.Listener() as listener:
        bundle_client.delete("media", timeout=60)
        event = listener.next(timeout=5)

Threads: every function may be called from any thread, several at the same time. A Listener alone belongs to one thread
at a time. Time limits are in seconds of the monotonic clock; None is no limit, 0 does not wait. Names are str, encoded
as UTF-8, or bytes. The server serves its own user and root.
"""

import collections
import errno
import os
import select
import socket
import stat
import struct
import time

__all__ = ["BrokenReply", "Closed", "Error", "Event", "Failed", "Listener", "NoReply", "UnknownBundle", "UnknownStatus",
           "Unreachable", "delete", "publish", "request", "server"]

_SERVICE_DIRECTORY = "/mnt/bolt"
_SERVICE = _SERVICE_DIRECTORY + "/bundlesvr.paas.kov"
_EVENT_SERVICE = _SERVICE_DIRECTORY + "/event.paas.kov"

# Length of the content, kind, method, uri, status; in the byte order of the machine, without padding.
_HEADER = struct.Struct("=HBBHH")
_LONGEST_CONTENT = 65536 - _HEADER.size
_RESPONSE_FLAG = 0x80
_METHOD_DELETE = 4
_NAME_FIELD = 128

_EVENT = struct.Struct("=16s16s32s")
_EVENT_HEADER = _HEADER.pack(_EVENT.size, 0, 1, 0, 0)
_EVENT_SIZE = _HEADER.size + _EVENT.size
# Reads whole events, so that other listeners also get whole events.
_READ_SIZE = 56 * _EVENT_SIZE

# How often to try again while the server's queue of connections is full.
_PAUSE = 0.01


class Error(Exception):
    """A request has not succeeded."""


class Unreachable(Error):
    """No server can be reached. Nothing was done."""


class NoReply(Error):
    """The time is over. The server may still execute the request."""


class Closed(Error):
    """The server closed the connection without a reply: it has ended, or refuses this user."""


class BrokenReply(Error):
    """The packet is not a reply."""


class Failed(Error):
    """The server could not do it, or only in part; its log says why."""


class UnknownBundle(Error):
    """The server knows no bundle of that name."""


class UnknownStatus(Error):
    """The reply has a status that this module does not know."""


_ERRORS = {400: Failed, 404: UnknownBundle}


class _Deadline:
    def __init__(self, timeout):
        self._end = None if timeout is None else time.monotonic() + timeout

    def left(self):
        """In seconds; None: no limit."""
        return None if self._end is None else max(self._end - time.monotonic(), 0)

    def is_over(self):
        return self._end is not None and time.monotonic() >= self._end


def _bytes(name):
    return name.encode("utf-8", "surrogateescape") if isinstance(name, str) else bytes(name)


def _field(what, name, longest):
    """The name as bytes. ValueError if it does not fit a field that ends with a NUL."""
    name = _bytes(name)
    if len(name) > longest or b"\0" in name:
        raise ValueError("%s has at most %d bytes, and no NUL" % (what, longest))
    return name


def delete(name, timeout=30):
    """Deletes a bundle: the server stops it, uninstalls it and removes its directory.

    The name is the one in the bundle's manifest, 1 to 127 bytes. The limit is for connecting, the request and its reply
    together; a script of a bundle can hold the server for long.

    Returns when the bundle is gone. After ValueError, Unreachable and UnknownBundle it is as it was; after any other
    exception it may be gone, now or later.
    """
    name = _field("a bundle's name", name, _NAME_FIELD - 1)
    if not name:
        raise ValueError("a bundle's name has at least one byte")
    status = request(_METHOD_DELETE, name.ljust(_NAME_FIELD, b"\0"), timeout)
    if status != 200:
        error = _ERRORS.get(status, UnknownStatus)
        raise error("bundle %r: %s (status %d)" % (name.decode("utf-8", "replace"), error.__doc__, status))


def server(timeout=30):
    """The process id of the server that answers requests, which it does as soon as all bundles have been started.

    0 where the server is in another pid namespace.
    """
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
        _connect(connection, _Deadline(timeout))
        credentials = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
        return struct.unpack("3i", credentials)[0]


def request(method, content=b"", timeout=30):
    """Sends one request and waits for its reply, whose status it returns, whatever that is.

    delete uses it. Use it yourself when this module has no function that sends your request.
    """
    if not 0 <= method < _RESPONSE_FLAG:
        raise ValueError("a method is from 0 to 127")
    if len(content) > _LONGEST_CONTENT:
        raise ValueError("a content has at most %d bytes" % _LONGEST_CONTENT)
    deadline = _Deadline(timeout)
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
        _connect(connection, deadline)
        try:
            connection.settimeout(deadline.left())
            connection.send(_HEADER.pack(len(content), 0, method, 0, 0) + content)
            connection.settimeout(deadline.left())
            # One byte more than a valid packet, to recognise a longer one.
            reply = connection.recv(_HEADER.size + _LONGEST_CONTENT + 1)
        except (socket.timeout, BlockingIOError):
            raise NoReply(NoReply.__doc__) from None
        except (BrokenPipeError, ConnectionResetError):
            raise Closed(Closed.__doc__) from None
    return _status_of(reply)


def _connect(connection, deadline):
    connection.setblocking(False)
    while True:
        try:
            connection.connect(_SERVICE)
            return
        except BlockingIOError:
            # The queue of connections is full. No event shows when it has room again.
            if deadline.is_over():
                raise NoReply("No server has taken the connection in time. Nothing was done.") from None
            left = deadline.left()
            time.sleep(_PAUSE if left is None else min(_PAUSE, left))
        except OSError as error:
            raise Unreachable("No server can be reached at %s: %s." % (_SERVICE, error.strerror)) from error


def _status_of(reply):
    if not reply:
        raise Closed(Closed.__doc__)
    if len(reply) < _HEADER.size:
        raise BrokenReply("The reply is shorter than a header.")
    length, _, method, _, status = _HEADER.unpack_from(reply)
    if length != len(reply) - _HEADER.size:
        raise BrokenReply("The reply's length field is not its content's length.")
    if not method & _RESPONSE_FLAG:
        raise BrokenReply("What came is no reply.")
    return status


Event = collections.namedtuple("Event", "publisher event")
Event.__doc__ = "An event; both names are str. The server publishes app.event.init as bundle_service after a deletion."


def _no_fifo():
    return FileExistsError(errno.EEXIST, "something that is no FIFO stands in the event service's place", _EVENT_SERVICE)


def _open_fifo(flags):
    """Does not follow a link: a user who may write to the directory must not choose which file is used."""
    try:
        descriptor = os.open(_EVENT_SERVICE, flags | os.O_NONBLOCK | os.O_NOFOLLOW | os.O_NOCTTY | os.O_CLOEXEC)
    except OSError as error:
        if error.errno == errno.ELOOP:
            raise _no_fifo() from None
        raise
    if not stat.S_ISFIFO(os.fstat(descriptor).st_mode):
        os.close(descriptor)
        raise _no_fifo()
    return descriptor


def publish(publisher, event):
    """Publishes an event; each name has at most 15 bytes. Never waits.

    Returns whether a listener is there and has room for the event. Where it returns False the event is dropped. OSError
    where the event service cannot be used.
    """
    record = _EVENT.pack(_field("a publisher", publisher, 15), _field("an event", event, 15), b"")
    descriptors = []
    try:
        # This open fails without a reader. The descriptor is not used for writing: if the reader leaves, the write
        # would fail.
        for flags in (os.O_WRONLY, os.O_RDWR):
            descriptors.append(_open_fifo(flags))
        # A write this short is complete or has no effect.
        os.write(descriptors[-1], _EVENT_HEADER + record)
        return True
    except BlockingIOError:
        return False
    except OSError as error:
        if error.errno in (errno.ENXIO, errno.ENOENT):
            return False
        raise
    finally:
        for descriptor in descriptors:
            os.close(descriptor)


def _make(path, mode, make):
    """Makes the directory or FIFO if it is missing."""
    try:
        make(path, mode)
    except FileExistsError:
        return
    os.chmod(path, mode)  # set again, because the umask may have removed bits


class Listener:
    """Listens for events, from its making to close. All listeners of a machine share the events.

    Makes the event service, and the directory that it stands in, where they are missing. OSError where that fails. A
    context manager, which closes it, and an iterator over the events, which never ends.
    """

    def __init__(self):
        self._fifo = -1
        self._bytes = b""
        self._skipped = 0
        _make(_SERVICE_DIRECTORY, 0o755, os.mkdir)
        _make(_EVENT_SERVICE, 0o660, os.mkfifo)
        # Also for writing, so that the end of one publisher is not the end of the file.
        self._fifo = _open_fifo(os.O_RDWR)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def __del__(self):
        self.close()

    def __iter__(self):
        return self

    def __next__(self):
        return self.next()

    def close(self):
        """Ends listening. The event service stays. May be called again."""
        descriptor, self._fifo = self._fifo, -1
        if descriptor >= 0:
            os.close(descriptor)

    def fileno(self):
        """The descriptor, for select or poll. When it is readable, take events with a limit of 0 until None."""
        return self._fifo

    def next(self, timeout=None):
        """The next event; None when none has come in time."""
        deadline = _Deadline(timeout)
        while True:
            event = self._take()
            if event is not None or deadline.is_over():
                return event
            left = deadline.left()
            poll = select.poll()
            poll.register(self._fifo, select.POLLIN)
            # Rounded up, so that it does not wake up too early.
            poll.poll(None if left is None else int(left * 1000) + 1)

    def skipped(self):
        """The bytes since the last call that were not an event. Another program has written them."""
        skipped, self._skipped = self._skipped, 0
        return skipped

    def _take(self):
        event = self._cut()
        if event is not None:
            return event
        try:
            read = os.read(self._fifo, _READ_SIZE)
        except BlockingIOError:
            read = b""
        self._bytes += read
        event = self._cut()
        if event is None and len(read) < _READ_SIZE:
            self._skip(len(self._bytes))  # the FIFO is empty, so the rest is not the beginning of an event
        return event

    def _cut(self):
        """The next event in the bytes that were read. Its header marks its beginning."""
        place = self._bytes.find(_EVENT_HEADER)
        if place < 0:
            # An event may still begin in the last few bytes.
            self._skip(max(len(self._bytes) - _HEADER.size + 1, 0))
            return None
        self._skip(place)
        if len(self._bytes) < _EVENT_SIZE:
            return None
        names = _EVENT.unpack_from(self._bytes, _HEADER.size)[:2]
        self._bytes = self._bytes[_EVENT_SIZE:]
        return Event(*(name.split(b"\0")[0].decode("utf-8", "replace") for name in names))

    def _skip(self, count):
        self._skipped += count
        self._bytes = self._bytes[count:]
