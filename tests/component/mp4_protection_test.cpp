#include "mp4_boxes.h"
#include "mp4_protection.h"

namespace {

/// What 'tenc' and 'seig' say: a key id of one repeated byte; a constant vector when `ivSize` is 0.
Bytes described(bool encrypted, std::uint8_t ivSize, std::uint8_t key) {
    const Bytes constant = encrypted && ivSize == 0 ? Bytes(1, 16) + Bytes(16, 7) : Bytes();
    return Bytes{0, 0x19, encrypted, ivSize} + Bytes(16, key) + constant;
}

/// The body of a 'moov' with three samples of track 9.
struct Movie {
    Bytes tables; ///< in the 'stbl'
    const char* scheme = "cenc";
    std::uint8_t ivSize = 8; ///< by 'tenc'
    const char* entry = "encv";
    Bytes entryHead = Bytes(78);
    std::uint8_t version = 0;
    Bytes more = {}; ///< in the 'stsd'
};

Bytes bytesOf(const Movie& movie) {
    const auto times = word(movie.version << 24U) + Bytes(movie.version == 1 ? 16 : 8);
    const auto tenc = word(0x1000000) + described(true, movie.ivSize, 1);
    const auto sinf = box("sinf", box("schm", word(0) + letters(movie.scheme) + word(0x10000)) +
                                      box("schi", box("tenc", tenc)));
    const auto stsd =
        box("stsd", word(0) + word(1) + box(movie.entry, movie.entryHead + sinf) + movie.more);
    const auto stbl = box("stbl", stsd + box("stsz", word(0) + word(1) + word(3)) + movie.tables);
    return box("trak", box("tkhd", times + word(9)) + box("mdia", box("minf", stbl)));
}

Bytes descriptions(std::uint8_t version, const Bytes& head, const Bytes& body) {
    return box("sgpd", word(version << 24U) + letters("seig") + head + body);
}

Bytes runsOf(const Bytes& runs) {
    return box("sbgp", word(0) + letters("seig") + word(runs.size() / 8) + runs);
}

Bytes group(const Bytes& description, const Bytes& runs) {
    return box("sgpd", word(0) + letters("roll") + word(1)) +
           descriptions(1, word(description.size()) + word(1), description) + runsOf(runs);
}

/// "": as libavformat does; "clear"; a fault; or key, scheme, pattern, sizes of the vectors.
std::string toldOf(const Bytes& moov) {
    const auto tracks = host::readMp4Protection(
        host::BoxReader(moov.data(), moov.size(), host::fourLetters("moov"), 0, 0));
    const auto found = tracks.find(9);
    if (found == tracks.end() || !found->second.fault.empty())
        return found == tracks.end() ? "" : found->second.fault;
    const auto& told = found->second.encryption;
    if (!told.encrypted)
        return "clear";
    EXPECT_EQ(std::count(told.keyId.begin(), told.keyId.end(), told.keyId[0]), 16);
    std::ostringstream text;
    text << (told.scheme == host::Protection::Scheme::Cenc ? "cenc" : "cbcs") << " key "
         << int{told.keyId[0]} << " " << told.cryptByteBlock << ":" << told.skipByteBlock << " iv "
         << told.ivSize << "+" << (told.constantIv ? told.constantIv->size() : 0);
    return text.str();
}

TEST(Mp4Protection, IsWhatLibavformatPassesOver) {
    const auto all = word(3) + word(1);
    const auto part = word(2) + word(1);
    const auto senc = box("senc", {});
    const auto key1 = described(true, 8, 1), key5 = described(true, 8, 5),
               key6 = described(true, 8, 6), clear = described(false, 0, 0);
    const auto two = word(key5.size()) + word(2);
    const auto told5 = "cenc key 5 1:9 iv 8+0", told6 = "cenc key 6 1:9 iv 8+0";
    const std::string noVectors = "encrypted samples have no initialization vectors",
                      several = "samples are in several sample groups 'seig', with different keys "
                                "or partly clear; package the file anew in fragments",
                      undescribed = "the sample group 'seig' of encrypted samples is not "
                                    "described ('sgpd')";
    const auto sound = [&](std::uint8_t version, std::size_t head) {
        return Movie{senc + group(key5, all), "cenc", 8, "enca",
                     Bytes(8) + Bytes{0, version} + Bytes(head - 10)};
    };
    const struct {
        const char* what;
        Movie movie;
        std::string told;
    } rows[] = {
        {"the track's key", {senc}, ""},
        {"... by other boxes", {box("saiz", {})}, ""},
        {"... said again", {senc + group(key1, all)}, ""},
        {"another key", {senc + group(key5, all)}, told5},
        {"... in a later version",
         {senc + group(key5, all), "cenc", 8, "encv", Bytes(78), 1},
         told5},
        {"... and another pattern",
         {senc + group(described(true, 0, 3), all), "cbcs", 0},
         "cbcs key 3 1:9 iv 0+16"},
        {"a clear group", {group(clear, all)}, "clear"},
        {"... though there are vectors", {senc + group(clear, all)}, "clear"},
        {"whole samples, constant vector", {{}, "cbcs", 0}, "cbcs key 1 1:9 iv 0+16"},
        {"... of the other scheme", {{}, "cenc", 0}, noVectors},
        {"no vectors", {}, noVectors},
        {"a part", {senc + group(key5, part)}, several},
        {"a part of the same", {senc + group(key1, part)}, ""},
        {"runs of one group", {senc + group(key5, part + word(1) + word(1))}, told5},
        {"more than there are", {senc + group(key5, word(9) + word(1))}, told5},
        {"none, then all", {senc + group(key5, word(0) + word(0) + all)}, told5},
        {"other vectors",
         {senc + group(described(true, 16, 1), all)},
         "the sample group 'seig' has vectors of another size than 'tenc'"},
        {"no such group", {senc + group(key5, word(3) + word(7))}, undescribed},
        {"the second",
         {senc + descriptions(1, two, key5 + key6) + runsOf(word(3) + word(2))},
         told6},
        {"each has its own length",
         {senc + descriptions(1, word(0) + word(2), word(24) + key5 + Bytes(4) + word(20) + key6) +
          runsOf(word(3) + word(2))},
         told6},
        {"an old description", {senc + descriptions(0, word(1), key5) + runsOf(all)}, told5},
        {"of all that no run names",
         {senc + descriptions(2, word(20) + word(2) + word(2), key5 + key6)},
         told6},
        {"runs with a parameter",
         {senc + descriptions(1, two, key5 + key6) +
          box("sbgp", word(0x1000000) + letters("seig") + word(0) + word(1) + all)},
         told5},
        {"sound", sound(0, 28), told5},
        {"... of QuickTime", sound(1, 44), told5},
        {"... the later", sound(2, 64), told5},
        {"a clear track", {senc + group(key5, all), "cenc", 8, "avc1"}, ""},
        {"two descriptions",
         {senc + group(key5, all), "cenc", 8, "encv", Bytes(78), 0, box("avc1", Bytes(78))},
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(toldOf(bytesOf(row.movie)), row.told);
    }
    auto damaged = bytesOf({senc + group(key5, all)});
    damaged.resize(damaged.size() - 1);
    EXPECT_EQ(toldOf(damaged), "");
    EXPECT_NE(toldOf(bytesOf({senc, "cens"})).find("names the protection scheme 'cens'"),
              std::string::npos);
}

} // namespace
