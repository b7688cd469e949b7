#!/usr/bin/env python3
"""Where host and backend meet: virtual tables as they were built, and the names that are exported.

Usage: slot_order_test.py LIBUVAGSTBACKEND UVA_HOST [UNIT_NAMING_PROGRAM]...

The library's table has its operations and, in between, those of the host's own libuva; the reference
host's client has the table that events are delivered through. Neither is stripped; 32 or 64 bits, of
any processor. Needs readelf, nm and c++filt.
"""

import re
import struct
import subprocess
import sys
import unittest

if len(sys.argv) < 3:
    sys.exit(__doc__.strip())
BACKEND, HOST = sys.argv[1:3]
UNIT_NAMING_PROGRAMS = sys.argv[2:]

UNIT_NAMES = {"traceUnitsStringArray", "traceUnitsStringArraySizePtr"}
BACKEND_EXPORTS = UNIT_NAMES | set("""
UVA_RequestBackend
UVA_ReleaseBackend
BackendInit
BackendTerm
uvaGstIfReceiver
CUvaGstIfReceiver::waitForDecoderAvailable(_GstElement*, char const*)
gst_backend_debug
gst_backendif_debug
gst_mshell_debug
gst_dbglayer_debug
""".strip().splitlines())

# What a slot is called, and whether the backend (own) or the host's library answers it.
BACKEND_SLOTS = """
~GstNoxBackend() own
~GstNoxBackend() own
getCapabilities() host
getTimelineDetails(std::string const&) host
setWindowId(unsigned int) own
setLogicalScreenSize(int, int) own
responseFromGetCookiesEvent(char const*, unsigned int) host
responseFromSetCookieEvent(bool, unsigned int) host
eventCompleted(UVAAsyncEvent const*, bool) own
releaseResources(UVABackend::ResourceType) own
releaseResources() own
releaseBackendAsynchronously() host
initBackend(char const*, UVABackend::SourceDescription**, bool) host
initBackend(char const*, UVABackend::SourceDescription**, bool, bool) own
attachSource(UVABackend::SourceDescription*) own
removeSource(unsigned int) own
setVideoWindowAndClip(UVABackend::Rect const&, UVABackend::Rect const&) own
setVideoOutputID(int) host
getNativeSize(int&, int&, double&) own
getVideoFrame(unsigned char*, unsigned int) host
startCapture(int, int) host
frameConsumed(unsigned int, bool) host
resourcesReleased(std::vector<unsigned int> const&) host
stopCapture() host
getSeekableTimeRanges(UVABackend::ByteRange**, UVABackend::TimeRange**&) own
getBufferedTimeRanges(unsigned int, std::vector<UVABackend::ByteRange> const&, std::vector<UVABackend::TimeRange>&) own
canPlaySource(UVABackend::SourceDescription const&) own
load() host
play() own
suspend() host
getStartDate(double&) host
pause() own
pauseAsync() host
setPlaybackRate(double) own
setVolume(double) host
getDuration(double&) own
setContentSize(unsigned int, unsigned long long) own
getPosition(double&) host
getPosition() own
setPosition(double) own
adjustPosition(UVATime const&) host
setVisibility(bool) host
getSizeFromDuration(double, unsigned long long&) host
writeData(UVAEvent*, unsigned int, UVABackend::WriteDataStatus) own
canPlayType(UVABackend::ContentDescription const&) own
setFullScreen(bool) own
getSupportedMimetypes(char**&) own
setLoop(int) own
setCache(bool) host
addTrack(UVABackend::AVComponent::Kind, char const*, char const*, char const*) own
queue(UVABackend::SourceDescription*) host
selectComponent(UVABackend::AVComponent*) own
unselectComponent(UVABackend::AVComponent*) own
registerExternalComponents(std::vector<UVABackend::AVComponent*> const&) host
unregisterExternalComponents(std::vector<UVABackend::AVComponent*> const&) host
onListenerChanged(char const*) host
getBytesInBuffer(unsigned long long&) host
setKeySystem(char const*) host
setKeySystem(UVAKeySystemConfig const&) own
passDataAttribute(char const*, char const*) host
getPlaybackSpeedRanges(std::vector<UVAMediaBackend::SpeedRange>&) own
setActive(bool) host
setPrefs(std::map<std::string, std::string>) host
""".strip().splitlines()

# A host's headers may have these under names of their own, with an alias.
VALUE_TYPES = re.compile(r"UVABackend::(?:Rect|ByteRange|TimeRange|ContentDescription)|UVATime|UVAKeySystemConfig|"
                         r"UVAMediaBackend::SpeedRange")

HEADER_WORDS = 2  # offset to top and type information come before the slots


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def simplify(name):
    """A demangled name without what says nothing here: ABI tags, default template arguments."""
    name = name.replace("[abi:cxx11]", "").replace("__cxx11::", "")
    name = re.sub(r"std::basic_string<char, std::char_traits<char>, std::allocator<char> ?>",
                  "std::string", name)
    name = re.sub(r", std::(less|allocator)<.*?> ?>? ?>(?= const&|&|\))", ">", name)
    name = re.sub(r"std::map<std::string, std::string.*> const&", "std::map<std::string, std::string>", name)
    return re.sub(r", std::allocator<[^<>]*> ?>", ">", name)


def is_slot(name, expected, classes):
    """Whether a slot's function is the expected one of a class of these."""
    signature = r"[\w:<> ]+".join(re.escape(part) for part in VALUE_TYPES.split(expected))
    return re.fullmatch(f"(?:{'|'.join(classes)})::{signature}", name) is not None


def exports(file):
    """What a file offers to others, demangled."""
    return {line.split(maxsplit=2)[2].split("@")[0]
            for line in run("nm", "--dynamic", "--defined-only", "--demangle", file).splitlines()}


class Image:
    """The bytes of a file at the addresses where they are loaded."""

    def __init__(self, file):
        self.bytes = open(file, "rb").read()
        self.word_size = 8 if self.bytes[4] == 2 else 4
        self.order = "<" if self.bytes[5] == 1 else ">"
        self.segments = [[int(word, 16) for word in line.split()[1:6]]
                         for line in run("readelf", "--segments", "--wide", file).splitlines()
                         if line.split()[:1] == ["LOAD"]]

    def word(self, address):
        for offset, start, _, size, _ in self.segments:
            if start <= address < start + size:
                return struct.unpack_from(self.order + ("Q" if self.word_size == 8 else "I"), self.bytes,
                                          offset + address - start)[0]
        raise AssertionError(f"nothing at {address:#x}")


def virtual_table(library, symbol):
    """Names of the functions in a class's virtual table, in order."""
    names = {}
    table = None
    for line in run("readelf", "--syms", "--wide", library).splitlines():
        fields = line.split()
        if len(fields) >= 8 and fields[0].rstrip(":").isdigit():
            name = fields[7].split("@")[0]
            if fields[3] == "FUNC":
                names[int(fields[1], 16)] = name
            if name == symbol:
                table = int(fields[1], 16), int(fields[2], 0)
    if table is None:
        raise AssertionError(f"{library} has no {symbol}: is it stripped?")
    start, size = table
    image = Image(library)
    slots = {}
    for line in run("readelf", "--relocs", "--wide", library).splitlines():
        match = re.match(r"([0-9a-f]{8,16})\s+\S+\s+(R_\S+)\s*(.*)", line)
        if not match or not start <= int(match[1], 16) < start + size:
            continue
        address = int(match[1], 16)
        rest = match[3].split()
        if len(rest) > 1:
            name = rest[1].split("@")[0]
        else: # relative: to what stands in the relocation or, without that, at the place
            name = names.get(int(rest[0], 16) if rest else image.word(address), "?")
        slots[(address - start) // image.word_size - HEADER_WORDS] = name
    mangled = [slots.get(i, "?") for i in range(size // image.word_size - HEADER_WORDS)]
    demangled = subprocess.run(["c++filt"], input="\n".join(mangled), capture_output=True,
                               text=True, check=True).stdout.splitlines()
    return [simplify(name) for name in demangled]


class SlotOrder(unittest.TestCase):
    def test_backend(self):
        actual = virtual_table(BACKEND, "_ZTV13GstNoxBackend")
        self.assertGreaterEqual(len(actual), len(BACKEND_SLOTS)) # a host may have more behind them
        for number, (name, expected) in enumerate(zip(actual, BACKEND_SLOTS), 1):
            signature, whose = expected.rsplit(" ", 1)
            classes = ("GstNoxBackend",) if whose == "own" else ("UVABackend", "UVAMediaBackend")
            with self.subTest(slot=number):
                self.assertTrue(is_slot(name, signature, classes), f"{name} stands where {signature} is {whose}")

    def test_event_delivery_is_the_clients_third_entry(self):
        actual = virtual_table(HOST, "_ZTVN4host11ElementCoreE")
        self.assertEqual(actual[:3], ["host::ElementCore::~ElementCore()"] * 2 +
                         ["host::ElementCore::deliverEvent(UVAEvent*)"])

    def test_exports_are_what_others_need_and_no_more(self):
        families = re.compile(r"gst_uva_\w+|gst_buffer_\w+_content_protection_meta")
        names = {name for name in exports(BACKEND) if not families.fullmatch(name)}
        self.assertEqual(names, BACKEND_EXPORTS)
        for program in UNIT_NAMING_PROGRAMS:
            self.assertLessEqual(UNIT_NAMES, exports(program), program)


unittest.main(argv=sys.argv[:1], verbosity=2, warnings="ignore")
