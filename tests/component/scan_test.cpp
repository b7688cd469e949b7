#include "mp4_boxes.h"
#include "mp4_scan.h"

namespace {

/// What 'tenc' and 'seig' say: a key id of one repeated byte; a constant vector when `ivSize` is 0.
Bytes described(bool encrypted, std::uint8_t ivSize, std::uint8_t key) {
    const Bytes constant = encrypted && ivSize == 0 ? Bytes(1, 16) + Bytes(16, 7) : Bytes();
    return Bytes{0, 0x19, encrypted, ivSize} + Bytes(16, key) + constant;
}

/// Of track 9, with what all samples have in common.
struct Movie {
    const char* scheme = "cenc";
    std::uint8_t ivSize = 8; ///< by 'tenc'
    std::uint8_t version = 0;
    std::uint32_t timescale = 100;
    Bytes edits = {};       ///< of an 'elst'
    bool fragmented = true; ///< ... with a second sample description, a clear one
    Bytes tables = {};      ///< more in the 'stbl'
    const char* entry = "encv";
    Bytes entryHead = Bytes(78);
};

Bytes bytesOf(const Movie& movie) {
    const auto times = word(movie.version << 24U) + Bytes(movie.version == 1 ? 16 : 8);
    const auto tenc = word(0x1000000) + described(true, movie.ivSize, 1);
    const auto sinf = box("sinf", box("schm", word(0) + letters(movie.scheme) + word(0x10000)) +
                                      box("schi", box("tenc", tenc)));
    const auto entry = box(movie.entry, movie.entryHead + sinf);
    const auto stsd =
        box("stsd",
            word(0) + word(2) + entry + (movie.fragmented ? box("avc1", Bytes(78)) : Bytes())) +
        box("stsz", word(0) + word(1) + word(movie.fragmented ? 0 : 3)) + movie.tables;
    const auto mdia = box("mdia", box("mdhd", times + word(movie.timescale) + Bytes(8)) +
                                      box("minf", box("stbl", stsd)));
    const auto trak = box("trak", box("tkhd", times + word(9) + Bytes(64)) +
                                      box("edts", box("elst", movie.edits)) + mdia);
    const auto trex = box("trex", word(0) + word(9) + word(1) + word(10) + Bytes(8));
    return box("moov", box("mvhd", times + word(1000)) + trak +
                           (movie.fragmented ? box("mvex", trex) : Bytes()));
}

Bytes run(std::uint32_t flags, std::uint32_t count, const Bytes& samples = {}) {
    return box("trun", word(flags) + word(count) + samples);
}

/// The place of its samples, its sample description, the length of its samples: as the flags say.
Bytes fragmentOf(std::uint32_t flags, const Bytes& values, const Bytes& more) {
    return box("moof", box("traf", box("tfhd", word(flags) + word(9) + values) + more)) +
           box("mdat", Bytes(30));
}

/// Three samples of this sample description.
Bytes fragment(std::uint32_t entry, const Bytes& more) {
    return fragmentOf(0x20002, word(entry), run(0, 3) + more);
}

/// Of so many fragments.
Bytes index(std::uint8_t count, std::uint8_t version = 0, std::size_t references = 99) {
    return box("sidx", word(version << 24U) + Bytes(version == 0 ? 18 : 26) + Bytes{0, count} +
                           Bytes(12 * std::min<std::size_t>(references, count)));
}

/// `head` stands between the group's name and the descriptions.
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

host::Mp4Scan scanOf(const Bytes& file) {
    return host::Mp4Scan([&file](std::uint64_t at, std::uint8_t* bytes, std::size_t size) {
        const auto count = at < file.size() ? std::min<std::size_t>(size, file.size() - at) : 0;
        std::copy_n(file.begin() + static_cast<std::ptrdiff_t>(count == 0 ? 0 : at), count, bytes);
        return count;
    });
}

/// "": as libavformat does; "clear"; a fault; or key, scheme, pattern, size of the vectors, and the
/// constant one.
std::string toldAt(const host::Mp4Scan& scan, std::uint64_t position) {
    const auto told = scan.protectionAt(position, 9);
    if (told == nullptr || !told->fault.empty())
        return told == nullptr ? "" : told->fault;
    if (!told->encrypted)
        return "clear";
    EXPECT_EQ(told->keyId, Bytes(16, told->keyId.at(0)));
    std::ostringstream text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text << static_cast<char>(told->scheme >> shift);
    text << " key " << int{told->keyId[0]} << " " << told->cryptByteBlock << ":"
         << told->skipByteBlock << " iv " << told->ivSize << "+" << told->constantIv.size();
    return text.str();
}

TEST(Scan, TellsWhatLibavformatPassesOver) {
    const auto all = word(3) + word(0x10001);
    const auto part = word(2) + word(0x10001);
    const auto named = word(3) + word(1); // by the track's own groups
    const auto senc = box("senc", {});
    const auto key5 = described(true, 8, 5), key6 = described(true, 8, 6);
    const auto two = word(key5.size()) + word(2);
    const auto told5 = "cenc key 5 1:9 iv 8+0", told6 = "cenc key 6 1:9 iv 8+0";
    const auto senc2 = senc + group(described(true, 8, 2), all);
    const auto both = descriptions(1, two, key5 + key6);
    const auto bothForAll = descriptions(2, word(20) + word(2) + word(2), key5 + key6);
    const std::string noVectors = "encrypted samples have no initialization vectors",
                      undescribed = "the sample group 'seig' of encrypted samples is not "
                                    "described ('sgpd')";
    const Movie cenc, cbcs{"cbcs", 0}, cencWithout{"cenc", 0};
    const auto with = [](const Bytes& tables) {
        return Movie{"cenc", 8, 0, 100, {}, true, tables};
    };
    const auto oneTable = [](const Bytes& tables) {
        return Movie{"cenc", 8, 0, 100, {}, false, tables};
    };
    const auto audio = [](std::uint8_t version, std::size_t head) {
        const auto entry = Bytes(8) + Bytes{0, version} + Bytes(head - 10);
        return Movie{"cenc", 8, 0, 100, {}, true, {}, "enca", entry};
    };
    const struct {
        const char* what;
        Movie movie;
        std::uint32_t entry; ///< of the fragment; 0: all samples stand in the movie
        Bytes more;          ///< in the 'traf'
        std::string told;
    } rows[] = {
        {"the track's key", cenc, 1, senc, ""},
        {"... by other boxes", cenc, 1, box("saiz", {}), ""},
        {"... said again", cenc, 1, senc + group(described(true, 8, 1), all), ""},
        {"another key", cenc, 1, senc2, "cenc key 2 1:9 iv 8+0"},
        {"... and another pattern", cbcs, 1, senc + group(described(true, 0, 3), all),
         "cbcs key 3 1:9 iv 0+16"},
        {"the clear entry", cenc, 2, {}, "clear"},
        {"an entry that is not there", cenc, 3, {}, "clear"},
        {"a clear group", cenc, 1, group(described(false, 0, 0), all), "clear"},
        {"... though there are vectors", cenc, 1, senc + group(described(false, 0, 0), all),
         "clear"},
        {"whole samples, constant vector", cbcs, 1, {}, "cbcs key 1 1:9 iv 0+16"},
        {"... of the other scheme", cencWithout, 1, {}, noVectors},
        {"no vectors", cenc, 1, {}, noVectors},
        {"a part", cenc, 1, senc + group(described(true, 8, 2), part),
         "samples of one fragment are in several sample groups 'seig', with different keys or "
         "partly clear"},
        {"a part of the same", cenc, 1, senc + group(described(true, 8, 1), part), ""},
        {"runs of one group", cenc, 1, senc + group(key5, part + word(1) + word(0x10001)), told5},
        {"more than there are", cenc, 1, senc + group(key5, word(9) + word(0x10001)), told5},
        {"none, then all", cenc, 1, senc + group(key5, word(0) + word(0) + all), told5},
        {"other vectors", cenc, 1, senc + group(described(true, 16, 1), all),
         "the sample group 'seig' has vectors of another size than 'tenc'"},
        {"the second entry", cenc, 2, senc2,
         "encrypted samples have not the first sample description"},
        {"no such group", cenc, 1, senc + group(key5, word(3) + word(7)), undescribed},
        {"the second of its own", cenc, 1, senc + both + runsOf(word(3) + word(0x10002)), told6},
        {"a third of its own", cenc, 1, senc + both + runsOf(word(3) + word(0x10003)), undescribed},
        {"the track's group", with(both), 1, senc + runsOf(named), told5},
        {"... and the fragment has others", with(descriptions(1, two, key6 + key5)), 1,
         senc + group(key5, named), told6},
        {"each has its own length",
         with(descriptions(1, word(0) + word(2), word(24) + key5 + Bytes(4) + word(20) + key6)), 1,
         senc + runsOf(word(3) + word(2)), told6},
        {"an old description", with(descriptions(0, word(1), key5)), 1, senc + runsOf(named),
         told5},
        {"of all that no run names", with(bothForAll), 1, senc, told6},
        {"... of a fragment", cenc, 1, senc + bothForAll, told6},
        {"runs with a parameter", cenc, 1,
         senc + both + box("sbgp", word(0x1000000) + letters("seig") + word(0) + word(1) + all),
         told5},
        {"sound", audio(0, 28), 1, senc + group(key5, all), told5},
        {"... of QuickTime", audio(1, 44), 1, senc + group(key5, all), told5},
        {"... the later", audio(2, 64), 1, senc + group(key5, all), told5},
        {"sound that tells of no key", audio(2, 28), 1, senc, "not encrypted"},
        {"one table", oneTable(box("saiz", {})), 0, {}, ""},
        {"... with the vectors there", oneTable(senc), 0, {}, ""},
        {"... without", oneTable({}), 0, {}, noVectors},
        {"... a constant one", {"cbcs", 0, 0, 100, {}, false}, 0, {}, "cbcs key 1 1:9 iv 0+16"},
        {"... another key", oneTable(senc + group(key5, named)), 0, {}, told5},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto plain = fragmentOf(0, {}, run(0, 3) + (row.movie.ivSize > 0 ? senc : Bytes()));
        auto start = bytesOf(row.movie) + index(3);
        auto place = std::size_t{0};
        auto file = box("mdat", Bytes(30)) + start; // samples in front
        if (row.entry > 0) {
            place = (start + plain).size();
            file = start + plain + fragment(row.entry, row.more) + plain;
        }
        auto scan = scanOf(file);
        scan.coverTo(file.size());
        EXPECT_EQ(scan.isEncrypted(9), row.told != "not encrypted");
        EXPECT_EQ(scan.isFragmented(), row.entry > 0);
        EXPECT_EQ(toldAt(scan, place), scan.isEncrypted(9) ? row.told : "");
        EXPECT_EQ(scan.protectionAt(place, 8), nullptr) << "another track";
        if (row.entry > 0 && row.movie.ivSize > 0 && row.movie.tables.empty()) {
            EXPECT_EQ(toldAt(scan, place - 1) + toldAt(scan, file.size() - 1), "");
        }
    }
    const auto start = bytesOf(cenc) + index(1);
    const auto file =
        start + fragmentOf(0, {}, run(0, 1) + senc + group(key5, word(1) + word(0x10001)));
    auto scan = scanOf(file);
    scan.coverTo(file.size());
    EXPECT_EQ(toldAt(scan, start.size()), told5) << "a fragment of one sample";
}

TEST(Scan, TellsWhenATrackEnds) {
    const auto plain = fragmentOf(0, {}, run(0, 3));
    const auto started = [](const Bytes& tfdt) {
        return fragmentOf(0, {}, box("tfdt", tfdt) + run(0, 3));
    };
    const auto all = [](std::uint32_t duration, std::uint64_t offset) {
        return word(duration) + word(99) + word(98) + word(offset);
    };
    const auto minus = [](std::uint64_t value) { return 0x100000000 - value; };
    const auto edited = [](const Bytes& edits) { return Movie{"cenc", 8, 0, 100, edits}; };
    const Movie usual;
    const auto rate = word(0x10000), empty = word(0xffffffff);
    const auto edits = word(300) + empty + rate + word(200) + empty + rate + word(9) + word(20) +
                       rate + word(700) + empty + rate;
    const auto longEdits =
        word(0) + word(500) + empty + empty + rate + word(0) + word(9) + word(0) + word(20) + rate;
    const struct {
        const char* what;
        Movie movie;
        Bytes fragments;
        double end; ///< 0: unknown
    } rows[] = {
        {"lengths of the movie", {}, plain + plain + plain, 0.9},
        {"of the fragment", {}, plain + fragmentOf(0x20008, word(7), run(0, 3)), 0.51},
        {"... behind all else", usual,
         fragmentOf(0xb, word(0) + word(5000) + word(2) + word(7), run(0, 3)), 0.21},
        {"of the samples", {}, fragmentOf(0, {}, run(0x100, 2, word(4) + word(5))), 0.09},
        {"with offsets", {}, fragmentOf(0, {}, run(0x800, 2, word(3) + word(1))), 0.21},
        {"with all there can be", usual,
         fragmentOf(0, {}, run(0xf05, 3, word(1) + word(2) + all(4, 20) + all(5, 0) + all(6, 2))),
         0.24},
        {"offsets below 0", usual,
         fragmentOf(0, {}, run(0xf01, 2, word(1) + all(4, minus(1)) + all(5, minus(2)))), 0.07},
        {"fewer than it says", {}, fragmentOf(0, {}, run(0x100, 5, word(4) + word(5))), 0.09},
        {"two runs", {}, fragmentOf(0, {}, run(0, 3) + run(0x100, 1, word(8))), 0.38},
        {"a start", {}, started(word(0) + word(500)) + plain, 5.6},
        {"... a late one", usual, started(word(0x1000000) + word(2) + word(500)) + plain,
         2 * 42949672.96 + 5.6},
        {"... an earlier one", {}, started(word(0) + word(500)) + started(word(0) + word(50)), 5.3},
        {"edits", edited(word(0) + word(4) + edits), plain, 0.6},
        {"long edits", edited(word(0x1000000) + word(2) + longEdits), plain, 0.6},
        {"an empty edit alone", edited(word(0) + word(1) + word(300) + empty + rate), plain, 0.6},
        {"long times", {"cenc", 8, 1, 50}, plain, 0.6},
        {"no timescale", {"cenc", 8, 0, 0}, plain, 30},
        {"nothing in it", {}, fragmentOf(0, {}, {}), 0},
        {"no fragments", {"cenc", 8, 0, 100, {}, false}, plain, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto file = bytesOf(row.movie) + row.fragments;
        auto scan = scanOf(file);
        scan.coverTo(file.size() - 1);
        EXPECT_FALSE(scan.endOf(9)) << "the end of the file has not been seen";
        scan.coverTo(file.size());
        EXPECT_NEAR(scan.endOf(9).value_or(0), row.end, 1e-6);
        EXPECT_EQ(scan.endOf(9).has_value(), row.end > 0);
        EXPECT_FALSE(scan.endOf(8));
    }
}

TEST(Scan, TellsWhereItsKnowledgeEnds) {
    const auto start = bytesOf({}), media = fragment(1, box("senc", {}));
    const std::string unindexed =
        "its encrypted fragments have no index (one 'sidx' of them all, in front), without which "
        "libavformat confuses their vectors; package it anew with one";
    const auto unread = [](std::size_t at) {
        return "the box at byte " + std::to_string(at) +
               " cannot be read, without which their keys are not known; download the file whole "
               "and play that";
    };
    const auto behind = word(9) + letters("free") + Bytes{1};
    const auto body = Bytes(media.begin() + 8, media.end() - 38); // of the 'moof'
    const auto far = fragmentOf(1, word(0) + word(3),
                                run(0, 3) + box("senc", {}) +
                                    group(described(true, 8, 2), word(3) + word(0x10001)));
    const struct {
        const char* what;
        Bytes in, rest;    ///< read, and not
        std::string fault; ///< of all of it; empty: only of the rest
    } rows[] = {
        {"the file ends", start + index(2) + media + media, {}, ""},
        {"... with a box of 8 bytes", start + index(1) + media + box("free", {}), {}, ""},
        {"a size below 8", start + index(2) + media + media, word(7) + letters("free") + media, ""},
        {"a long size below 16", start + index(1) + media,
         word(1) + letters("free") + word(0) + word(15) + media, ""},
        {"a header cut short", start + index(1) + media, word(9) + Bytes(3, 'a'), ""},
        {"a fragment cut short", start + index(1) + media, word(99) + letters("moof") + Bytes(90),
         ""},
        {"long boxes", longBox("wide", {}) + start + index(1, 1) + longBox("moof", body), {}, ""},
        {"an index of one", start + index(1) + media + media, {}, unindexed},
        {"... of more than is in it", start + index(9, 0, 1) + media + media, {}, unindexed},
        {"... and another", start + index(1) + index(2) + media + media, {}, unindexed},
        {"one fragment without", start + media + behind, {}, ""},
        {"samples in front", start + index(1) + far, Bytes(),
         "encrypted samples stand in front of their 'moof'"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto file = row.in + row.rest;
        auto scan = scanOf(file);
        if (row.what == std::string("one fragment without")) {
            scan.coverTo(file.size() - behind.size());
            EXPECT_EQ(toldAt(scan, start.size()), unindexed) << "there may be more";
        }
        scan.coverTo(~std::uint64_t{0});
        EXPECT_EQ(toldAt(scan, row.in.size() - 1), row.fault);
        EXPECT_EQ(toldAt(scan, row.in.size()),
                  row.fault == unindexed ? unindexed : unread(row.in.size()));
        EXPECT_EQ(scan.protectionAt(row.in.size(), 8), nullptr) << "a clear track";
    }
    const auto first = box("ftyp", {}) + start + index(2);
    const auto second = bytesOf({"cbcs", 0});
    for (const auto& between : {Bytes(), box("ftyp", {}), box("ftyp", {}) + box("free", {}),
                                box("ftyp", {}) + box("mdat", {})}) {
        const auto file = first + media + first + media + between + second + media;
        const auto at = file.size() - (second + media).size();
        const auto begin = between.size() == 16 && between[12] == 'm' ? at : at - between.size();
        auto scan = scanOf(file);
        scan.coverTo(~std::uint64_t{0});
        EXPECT_EQ(scan.beginnings(), (std::vector<std::uint64_t>{0, begin})) << "one is said again";
        EXPECT_EQ(toldAt(scan, begin - 1), "");
        EXPECT_EQ(toldAt(scan, begin),
                  "the file begins anew there (another 'moov', at byte " + std::to_string(begin) +
                      "), which is read only from a local file; download it and play that");
    }
}

} // namespace
