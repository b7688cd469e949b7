#!/usr/bin/env python3
"""Makes the test clips of uva-qualify and their list, clips.json.

Usage: make_clips.py FFMPEG MAKE_MARKS OUT_FOLDER

Every picture carries its number and time as a QR code. Every second of sound has a pulse of 40 ms, 0.4 s
behind its beginning, whose pitch tells the second: 500 Hz at 0, 200 Hz more each second; the rest is
silence.
"""

import json
import pathlib
import shutil
import subprocess
import sys

RATE = 25
PULSE_AT = 0.4
PULSE = f"aevalsrc='if(between(mod(t,1),{PULSE_AT},{PULSE_AT}+0.04),0.5*sin(2*PI*(500+200*floor(t))*mod(t,1)),0)':s=48000:d={{seconds}}"

H264 = ["-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", "-g", RATE, "-keyint_min", RATE,
        "-sc_threshold", 0, "-bf", 2]
H265 = ["-c:v", "libx265", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-x265-params", "log-level=error:keyint=25"]
VP8 = ["-c:v", "libvpx", "-b:v", "600k", "-deadline", "realtime", "-cpu-used", 8, "-g", RATE, "-pix_fmt", "yuv420p"]
VP9 = ["-c:v", "libvpx-vp9", "-b:v", "600k", "-deadline", "realtime", "-cpu-used", 8, "-g", RATE, "-pix_fmt", "yuv420p"]
AV1 = ["-c:v", "libaom-av1", "-cpu-used", 8, "-usage", "realtime", "-b:v", "600k", "-pix_fmt", "yuv420p"]
MPEG2 = ["-c:v", "mpeg2video", "-q:v", 4, "-pix_fmt", "yuv420p"]
MPEG4 = ["-c:v", "mpeg4", "-q:v", 4, "-pix_fmt", "yuv420p"]
AAC = ["-c:a", "aac", "-b:a", "96k"]

# name: mark, size, seconds, video, audio (None: none of it), what a page would ask for it.
CLIPS = {
    "main.mp4": ("A", "320x180", 6, H264, AAC, 'video/mp4; codecs="avc1.64000d,mp4a.40.2"'),
    "short.mp4": ("A", "320x180", 2, H264, AAC, 'video/mp4; codecs="avc1.64000d,mp4a.40.2"'),
    "long.mp4": ("A", "320x180", 60, H264, AAC, 'video/mp4; codecs="avc1.64000d,mp4a.40.2"'),
    "low.mp4": ("L", "320x180", 6, H264 + ["-b:v", "150k"], None, 'video/mp4; codecs="avc1.64000d"'),
    "high.mp4": ("H", "640x360", 6, H264, None, 'video/mp4; codecs="avc1.64001e"'),
    "vp9.webm": ("V", "320x180", 6, VP9, ["-c:a", "libopus"], 'video/webm; codecs="vp09.00.10.08,opus"'),
    "vp8.webm": ("W", "320x180", 2, VP8, ["-c:a", "libvorbis"], 'video/webm; codecs="vp8,vorbis"'),
    "hevc.mp4": ("E", "320x180", 2, H265 + ["-tag:v", "hvc1"], ["-c:a", "eac3"], 'video/mp4; codecs="hvc1.1.6.L60.90,ec-3"'),
    "av1.mp4": ("O", "320x180", 2, AV1, AAC, 'video/mp4; codecs="av01.0.00M.08,mp4a.40.2"'),
    "mpeg2.ts": ("T", "320x180", 2, MPEG2, ["-c:a", "mp2"], "video/mp2t"),
    "mpeg4.mp4": ("M", "320x180", 2, MPEG4, ["-c:a", "libmp3lame"], 'video/mp4; codecs="mp4v.20.3,mp3"'),
    "tone.mp3": ("A", "", 2, None, ["-c:a", "libmp3lame"], "audio/mpeg"),
    "tone.aac": ("A", "", 2, None, AAC, "audio/aac"),
    "tone.m4a": ("A", "", 2, None, AAC + ["-f", "mp4"], 'audio/mp4; codecs="mp4a.40.2"'),
    "tone.ogg": ("A", "", 2, None, ["-c:a", "libopus"], 'audio/ogg; codecs="opus"'),
    "tone.webm": ("A", "", 2, None, ["-c:a", "libopus"], 'audio/webm; codecs="opus"'),
}
# What sets may play though they do not promise it.
OPTIONAL = {"vp8.webm", "mpeg4.mp4"}


def run(command, **options):
    subprocess.run([str(word) for word in command], check=True, **options)


def make(ffmpeg, marks, folder, name):
    mark, size, seconds, video, audio, _ = CLIPS[name]
    inputs, codecs, source = [], [], None
    if video:
        width, height = size.split("x")
        source = subprocess.Popen([marks, mark, width, height, str(RATE), str(RATE * seconds)], stdout=subprocess.PIPE)
        inputs += ["-f", "rawvideo", "-pix_fmt", "gray", "-s", size, "-r", RATE, "-i", "-"]
        codecs += video
    if audio:
        inputs += ["-f", "lavfi", "-i", PULSE.format(seconds=seconds)]
        codecs += audio + ["-ac", 2]
    run([ffmpeg, "-nostdin", "-loglevel", "error", "-y", *inputs, *codecs, "-map_metadata", -1, "-fflags", "+bitexact",
         "-flags", "+bitexact", "-threads", 1, folder / name], stdin=source.stdout if source else None)
    if source and source.wait():
        sys.exit(f"{marks} failed")


def entry(name):
    mark, size, seconds, video, audio, kind = CLIPS[name]
    width, height = map(int, size.split("x")) if video else (0, 0)
    return {"name": name, "mark": mark, "width": width, "height": height, "rate": RATE, "pictures": RATE * seconds if video else 0,
            "seconds": seconds, "sound": bool(audio), "type": kind,
            "optional": name in OPTIONAL}


def main():
    ffmpeg, marks, folder = sys.argv[1:]
    folder = pathlib.Path(folder).resolve()
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for name in CLIPS:
        make(ffmpeg, marks, folder, name)
    (folder / "clips.json").write_text(json.dumps([entry(name) for name in CLIPS], indent=1))


main()
