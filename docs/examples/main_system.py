#!/usr/bin/env python3
"""A main system that grants every decoder and shows what passes, byte by byte.

It knows nothing but the bytes of the decoder link: a pattern for one in any language. Without the
vendor's library it cannot read payloads, nor free them: name that on a set.

Usage: main_system.py [LIBCPUCOMM]
"""

import ctypes
import os
import select
import socket
import struct
import sys

OWN_QUEUE, PLUG_IN_QUEUE = b"/BplayerAppIfUlDestFunc", b"/BplayerAppIfLlDestFunc"
CAPACITY, OWNER_AND_GROUP = 50, 0o660
DECODER_NEEDED, DECODER_AVAILABLE = 516, 517
WORDS = struct.Struct("=12I")  # in the machine's byte order
SIGNAL, PARAM1, SIGNAL_SIZE, SIGNAL_PTR = 0, 1, 9, 10

libc = ctypes.CDLL(None, use_errno=True)


class Attributes(ctypes.Structure):
    _fields_ = [("flags", ctypes.c_long), ("capacity", ctypes.c_long), ("message_size", ctypes.c_long),
                ("messages", ctypes.c_long), ("reserved", ctypes.c_long * 4)]


def attach(path):
    """The process's part in the shared memory."""
    vendor = ctypes.CDLL(path)
    vendor.Trid_Util_CPUComm_Convert2VirtualAddr.restype = ctypes.c_void_p
    vendor.Trid_Util_CPUComm_Free.argtypes = [ctypes.c_void_p]
    vendor.TriHidtvRegMap()
    if vendor.Trid_Util_CPUComm_Init(0) != 0 or vendor.Trid_Util_CPUComm_Ready() != 0:
        sys.exit(f"{path}: no shared memory")
    return vendor


def take_payload(vendor, message):
    """Its bytes. Whoever receives frees, whatever the message says."""
    block = vendor and message[SIGNAL_PTR] and vendor.Trid_Util_CPUComm_Convert2VirtualAddr(message[SIGNAL_PTR])
    if not block:
        return b""
    payload = ctypes.string_at(block, message[SIGNAL_SIZE])
    vendor.Trid_Util_CPUComm_Free(block)
    return payload


def receive(queue, vendor):
    """The next message and its payload; none: there is none."""
    body = ctypes.create_string_buffer(WORDS.size)
    if libc.mq_receive(queue, body, ctypes.c_size_t(WORDS.size), None) != WORDS.size:
        return None
    message = WORDS.unpack(body.raw)
    return message, take_payload(vendor, message)


def make_queue(vendor):
    """Anew, and free of what an earlier main system has left."""
    old = libc.mq_open(OWN_QUEUE, os.O_RDONLY | os.O_NONBLOCK)
    while old >= 0 and receive(old, vendor):
        pass
    libc.mq_unlink(OWN_QUEUE)
    queue = libc.mq_open(OWN_QUEUE, os.O_CREAT | os.O_EXCL | os.O_RDONLY | os.O_NONBLOCK, OWNER_AND_GROUP,
                         ctypes.byref(Attributes(capacity=CAPACITY, message_size=WORDS.size)))
    if queue < 0:
        sys.exit(f"{OWN_QUEUE.decode()}: {os.strerror(ctypes.get_errno())}")
    return queue


def show(way, message, payload=b""):
    print(way, WORDS.pack(*message).hex(" ", -4), payload.hex() and f"\n  {payload.hex(' ', -4)}", flush=True)


class PlugIn:
    """Where answers go."""

    def __init__(self):
        self.sequence = 1  # a sender that has just started

    def send(self, signal, param1):
        message = [signal, param1, 0, 0, 0, 0, 0, self.sequence << 16, 0, 0, 0, 0]
        queue = libc.mq_open(PLUG_IN_QUEUE, os.O_WRONLY | os.O_NONBLOCK)
        if libc.mq_send(queue, WORDS.pack(*message), ctypes.c_size_t(WORDS.size), 0) == 0:
            self.sequence = 2 if self.sequence == 254 else self.sequence + 1
            show("<", message)
        if queue >= 0:
            libc.mq_close(queue)


def say_ready():
    """To whoever waits with the players, if anybody does."""
    if "NOTIFY_SOCKET" in os.environ:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
            notify.sendto(b"READY=1", os.environ["NOTIFY_SOCKET"].replace("@", "\0", 1))


def main():
    vendor = attach(sys.argv[1]) if len(sys.argv) > 1 else None
    queue, plug_in = make_queue(vendor), PlugIn()
    say_ready()
    while True:
        select.select([queue], [], [])
        while received := receive(queue, vendor):
            message, payload = received
            show(">", message, payload)
            if message[SIGNAL] == DECODER_NEEDED:
                plug_in.send(DECODER_AVAILABLE, message[PARAM1])


main()
