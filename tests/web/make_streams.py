#!/usr/bin/env python3
"""Makes what the tests of web players play: DASH and HLS, clear and with Clear Key.

Usage: make_streams.py FFMPEG PROTECT_FRAGMENTS SECONDS OUT_FOLDER

Two renditions and a sound: a 440 Hz tone. Across the top of each picture stands its number, in 12
blocks, the lowest bit first; white is 1. 25 pictures a second, a key frame and a segment a second.
"""

import base64
import pathlib
import shutil
import struct
import subprocess
import sys

RATE = 25
KEY_ID = bytes(range(16)).hex()  # of protect_fragments.py
RENDITIONS = [("512x288", 512, 288, "600k"), ("256x144", 256, 144, "200k")]
SYSTEM = "1077efecc0b24d02ace33c1e52e2fb4b"  # of all key systems


def picture(size):
    number = "if(lt(Y,H/8),if(mod(floor(N/pow(2,floor(X*12/W))),2),235,16),lum(X,Y))"
    return f"testsrc2=rate={RATE}:size={size},geq=lum='{number}':cb='if(lt(Y,H/8),128,cb(X,Y))':cr='if(lt(Y,H/8),128,cr(X,Y))'"


def boxes(data, at=0):
    while at + 8 <= len(data):
        size, kind = struct.unpack(">I4s", data[at:at + 8])
        yield kind, at, size
        at += size


def protection_box(key_id):
    """'pssh' for all key systems, with a key id."""
    body = bytes([1, 0, 0, 0]) + bytes.fromhex(SYSTEM) + struct.pack(">I", 1) + bytes.fromhex(key_id) + struct.pack(">I", 0)
    return struct.pack(">I4s", 8 + len(body), b"pssh") + body


def add_protection_box(path):
    """At the end of the 'moov': a page hears of it by an "encrypted" event."""
    data, box = path.read_bytes(), protection_box(KEY_ID)
    at, size = next((at, size) for kind, at, size in boxes(data) if kind == b"moov")
    path.write_bytes(data[:at] + struct.pack(">I", size + len(box)) + data[at + 4:at + size] + box + data[at + size:])


def uuid(text):
    return "-".join([text[:8], text[8:12], text[12:16], text[16:20], text[20:]])


class Streams:
    def __init__(self, ffmpeg, protect_fragments, seconds, folder):
        self.ffmpeg, self.protect_fragments, self.seconds, self.folder = ffmpeg, protect_fragments, seconds, folder
        self.source = folder / "source.mp4"

    def run(self, *arguments, folder=None):
        subprocess.run([self.ffmpeg, "-nostdin", "-loglevel", "error", "-y", *map(str, arguments)],
                       cwd=folder or self.folder, check=True)

    def make_source(self):
        inputs, maps = [], []
        for index, (size, _, _, _) in enumerate(RENDITIONS):
            inputs += ["-f", "lavfi", "-i", picture(size) + f",trim=duration={self.seconds}"]
            maps += ["-map", index]
        inputs += ["-f", "lavfi", "-i", f"sine=frequency=440:sample_rate=48000:duration={self.seconds}"]
        rates = [word for index, row in enumerate(RENDITIONS) for word in (f"-b:v:{index}", row[3])]
        self.run(*inputs, *maps, "-map", len(RENDITIONS), "-c:v", "libx264", "-preset", "veryfast", "-profile:v", "main",
                 "-pix_fmt", "yuv420p", "-g", RATE, "-keyint_min", RATE, "-sc_threshold", 0, "-bf", 2, *rates,
                 "-c:a", "aac", "-ac", 2, "-b:a", "96k", "-threads", 1, self.source)

    def make_dash(self):
        folder = self.folder / "dash"
        folder.mkdir()
        self.run("-i", self.source, "-map", 0, "-c", "copy", "-f", "dash", "-seg_duration", 1, "-use_template", 1,
                 "-use_timeline", 1, "-adaptation_sets", "id=0,streams=v id=1,streams=a", "manifest.mpd", folder=folder)

    def make_hls(self):
        folder = self.folder / "hls"
        folder.mkdir()
        self.run("-i", self.source, "-map", "0:v:0", "-map", "0:v:1", "-map", "0:a:0", "-c", "copy", "-f", "hls",
                 "-hls_time", 1, "-hls_playlist_type", "vod", "-hls_segment_type", "fmp4",
                 "-hls_fmp4_init_filename", "init_%v.mp4", "-hls_segment_filename", "s%v_%d.m4s", "-master_pl_name", "master.m3u8",
                 "-var_stream_map", "v:0,agroup:a,name:high v:1,agroup:a,name:low a:0,agroup:a,name:sound,default:yes",
                 "%v.m3u8", folder=folder)

    def make_protected(self):
        """Fragmented files with an index, for a DASH manifest and HLS playlists."""
        folder = self.folder / "protected"
        folder.mkdir()
        for index, stream in enumerate(["0:v:0", "0:v:1", "0:a:0"]):
            self.run("-i", self.source, "-map", stream, "-c", "copy", "-f", "mp4",
                     "-movflags", "+frag_keyframe+empty_moov+default_base_moof", "-frag_duration", 1000000,
                     "clear.mp4", folder=folder)
            subprocess.run([sys.executable, self.protect_fragments, "whole", "clear.mp4", f"s{index}.mp4"], cwd=folder, check=True)
            add_protection_box(folder / f"s{index}.mp4")
        (folder / "clear.mp4").unlink()
        (folder / "manifest.mpd").write_text(self.manifest(folder))
        self.write_playlists(folder)

    def manifest(self, folder):
        protection = (
            f'<ContentProtection schemeIdUri="urn:mpeg:dash:mp4protection:2011" value="cenc" cenc:default_KID="{uuid(KEY_ID)}"/>'
            '<ContentProtection schemeIdUri="urn:uuid:e2719d58-a985-b3c9-781a-b030af78d30e" value="ClearKey1.0"/>')
        sets = []
        for kind, rows in (("video", [0, 1]), ("audio", [2])):
            representations = "".join(self.representation(folder, index) for index in rows)
            sets.append(f'<AdaptationSet contentType="{kind}" segmentAlignment="true">{protection}{representations}</AdaptationSet>')
        return ('<?xml version="1.0"?>\n<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" xmlns:cenc="urn:mpeg:cenc:2013" '
                'profiles="urn:mpeg:dash:profile:isoff-on-demand:2011" type="static" minBufferTime="PT1S" '
                f'mediaPresentationDuration="PT{self.seconds}S"><Period>{"".join(sets)}</Period></MPD>\n')

    def representation(self, folder, index):
        data = (folder / f"s{index}.mp4").read_bytes()
        at, size = next((at, size) for kind, at, size in boxes(data) if kind == b"sidx")
        if index < len(RENDITIONS):
            _, width, height, rate = RENDITIONS[index]
            what = f'mimeType="video/mp4" codecs="avc1.4d401e" width="{width}" height="{height}" bandwidth="{rate[:-1]}000"'
        else:
            what = 'mimeType="audio/mp4" codecs="mp4a.40.2" audioSamplingRate="48000" bandwidth="96000"'
        return (f'<Representation id="{index}" {what}><BaseURL>s{index}.mp4</BaseURL>'
                f'<SegmentBase indexRange="{at}-{at + size - 1}"><Initialization range="0-{at - 1}"/></SegmentBase></Representation>')

    def write_playlists(self, folder):
        key_id = base64.b64encode(bytes.fromhex(KEY_ID)).decode()
        key = (f'#EXT-X-KEY:METHOD=SAMPLE-AES-CTR,URI="data:text/plain;base64,{key_id}",KEYID=0x{KEY_ID},'
               'KEYFORMAT="org.w3.clearkey",KEYFORMATVERSIONS="1"')
        for index in range(len(RENDITIONS) + 1):
            data = (folder / f"s{index}.mp4").read_bytes()
            rows = list(boxes(data))
            first = next(at for kind, at, _ in rows if kind == b"moof")
            starts = [at for kind, at, _ in rows if kind == b"moof"]
            ends = starts[1:] + [max(at + size for kind, at, size in rows if kind == b"mdat")]
            head = next(at for kind, at, _ in rows if kind == b"sidx")
            lines = ["#EXTM3U", "#EXT-X-VERSION:7", "#EXT-X-TARGETDURATION:2", "#EXT-X-PLAYLIST-TYPE:VOD", key,
                     f'#EXT-X-MAP:URI="s{index}.mp4",BYTERANGE="{min(head, first)}@0"']
            for start, end in zip(starts, ends):
                lines += [f"#EXTINF:{self.seconds / len(starts):.6f},", f"#EXT-X-BYTERANGE:{end - start}@{start}", f"s{index}.mp4"]
            (folder / f"{index}.m3u8").write_text("\n".join([*lines, "#EXT-X-ENDLIST", ""]))
        lines = ["#EXTM3U", "#EXT-X-VERSION:7",
                 f'#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="a",NAME="sound",DEFAULT=YES,URI="{len(RENDITIONS)}.m3u8"']
        for index, (size, _, _, rate) in enumerate(RENDITIONS):
            lines += [f'#EXT-X-STREAM-INF:BANDWIDTH={rate[:-1]}000,RESOLUTION={size},CODECS="avc1.4d401e,mp4a.40.2",AUDIO="a"',
                      f"{index}.m3u8"]
        (folder / "master.m3u8").write_text("\n".join([*lines, ""]))


def main():
    ffmpeg, protect_fragments, seconds, folder = sys.argv[1:]
    folder = pathlib.Path(folder).resolve()
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    streams = Streams(ffmpeg, pathlib.Path(protect_fragments).resolve(), int(seconds), folder)
    streams.make_source()
    streams.make_dash()
    streams.make_hls()
    streams.make_protected()
    (folder / "broken.m3u8").write_text("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nnone.ts\n#EXT-X-ENDLIST\n")


main()
