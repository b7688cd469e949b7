#ifndef MOVIE_BOXES_H
#define MOVIE_BOXES_H

#include "mp4_boxes.h"

// The movie of a fragmented MP4: its tracks and what they are of.

constexpr std::uint32_t video = 1, audio = 2;

inline const Bytes avcC = box("avcC", {1, 0x64, 0, 0x1f, 0xff, 0xe0, 0});
/// AAC-LC, 48 kHz, stereo.
inline const Bytes esds =
    box("esds", word(0) + Bytes{3, 22, 0, 0, 0, 4, 17, 0x40} + Bytes(12) + Bytes{5, 2, 0x11, 0x90});

inline Bytes visualEntry(const std::string& type, const Bytes& boxes) {
    return box(type, Bytes(24) + half(320) + half(180) + Bytes(50) + boxes);
}

inline Bytes audioEntry(const std::string& type, const Bytes& boxes) {
    return box(type, Bytes(16) + half(2) + half(16) + Bytes(4) + half(48000) + half(0) + boxes);
}

struct Track {
    std::uint32_t id = video;
    Bytes entry = visualEntry("avc1", avcC);
    Bytes edits = {};  ///< of an 'elst'
    Bytes tables = {}; ///< more in the 'stbl'
    std::string handler = "vide";
    std::uint32_t timescale = 100;
};

inline Bytes bytesOf(const Track& track) {
    const auto stsd = box("stsd", word(0) + word(1) + track.entry);
    const auto mdia =
        box("mdhd", word(0) + Bytes(8) + word(track.timescale) + word(0) + half(0x15c7) + half(0)) +
        box("hdlr",
            word(0) + word(0) + letters(track.handler) + Bytes(12) + letters("name") + Bytes(1)) +
        box("minf", box("stbl", stsd + track.tables));
    return box("trak",
               box("tkhd", word(0) + Bytes(8) + word(track.id) + Bytes(64)) +
                   box("edts", box("elst", track.edits.empty() ? word(0) + word(0) : track.edits)) +
                   box("mdia", mdia));
}

/// Samples last 10 ticks, have 4 bytes and are key frames, unless they say otherwise.
inline Bytes movie(const std::vector<Track>& tracks = {{}}, const Bytes& more = {},
                   std::uint32_t milliseconds = 0, const Bytes& extends = {}) {
    Bytes traks, trexs;
    for (const auto& track : tracks) {
        traks = traks + bytesOf(track);
        trexs =
            trexs + box("trex", word(0) + word(track.id) + word(1) + word(10) + word(4) + word(0));
    }
    return box("ftyp", letters("isom") + word(0)) +
           box("moov", box("mvhd", word(0) + Bytes(8) + word(1000) + word(milliseconds)) + traks +
                           box("mvex", trexs + extends) + more);
}

#endif
