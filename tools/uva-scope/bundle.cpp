#include "bundle.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <utility>

namespace scope {

namespace {

constexpr std::size_t block = 512;

/// A header of the archive, see pax(1), "ustar Interchange Format".
struct Header {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char mtime[12];
    char checksum[8];
    char type;
    char link[100];
    char magic[6];
    char version[2];
    char rest[247];
};
static_assert(sizeof(Header) == block);

std::string headerOf(const std::string& name, std::size_t size) {
    Header header{};
    name.copy(header.name, sizeof header.name - 1);
    std::snprintf(header.mode, sizeof header.mode, "%07o", 0600U);
    std::snprintf(header.uid, sizeof header.uid, "%07o", 0U);
    std::snprintf(header.gid, sizeof header.gid, "%07o", 0U);
    std::snprintf(header.size, sizeof header.size, "%011zo", size);
    std::snprintf(header.mtime, sizeof header.mtime, "%011lo",
                  static_cast<unsigned long>(std::time(nullptr)));
    header.type = '0';
    std::memcpy(header.magic, "ustar", 6);
    std::memcpy(header.version, "00", 2);
    std::memset(header.checksum, ' ', sizeof header.checksum);
    unsigned sum = 0;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&header);
    std::for_each(bytes, bytes + sizeof header, [&sum](unsigned char byte) { sum += byte; });
    std::snprintf(header.checksum, sizeof header.checksum, "%06o", sum);
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

/// Rows of Chrome's trace event format, on tracks that count from 1.
class TraceRows {
public:
    int addTrack(const std::string& name) {
        add("M", ++m_tracks, "thread_name", {{"args", {{"name", name}}}});
        return m_tracks;
    }
    void instant(int track, const Record& record) {
        add("i", track, record.name,
            {{"ts", microseconds(record.time)}, {"s", "t"}, {"args", {{"detail", record.detail}}}});
    }
    void span(int track, const Record& record, double until) {
        add("X", track, record.name,
            {{"ts", microseconds(record.time)},
             {"dur", microseconds(until - record.time)},
             {"args", {{"detail", record.detail}}}});
    }
    std::string text() const { return dump({{"traceEvents", m_rows}}) + "\n"; }

private:
    static double microseconds(double seconds) { return seconds * 1e6; }
    void add(const char* phase, int track, const std::string& name, Json row) {
        row.update({{"ph", phase}, {"pid", 1}, {"tid", track}, {"name", name}});
        m_rows.push_back(std::move(row));
    }

    Json m_rows = Json::array();
    int m_tracks = 0;
};

/// A track's states as spans, until the next one; events as moments.
std::string timelineOf(const Player& player, double now) {
    TraceRows rows;
    struct Track {
        int number;
        const Record* shows;
    };
    std::map<std::string, Track> tracks;
    const int events = rows.addTrack("events");
    for (const auto& record : player.timeline().entries()) {
        if (record.track == "events" || record.track == "process") {
            rows.instant(events, record);
            continue;
        }
        const auto found = tracks.find(record.track);
        if (found == tracks.end()) {
            tracks[record.track] = {rows.addTrack(record.track), &record};
            continue;
        }
        rows.span(found->second.number, *found->second.shows, record.time);
        found->second.shows = &record;
    }
    for (const auto& [name, track] : tracks)
        rows.span(track.number, *track.shows, now);
    return rows.text();
}

std::string linesOf(const Player& player, std::string_view source) {
    std::string text;
    for (const auto& line : player.lines().entries()) {
        if (line.source != source)
            continue;
        char time[32];
        std::snprintf(time, sizeof time, "%.3f ", line.time);
        text += time + line.text + "\n";
    }
    return text;
}

} // namespace

std::string makeTar(const std::string& folder, const Files& files) {
    std::string tar;
    for (const auto& [name, content] : files) {
        tar += headerOf(folder + "/" + name, content.size());
        tar += content;
        tar.resize((tar.size() + block - 1) / block * block, '\0');
    }
    tar.append(2 * block, '\0');
    return tar;
}

Files filesOf(const Player& player, double time) {
    auto about = player.describe();
    about.erase("state");
    about["time"] = time;
    return {
        {"state.json", player.state().dump(1, ' ', false, Json::error_handler_t::replace) + "\n"},
        {"main-system.json", dump(player.mainSystem()) + "\n"},
        {"why.json", dump(about) + "\n"},
        {"timeline.json", timelineOf(player, time)},
        {"traces.txt", linesOf(player, "trace")},
        {"log.txt", linesOf(player, "log")}};
}

} // namespace scope
