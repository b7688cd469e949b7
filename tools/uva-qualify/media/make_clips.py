#!/usr/bin/env python3
"""Makes the test clips of uva-qualify and their list, clips.json.

Usage: make_clips.py FFMPEG MAKE_MARKS OUT_FOLDER

Every picture carries its number and time as a QR code, amid a test card. Every second of sound has a pulse of 40 ms, 0.4 s
behind its beginning, whose pitch tells the second: 500 Hz at 0, 200 Hz more each second; the rest is a
quiet tone of 300 Hz, in which holes can be heard.
"""

import itertools
import json
import pathlib
import shutil
import subprocess
import sys

RATE = 25
PULSE_AT = 0.4
TONE = "0.1*sin(2*PI*300*t)"
PULSE = f"aevalsrc='if(between(mod(t,1),{PULSE_AT},{PULSE_AT}+0.04),0.5*sin(2*PI*(500+200*floor(t))*mod(t,1)),{TONE})':s=48000:d={{seconds}}"

H264 = ["-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", "-g", RATE, "-keyint_min", RATE,
        "-sc_threshold", 0, "-bf", 2]
BASELINE = ["-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", "-profile:v", "baseline"]
H265 = ["-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "log-level=error:keyint=25"]
VP8 = ["-c:v", "libvpx", "-b:v", "600k", "-deadline", "realtime", "-cpu-used", 8, "-g", RATE, "-pix_fmt", "yuv420p"]
VP9 = ["-c:v", "libvpx-vp9", "-b:v", "600k", "-deadline", "realtime", "-cpu-used", 8, "-g", RATE]
# Its encoder for real time drops chroma.
AV1 = ["-c:v", "libaom-av1", "-cpu-used", 8, "-usage", "good", "-crf", 12, "-b:v", 0, "-pix_fmt", "yuv420p"]
MPEG2 = ["-c:v", "mpeg2video", "-b:v", "600k", "-maxrate", "600k", "-bufsize", "200k", "-pix_fmt", "yuv420p"]
MPEG4 = ["-c:v", "mpeg4", "-q:v", 4, "-pix_fmt", "yuv420p"]
THEORA = ["-c:v", "libtheora", "-q:v", 8, "-pix_fmt", "yuv420p"]
BITS8, BITS10 = ["-pix_fmt", "yuv420p"], ["-pix_fmt", "yuv420p10le"]
BT601 = ["-colorspace", "smpte170m", "-color_primaries", "smpte170m", "-color_trc", "smpte170m", "-color_range", "tv"]
AAC = ["-c:a", "aac", "-b:a", "96k"]
AC3, EAC3, FLAC, MP2, MP3, OPUS, PCM, VORBIS = (["-c:a", encoder] for encoder in (
    "ac3", "eac3", "flac", "mp2", "libmp3lame", "libopus", "pcm_s16le", "libvorbis"))

# name: mark, size, seconds, video, audio (None: none of it); or the clip that is packed otherwise.
CLIPS = {
    "main.mp4": ("A", "320x180", 6, H264, AAC),
    "short.mp4": ("A", "320x180", 2, H264, AAC),
    "long.mp4": ("A", "320x180", 60, H264, AAC),
    "wide.mp4": ("X", "320x180", 2, H264 + ["-aspect", "64:27"], AAC),
    "low.mp4": ("L", "320x180", 6, H264 + ["-b:v", "150k"], None),
    "high.mp4": ("H", "640x360", 6, H264, None),
    "vp9.webm": ("V", "320x180", 6, VP9 + BITS8, OPUS),
    "baseline.mp4": ("B", "320x180", 1, BASELINE, AAC),
    "h264.mkv": "short.mp4", "h264.ts": "short.mp4", "h264.mov": "short.mp4", "h264.flv": "short.mp4",
    "h264.3gp": "short.mp4",
    "h264-ac3.mp4": ("C", "320x180", 1, BASELINE, AC3),
    "h264-mp3.mp4": ("D", "320x180", 1, BASELINE, MP3),
    "hevc.mp4": ("E", "320x180", 1, H265 + BITS8 + ["-tag:v", "hvc1"], EAC3),
    "hevc.mkv": "hevc.mp4", "hevc.ts": "hevc.mp4",
    "hevc10.mp4": ("F", "320x180", 1, H265 + BITS10 + ["-tag:v", "hev1"], None),
    "vp9.mp4": ("G", "320x180", 1, VP9 + BITS8, None),
    "vp9.mkv": "vp9.mp4",
    "vp9-10.webm": ("I", "320x180", 1, VP9 + BITS10, VORBIS),
    "av1.mp4": ("O", "320x180", 1, AV1, AAC),
    "av1.mkv": "av1.mp4",
    "av1.webm": ("P", "320x180", 1, AV1, OPUS),
    "theora.ogv": ("Q", "320x180", 1, THEORA, VORBIS),
    "mpeg2.ts": ("T", "320x180", 1, MPEG2, MP2),
    "mpeg2.mpg": "mpeg2.ts",
    "vp8.webm": ("W", "320x180", 1, VP8, VORBIS),
    "mpeg4.mp4": ("M", "320x180", 1, MPEG4, MP3),
    "mpeg4.avi": "mpeg4.mp4",
    "tone.mp3": ("A", "", 1, None, MP3),
    "tone.mp2": ("A", "", 1, None, MP2),
    "tone.aac": ("A", "", 1, None, AAC),
    "tone.m4a": ("A", "", 1, None, AAC + ["-f", "mp4"]),
    "tone.ogg": ("A", "", 1, None, OPUS),
    "vorbis.ogg": ("A", "", 1, None, VORBIS),
    "tone.webm": ("A", "", 1, None, OPUS),
    "vorbis.webm": ("A", "", 1, None, VORBIS),
    "tone.flac": ("A", "", 1, None, FLAC),
    "tone.wav": ("A", "", 1, None, PCM),
    "tone.aiff": ("A", "", 1, None, ["-c:a", "pcm_s16be"]),
    "tone.ac3": ("A", "", 1, None, AC3),
    "tone.eac3": ("A", "", 1, None, EAC3),
    "tone.mka": ("A", "", 1, None, AAC),
}

# What pages call a stream: as it is, and when it might be one that asks more of the same decoder.
AS_H264 = ["avc1.64000d", "avc3.64000d"], ["avc1.640028", "avc1.640033", "avc3.640033"]
AS_BASELINE = ["avc1.42c00d", "avc1.42e00d", "avc1.4d400d", "avc3.42c00d"], ["avc1.42e01e", "avc1.4d401f"]
AS_HEVC = ["hvc1.1.6.L60.90", "hev1.1.6.L60.90"], ["hvc1.1.6.L93.B0", "hev1.1.6.L120.B0", "hvc1.1.6.L153.B0"]
AS_HEVC10 = ["hev1.2.4.L60.90", "hvc1.2.4.L60.90"], ["hvc1.2.4.L153.B0"]
AS_VP9 = ["vp09.00.10.08", "vp9", "vp09.00.10.08.01.01.01.01.00"], ["vp09.00.41.08", "vp09.00.51.08"]
AS_VP9_10 = ["vp09.02.10.10", "vp09.02.10.10.01.09.16.09.00"], ["vp09.02.51.10"]
AS_AV1 = ["av01.0.00M.08", "av01.0.00M.08.0.110"], ["av01.0.04M.08", "av01.0.13M.08"]
AS_AAC = ["mp4a.40.2"], ["mp4a.40.5"]
AS_AC3, AS_EAC3, AS_MP3 = (["ac-3"], []), (["ec-3"], []), (["mp3", "mp4a.6b"], [])
AS_OPUS, AS_VORBIS, AS_THEORA = (["opus"], []), (["vorbis"], []), (["theora"], [])
AS_VP8, AS_MPEG4 = (["vp8"], []), (["mp4v.20.3"], ["mp4v.20.8"])
UNNAMED = ()
# name: the MIME types under which a page asks for it, and its streams' names.
ASKED = {
    "main.mp4": (["video/mp4"], [AS_H264, AS_AAC]),
    "low.mp4": (["video/mp4"], [AS_H264]),
    "vp9.webm": (["video/webm"], [AS_VP9, AS_OPUS]),
    "baseline.mp4": (["video/mp4"], [AS_BASELINE, AS_AAC]),
    "h264.mkv": (["video/x-matroska"], [AS_H264, AS_AAC]),
    "h264.ts": (["video/mp2t"], [AS_H264, AS_AAC]),
    "h264.mov": (["video/quicktime"], [AS_H264, AS_AAC]),
    "h264.flv": (["video/x-flv"], [AS_H264, AS_AAC]),
    "h264.3gp": (["video/3gpp", "video/3gpp2"], [AS_H264, AS_AAC]),
    "h264-ac3.mp4": (["video/mp4"], [AS_BASELINE, AS_AC3]),
    "h264-mp3.mp4": (["video/mp4"], [AS_BASELINE, AS_MP3]),
    "hevc.mp4": (["video/mp4"], [AS_HEVC, AS_EAC3]),
    "hevc.mkv": (["video/x-matroska"], [AS_HEVC, AS_EAC3]),
    "hevc.ts": (["video/mp2t"], [AS_HEVC, AS_EAC3]),
    "hevc10.mp4": (["video/mp4"], [AS_HEVC10]),
    "vp9.mp4": (["video/mp4"], [AS_VP9]),
    "vp9.mkv": (["video/x-matroska"], [AS_VP9]),
    "vp9-10.webm": (["video/webm"], [AS_VP9_10, AS_VORBIS]),
    "av1.mp4": (["video/mp4"], [AS_AV1, AS_AAC]),
    "av1.mkv": (["video/x-matroska"], [AS_AV1, AS_AAC]),
    "av1.webm": (["video/webm"], [AS_AV1, AS_OPUS]),
    "theora.ogv": (["video/ogg", "application/ogg"], [AS_THEORA, AS_VORBIS]),
    "mpeg2.ts": (["video/mp2t"], UNNAMED),
    "mpeg2.mpg": (["video/mpeg"], UNNAMED),
    "vp8.webm": (["video/webm"], [AS_VP8, AS_VORBIS]),
    "mpeg4.mp4": (["video/mp4"], [AS_MPEG4, AS_MP3]),
    "mpeg4.avi": (["video/avi", "video/msvideo", "video/x-msvideo"], [AS_MPEG4, AS_MP3]),
    "tone.mp3": (["audio/mpeg", "audio/mp3"], [AS_MP3]),
    "tone.mp2": (["audio/mp2"], UNNAMED),
    "tone.aac": (["audio/aac", "audio/aacp"], [AS_AAC]),
    "tone.m4a": (["audio/mp4"], [AS_AAC]),
    "tone.ogg": (["audio/ogg", "application/ogg"], [AS_OPUS]),
    "vorbis.ogg": (["audio/ogg", "audio/vorbis"], [AS_VORBIS]),
    "tone.webm": (["audio/webm"], [AS_OPUS]),
    "vorbis.webm": (["audio/webm"], [AS_VORBIS]),
    "tone.flac": (["audio/flac", "audio/x-flac"], UNNAMED),
    "tone.wav": (["audio/wav", "audio/wave", "audio/x-wav"], UNNAMED),
    "tone.aiff": (["audio/aiff", "audio/x-aiff"], UNNAMED),
    "tone.ac3": (["audio/ac3", "audio/x-ac3"], [AS_AC3]),
    "tone.eac3": (["audio/eac3", "audio/x-eac3"], [AS_EAC3]),
    "tone.mka": (["audio/x-matroska"], [AS_AAC]),
}
# What a set may refuse by its codec though these clips play: it promises what its decoders are made for, and a
# PC's play more.
UNPROMISED = {
    "vp8.webm": "no broadcast or streaming profile for sets asks for VP8; a set's decoder need not have it",
    "mpeg4.mp4": "no broadcast or streaming profile for sets asks for MPEG-4 part 2; a set's decoder need not have it",
    "mpeg4.avi": "no broadcast or streaming profile for sets asks for MPEG-4 part 2; a set's decoder need not have it",
}
PIXEL_ASPECT = {"wide.mp4": 4 / 3}
SIZES = [(160, 90), (320, 180), (1280, 720), (1920, 1080), (3840, 2160)]
RATES = [24, 25, 60]


def run(command, **options):
    subprocess.run([str(word) for word in command], check=True, **options)


def make(ffmpeg, marks, folder, name):
    plain = ["-map_metadata", -1, "-fflags", "+bitexact", "-flags", "+bitexact", "-threads", 1, folder / name]
    if isinstance(CLIPS[name], str):
        return run([ffmpeg, "-nostdin", "-loglevel", "error", "-y", "-i", folder / CLIPS[name], "-c", "copy", *plain])
    mark, size, seconds, video, audio = CLIPS[name]
    inputs, codecs, source = [], [], None
    if video:
        width, height = size.split("x")
        source = subprocess.Popen([marks, mark, width, height, str(RATE), str(RATE * seconds)], stdout=subprocess.PIPE)
        inputs += ["-f", "rawvideo", "-pix_fmt", "yuv420p", "-s", size, "-r", RATE, "-i", "-"]
        codecs += video + BT601
    if audio:
        inputs += ["-f", "lavfi", "-i", PULSE.format(seconds=seconds)]
        codecs += audio + ["-ac", 2]
    run([ffmpeg, "-nostdin", "-loglevel", "error", "-y", *inputs, *codecs, *plain], stdin=source.stdout if source else None)
    if source and source.wait():
        sys.exit(f"{marks} failed")


def types(name, width, height):
    """Each with whether it asks for more than the clip shows."""
    containers, streams = ASKED.get(name, ([], UNNAMED))
    for container in containers:
        yield container, False
        if not streams:
            continue
        named = [(names, False) for names in itertools.product(*(exact for exact, _ in streams))]
        named += [(names, True) for names in itertools.product(*(exact[:1] + more for exact, more in streams))][1:]
        for names, is_more in named:
            text = f'{container}; codecs="{",".join(names)}"'
            yield text, is_more
            if not width:
                yield text + "; channels=2", is_more
                yield text + "; channels=6", True
        for names, is_more in named[::3] if width else []:
            for (asked_width, asked_height), rate in itertools.product(SIZES, RATES):
                yield (f'{container}; codecs="{",".join(names)}"; width={asked_width}; height={asked_height}; framerate={rate}',
                       is_more or asked_width > width or asked_height > height or rate > RATE)


def entry(name):
    mark, size, seconds, video, audio = CLIPS[CLIPS[name]] if isinstance(CLIPS[name], str) else CLIPS[name]
    width, height = map(int, size.split("x")) if video else (0, 0)
    return {"name": name, "mark": mark, "width": width, "height": height, "pixelAspect": PIXEL_ASPECT.get(name, 1), "rate": RATE, "pictures": RATE * seconds if video else 0,
            "seconds": seconds, "sound": bool(audio), "unpromised": UNPROMISED.get(name, ""),
            "types": [{"type": text, "more": is_more} for text, is_more in types(name, width, height)]}


def main():
    ffmpeg, marks, folder = sys.argv[1:]
    folder = pathlib.Path(folder).resolve()
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for name in CLIPS:
        make(ffmpeg, marks, folder, name)
    (folder / "clips.json").write_text(json.dumps([entry(name) for name in CLIPS], indent=1))


main()
