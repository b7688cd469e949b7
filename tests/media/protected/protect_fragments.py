#!/usr/bin/env python3
"""Encrypts a fragmented MP4 of H.264 and AAC ("cenc") in ways that packagers know and ffmpeg does not.

Usage: protect_fragments.py whole|rotation|restart|mixed IN.mp4 OUT.mp4

whole:    all fragments with the track's key
rotation: fragments in turn clear, with the track's key, and with another one, by sample groups
restart:  the first half clear, then another 'moov' and the rest encrypted
mixed:    fragments whose first half is clear by sample groups
"""

import ctypes
import itertools
import struct
import sys

KEY_IDS = bytes(range(16)), bytes(range(16, 32))
KEYS = bytes(range(32, 48)), bytes(range(48, 64))
# Boxes that hold boxes, and how many bytes stand in front of those.
PREFIX = {b"moov": 0, b"trak": 0, b"mdia": 0, b"minf": 0, b"stbl": 0, b"moof": 0, b"traf": 0,
          b"stsd": 8, b"avc1": 78, b"mp4a": 28}


def parse(data):
    """[type, bytes in front, children or bytes] of each box."""
    boxes = []
    while data:
        size, kind = struct.unpack(">I4s", data[:8])
        body, data = data[8:size], data[size:]
        front = PREFIX.get(kind)
        boxes.append([kind, b"", body] if front is None else [kind, body[:front], parse(body[front:])])
    return boxes


def pack(boxes):
    text = b""
    for kind, front, body in boxes:
        body = front + (body if isinstance(body, bytes) else pack(body))
        text += struct.pack(">I4s", len(body) + 8, kind) + body
    return text


def box(kind, *fields):
    return [kind, b"", b"".join(fields)]


def every(boxes, kind):
    for entry in boxes:
        if entry[0] == kind:
            yield entry
        elif not isinstance(entry[2], bytes):
            yield from every(entry[2], kind)


def word(number):
    return struct.pack(">I", number)


def protect_movie(moov):
    for clear, kind in ((b"avc1", b"encv"), (b"mp4a", b"enca")):
        for entry in every(moov, clear):
            tenc = box(b"tenc", word(0), bytes([0, 0, 1, 16]), KEY_IDS[0])
            entry[0] = kind
            entry[2].append([b"sinf", b"", [box(b"frma", clear), box(b"schm", word(0), b"cenc", word(0x10000)),
                                            [b"schi", b"", [tenc]]]])


def index_of(moov, fragments):
    """A 'sidx' of the first track: libavformat reads encrypted fragments only where there is one."""
    mdhd = next(every(moov[2], b"mdhd"))[2]
    entries = b""
    for fragment in fragments:
        tfhd, trun = (next(every(fragment[0][2], kind))[2] for kind in (b"tfhd", b"trun"))
        duration = struct.unpack(">I", tfhd[8:12])[0] * struct.unpack(">I", trun[4:8])[0]
        entries += word(len(pack(fragment))) + word(duration) + word(0x90000000)
    start = next(every(fragments[0][0][2], b"tfdt"))[2][4:12]
    return box(b"sidx", word(0x1000000), word(1), mdhd[12:16], start, bytes(8), word(len(fragments)), entries)


def sizes_of(trun):
    """(where the run's data begin, counted from the 'moof'; sizes of its samples)."""
    flags, count, offset = struct.unpack(">III", trun[2][:12])
    if not flags & 1 or not flags & 0x200:
        sys.exit("a run without data offset or sizes")
    at = 16 if flags & 4 else 12
    width = 4 * bin(flags & 0xf00).count("1")
    at += 4 if flags & 0x100 else 0
    return offset, [struct.unpack(">I", trun[2][at + i * width:][:4])[0] for i in range(count)]


class Cipher:
    """AES-CTR by libcrypto."""

    def __init__(self):
        self.crypto = ctypes.CDLL("libcrypto.so.3")
        for name in ("EVP_CIPHER_CTX_new", "EVP_aes_128_ctr"):
            getattr(self.crypto, name).restype = ctypes.c_void_p
        self.context = ctypes.c_void_p(self.crypto.EVP_CIPHER_CTX_new())

    def encrypt(self, key, vector, data, parts):
        """The sample; `parts` are its ranges of clear and encrypted bytes."""
        out, length, at = ctypes.create_string_buffer(len(data)), ctypes.c_int(), 0
        cipher = ctypes.c_void_p(self.crypto.EVP_aes_128_ctr())
        if self.crypto.EVP_EncryptInit_ex(self.context, cipher, None, key, vector) != 1 \
                or self.crypto.EVP_EncryptUpdate(self.context, out, ctypes.byref(length), bytes(len(data)), len(data)) != 1:
            sys.exit("libcrypto does not encrypt")
        stream, data = iter(out.raw), bytearray(data)
        for clear, secret in parts:
            at += clear
            for i in range(at, at + secret):
                data[i] ^= next(stream)
            at += secret
        return bytes(data)


def parts_of(sample, is_video):
    """Ranges of clear and encrypted bytes: NAL units keep their beginning."""
    if not is_video:
        return [(0, len(sample))]
    parts = []
    while sample:
        size = 4 + struct.unpack(">I", sample[:4])[0]
        parts.append((min(size, 64), max(size - 64, 0)))
        sample = sample[size:]
    return parts


def groups(descriptions, runs):
    """The boxes of the sample group "seig" of a fragment."""
    return [box(b"sgpd", word(0x1000000), b"seig", word(20), word(len(descriptions)), *descriptions),
            box(b"sbgp", word(0), b"seig", word(len(runs)), *(word(n) + word(0x10000 + i) for n, i in runs))]


CLEAR = bytes(20)
SECOND = bytes([0, 0, 1, 16]) + KEY_IDS[1]


def protect_fragment(moof, mdat, way, cipher, vectors, videos):
    """Encrypts samples and says so; `way`: "clear", "first", "second" key, "mixed"; `videos`: whether each track is one."""
    before = len(pack([moof]))
    data, front = bytearray(mdat[2]), before + 8
    for is_video, traf in zip(videos, every(moof[2], b"traf")):
        added = []
        for trun in every(traf[2], b"trun"):
            offset, sizes = sizes_of(trun)
            secrets = b""
            for i, size in enumerate(sizes):
                if way == "mixed" and i < len(sizes) // 2:
                    secrets += struct.pack(">H", 0)  # a clear sample has no vector
                    offset += size
                    continue
                sample = bytes(data[offset - front:offset - front + size])
                vector, parts = struct.pack(">QQ", 1, next(vectors) << 32), parts_of(sample, is_video)
                secrets += vector + struct.pack(">H", len(parts)) + b"".join(struct.pack(">HI", *part) for part in parts)
                if way != "clear":
                    data[offset - front:offset - front + size] = cipher.encrypt(KEYS[way == "second"], vector, sample, parts)
                offset += size
            if way != "clear":
                added.append(box(b"senc", word(2), word(len(sizes)), secrets))
            if way == "clear":
                added += groups([CLEAR], [(len(sizes), 1)])
            elif way == "second":
                added += groups([CLEAR, SECOND], [(len(sizes), 2)])
            elif way == "mixed":
                added += groups([CLEAR], [(len(sizes) // 2, 1)])
        traf[2] += added
    grown = len(pack([moof])) - before
    for trun in every(moof[2], b"trun"):
        trun[2] = trun[2][:8] + word(struct.unpack(">I", trun[2][8:12])[0] + grown) + trun[2][12:]
    mdat[2] = bytes(data)


def main():
    mode, source, target = sys.argv[1:]
    with open(source, "rb") as file:
        boxes = [entry for entry in parse(file.read()) if entry[0] in (b"ftyp", b"moov", b"moof", b"mdat")]
    head, fragments = boxes[:2], boxes[2:]
    fragments = list(zip(fragments[::2], fragments[1::2]))
    cipher, vectors = Cipher(), itertools.count(1)
    out = b""
    if mode == "restart":
        half = len(fragments) // 2
        out = pack(head) + b"".join(pack(fragment) for fragment in fragments[:half])
        fragments = fragments[half:]
    videos = [any(every(trak[2], b"avc1")) for trak in every(head, b"trak")]
    protect_movie(head)
    ways = {"whole": ("first",), "rotation": ("clear", "first", "second"), "restart": ("first",), "mixed": ("mixed",)}[mode]
    for fragment, way in zip(fragments, itertools.cycle(ways)):
        protect_fragment(*fragment, way, cipher, vectors, videos)
    out += pack([*head, index_of(head[1], fragments), *itertools.chain(*fragments)])
    with open(target, "wb") as file:
        file.write(out)


main()
