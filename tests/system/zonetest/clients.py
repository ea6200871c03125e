"""What talks to the daemon over its sockets and its FIFO."""

import contextlib
import ctypes
import os
import platform
import socket
import struct
import threading
from dataclasses import dataclass

from .polling import SCALE

STATES = ("STOPPED", "STARTING", "RUNNING", "STOPPING", "ABORTING", "FREEZING", "FROZEN", "THAWED")
STATE, PRIORITY, EXIT = 0, 1, 2
LXC_PATH = "/var/lib/lxc"

_FORMAT = struct.Struct("=i256si")
_SETRESUID = {"x86_64": 117, "aarch64": 147, "armv7l": 208, "riscv64": 147}
LONGEST_NAME = 105


@dataclass(frozen=True)
class Message:
    """A monitor message of LXC: 264 bytes."""

    type: int
    name: str
    value: int

    SIZE = _FORMAT.size

    def pack(self):
        return _FORMAT.pack(self.type, self.name.encode(), self.value)

    @classmethod
    def unpack(cls, data):
        kind, name, value = _FORMAT.unpack(data)
        return cls(kind, name.partition(b"\0")[0].decode(), value)

    @classmethod
    def state(cls, name, word):
        return cls(STATE, name, STATES.index(word))


def publisher_address(lxc_path=LXC_PATH):
    """The abstract address at which subscribers connect: the hash of the path, and the path."""
    value = 0xCBF29CE484222325
    for byte in f"lxc/{lxc_path}/monitor-sock".encode():
        value = ((value ^ byte) * 0x100000001B3) & 0xFFFFFFFFFFFFFFFF
    return b"\0" + f"lxc/{value:016x}/{lxc_path}".encode()[:LONGEST_NAME]


def init_pid_address():
    """The abstract address of the init-pid server: its name is all the 108 bytes, so all are given."""
    return b"\0zonemanager_socket".ljust(108, b"\0")


def fifo_path(lxc_path=LXC_PATH):
    """The monitor FIFO, as the root sees it."""
    return f"/run/lxc/{lxc_path}/monitor-fifo"


def _as_user(uid, action):
    """Calls `action` with another effective user id, on a thread of its own: they are a thread's."""
    outcome = []

    def body():
        libc = ctypes.CDLL(None, use_errno=True)
        result = libc.syscall(_SETRESUID[platform.machine()], -1, uid, -1)
        if result != 0:
            outcome.append(OSError(ctypes.get_errno(), "setresuid"))
            return
        try:
            action()
            outcome.append(None)
        except OSError as error:
            outcome.append(error)

    thread = threading.Thread(target=body)
    thread.start()
    thread.join()
    if outcome[0] is not None:
        raise outcome[0]


class Client:
    """A connected stream socket in a root; closed by `close` or at the end of a with block."""

    def __init__(self, root, address, uid=None, timeout=10.0):
        self.socket = root.socket()
        self.socket.settimeout(timeout * SCALE)
        try:
            if uid is None:
                self.socket.connect(address)
            else:
                _as_user(uid, lambda: self.socket.connect(address))
        except BaseException:
            self.socket.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def receive(self, size):
        """Exactly so many bytes, or fewer when the other side has closed."""
        data = b""
        while len(data) < size:
            part = self.socket.recv(size - len(data))
            if not part:
                break
            data += part
        return data


class Subscriber(Client):
    """A program that wants every state change. The daemon has it listed once it has logged so."""

    def __init__(self, root, lxc_path=LXC_PATH, uid=None, timeout=10.0):
        super().__init__(root, publisher_address(lxc_path), uid, timeout)

    def next(self):
        """The next message; None when the daemon has closed the connection."""
        data = self.receive(Message.SIZE)
        return Message.unpack(data) if len(data) == Message.SIZE else None

    def silent_for(self, duration):
        """Whether nothing comes, and no end either, for so many seconds."""
        before = self.socket.gettimeout()
        self.socket.settimeout(duration)
        try:
            self.socket.recv(1, socket.MSG_PEEK)
        except TimeoutError:
            return True
        finally:
            self.socket.settimeout(before)
        return False


def ask_init_pid(root, name, timeout=10.0):
    """The init-pid server's answer as text. `name` is a text or bytes."""
    with Client(root, init_pid_address(), timeout=timeout) as client:
        client.socket.sendall(name if isinstance(name, bytes) else name.encode())
        return client.receive(64).decode()


def send_messages(root, *messages, lxc_path=LXC_PATH):
    """Writes Messages, or bytes as they are, into the monitor FIFO. Fails, as for containers, when nobody
    reads."""
    fd = os.open(root.path(fifo_path(lxc_path)), os.O_WRONLY | os.O_NONBLOCK)
    try:
        for message in messages:
            data = message if isinstance(message, bytes) else message.pack()
            assert os.write(fd, data) == len(data)
    finally:
        os.close(fd)


def send_states(root, name, *words, lxc_path=LXC_PATH):
    """Reports these states of a container, one after another."""
    send_messages(root, *(Message.state(name, word) for word in words), lxc_path=lxc_path)


@contextlib.contextmanager
def busy_monitor(daemon):
    """Meanwhile the monitor's thread waits for the question of an init-pid client; what comes lies there, and
    is there all at once for it afterwards."""
    mark = daemon.mark()
    with Client(daemon.root, init_pid_address()):
        daemon.wait_for("is connected[listen socket", after=mark)
        yield
