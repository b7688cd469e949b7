#!/usr/bin/python3
"""The other set's main system: owns the decoders, and the memory of the link with its allocator.

Usage: main_system.py [JOURNAL]

Speaks with one player at a time over the queues of the decoder link, and with any process over the socket of
the vendor's link (include/otherset/link.h). Appends what happens to JOURNAL, a line each: `> SIGNAL PARAM1 PAYLOAD`
from the player, `< SIGNAL PARAM1` to it, `gone` when a process has left, with the blocks that it had and those that are in use. Takes orders
from standard input, a line each:

    refuse            refuse all requests from now on
    grant             grant them
    ask KINDS         ask decoders back: 1 audio, 2 video, 3 both
    control TEXT      send a control text

With NOTIFY_SOCKET in the environment it says when it can be asked. Knows nothing but the standard library.
"""
import array
import ctypes
import errno
import mmap
import os
import select
import signal
import socket
import struct
import sys

OURS, THEIRS = b"/BplayerAppIfUlDestFunc", b"/BplayerAppIfLlDestFunc"
MESSAGE = struct.Struct("=12I")
MEDIA_INFO, VIDEO_FORMAT, SET_WINDOW = 489, 490, 513
NEEDED, AVAILABLE, NOT_AVAILABLE, RELEASE, RELEASED, CONTROL = 516, 517, 518, 519, 520, 530
ALLOCATE, FREE, SIZE = 1, 2, 3
MEMORY_BYTES = 1 << 20
NONBLOCK_AND_CLOEXEC = os.O_NONBLOCK | os.O_CLOEXEC


class QueueAttributes(ctypes.Structure):
    _fields_ = [(name, ctypes.c_long) for name in ("flags", "capacity", "message_bytes", "messages", *"abcd")]


libc = ctypes.CDLL(None, use_errno=True)


def checked(result, what):
    if result < 0:
        code = ctypes.get_errno()
        raise OSError(code, f"{what}: {os.strerror(code)}")
    return result


class Memory:
    """Blocks in a file of memory that others map. Each block is somebody's: who dies leaves nothing."""

    def __init__(self):
        self.file = os.memfd_create("otherset-link")
        os.ftruncate(self.file, MEMORY_BYTES)
        self.bytes = mmap.mmap(self.file, MEMORY_BYTES)
        self.base = (os.getpid() % 254 + 1) << 24 # a successor's addresses are others
        self.blocks = {} # address: (bytes, owner)

    def allocate(self, size, owner):
        """First fit, 0 when there is no room."""
        if not 0 < size <= MEMORY_BYTES:
            return 0
        start = self.base
        for address in sorted(self.blocks):
            if address - start >= size:
                break
            start = address + (self.blocks[address][0] + 63) // 64 * 64
        if start + size > self.base + MEMORY_BYTES:
            return 0
        self.blocks[start] = size, owner
        return start

    def free(self, address):
        return int(self.blocks.pop(address, None) is not None)

    def size(self, address):
        return self.blocks.get(address, (0,))[0]

    def free_all_of(self, owner):
        """How many there were."""
        left = [address for address, block in self.blocks.items() if block[1] == owner]
        return sum(self.free(address) for address in left)

    def read(self, address, size):
        if not 0 < size <= self.size(address):
            return None
        return self.bytes[address - self.base:address - self.base + size]

    def write(self, address, data):
        self.bytes[address - self.base:address - self.base + len(data)] = data


class MainSystem:
    def __init__(self, journal):
        self.journal = journal
        self.memory = Memory()
        self.refuses = False
        self.granted = 0 # a mask of kinds
        self.number = 1
        self.clients = {} # connections by descriptor
        # What an earlier one left in the queue was in memory that went with it.
        libc.mq_unlink(OURS)
        attributes = QueueAttributes(0, 50, MESSAGE.size)
        self.queue = checked(libc.mq_open(OURS, os.O_RDONLY | os.O_CREAT | os.O_EXCL | NONBLOCK_AND_CLOEXEC, 0o660,
                                          ctypes.byref(attributes)), f"cannot make the queue {OURS.decode()}")
        path = os.environ.get("OTHERSET_LINK", "/tmp/otherset-link")
        if os.path.exists(path):
            os.unlink(path)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.bind(path)
        self.listener.listen(16)

    def note(self, *words):
        print(*words, file=self.journal, flush=True)

    # ---- the vendor's link

    def accept(self):
        client, _ = self.listener.accept()
        self.clients[client.fileno()] = client
        client.sendmsg([struct.pack("=2I", self.memory.base, MEMORY_BYTES)],
                       [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [self.memory.file]))])
        return client.fileno()

    def answer(self, descriptor):
        client = self.clients[descriptor]
        try:
            request = client.recv(8)
            if len(request) == 8:
                question, value = struct.unpack("=2I", request)
                result = {ALLOCATE: lambda: self.memory.allocate(value, descriptor), FREE: lambda: self.memory.free(value),
                          SIZE: lambda: self.memory.size(value)}.get(question, lambda: 0)()
                client.send(struct.pack("=I", result))
                return
        except ConnectionError:
            pass
        self.take_leave(descriptor)

    def take_leave(self, descriptor):
        """A process is gone: what it has sent is read, what it had is free."""
        self.read_queue()
        left = self.memory.free_all_of(descriptor)
        self.clients.pop(descriptor).close()
        self.granted = 0
        self.note(f"gone, {left} left behind, {len(self.memory.blocks)} in use")

    # ---- the decoder link

    def read_queue(self):
        buffer = ctypes.create_string_buffer(MESSAGE.size)
        while libc.mq_receive(self.queue, buffer, MESSAGE.size, None) == MESSAGE.size:
            self.take(MESSAGE.unpack(buffer.raw))

    def take(self, words):
        which, param1, cookies, number = words[0], words[1], words[3:5], words[7] >> 16 & 0xff
        size, address = ctypes.c_int32(words[9]).value, words[10]
        payload = self.memory.read(address, size)
        self.memory.free(address)
        if number == 1: # a new player
            self.granted = 0
        self.note(">", which, param1, payload.hex() if payload else "-")
        if which == NEEDED and self.refuses:
            self.send(NOT_AVAILABLE, 0, cookies)
        elif which == NEEDED:
            self.granted |= param1
            self.send(AVAILABLE, param1, cookies)
        elif which == RELEASED:
            self.granted &= ~param1
            self.note("granted", self.granted)

    def send(self, which, param1, cookies=(0, 0), payload=b""):
        address = 0
        if payload:
            address = self.memory.allocate(len(payload), None)
            if not address:
                return self.note("no room for a payload")
            self.memory.write(address, payload)
        words = [which, param1, 0, *cookies, 0, 0, self.number << 16, 0, len(payload), address, 0]
        queue = libc.mq_open(THEIRS, os.O_WRONLY | NONBLOCK_AND_CLOEXEC)
        sent = queue >= 0 and libc.mq_send(queue, MESSAGE.pack(*words), MESSAGE.size, 0) == 0
        why = None if sent else errno.errorcode[ctypes.get_errno()]
        if queue >= 0:
            libc.mq_close(queue)
        if not sent:
            self.memory.free(address)
            return self.note("lost", which, why)
        self.number = self.number + 1 if self.number < 254 else 2
        self.note("<", which, param1)

    # ---- orders

    def obey(self, order):
        verb, _, rest = order.strip().partition(" ")
        if verb in ("refuse", "grant"):
            self.refuses = verb == "refuse"
        elif verb == "ask" and rest in ("1", "2", "3"):
            self.send(RELEASE, int(rest))
        elif verb == "control":
            self.send(CONTROL, 0, payload=rest.encode())
        else:
            self.note("no such order:", order.strip())

    def run(self):
        poll = select.poll()
        orders = open(sys.stdin.fileno(), "rb", buffering=0, closefd=False) # poll does not see what a buffer has
        for source in (self.queue, self.listener.fileno(), orders.fileno()):
            poll.register(source, select.POLLIN)
        self.note("ready")
        ready_at(os.environ.get("NOTIFY_SOCKET"))
        while True:
            for descriptor, _ in poll.poll():
                if descriptor == self.queue:
                    self.read_queue()
                elif descriptor == self.listener.fileno():
                    poll.register(self.accept(), select.POLLIN)
                elif descriptor in self.clients:
                    self.answer(descriptor)
                    if descriptor not in self.clients:
                        poll.unregister(descriptor)
                else:
                    order = orders.readline()
                    if order:
                        self.obey(order.decode())
                    else:
                        poll.unregister(descriptor)


def ready_at(name):
    """As a service manager wants it."""
    if name:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.sendto(b"READY=1", "\0" + name[1:] if name[0] == "@" else name)


if len(sys.argv) > 2:
    sys.exit(__doc__.strip())
signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
with open(sys.argv[1] if len(sys.argv) == 2 else os.devnull, "a") as opened:
    MainSystem(opened).run()
