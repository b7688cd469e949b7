// What a player's state says about who is waited for, and what uva-scope makes of bad input.

#include "access.h"
#include "bundle.h"
#include "json.h"
#include "player.h"
#include "why.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using scope::Json;
using scope::Who;

namespace {

/// A backend that was asked to play and does not; some rows are about another.
Json stalled(const char* difference) {
    auto backend = Json::parse(R"({"address": "0x1", "state": "PLAYING", "position_seconds": 2.0,
        "pipeline": {"state": "PAUSED", "pending": "PLAYING"}, "seek": {"phase": "none"},
        "decoder_requests": [], "sources": [], "events": []})");
    backend.merge_patch(Json::parse(difference));
    return backend;
}

struct Row {
    const char* name;
    const char* backend; ///< what is different
    const char* link;
    const char* mainSystem;
    double time; ///< since it has stood still
    Who who;
    double seconds;
    const char* says;
};

constexpr Row rows[] = {
    {"moves", "{}", "{}", "null", 0.2, Who::Nobody, 0, "it moves"},
    {"begins", R"({"position_seconds": null})", "{}", "null", 0.2, Who::Nobody, 0, "just begun"},
    {"idle", R"({"state": "READY"})", "{}", "null", 9, Who::Nobody, 0, "nothing is to be played"},
    {"paused", R"({"state": "PAUSED", "pipeline": {"pending": "VOID_PENDING"}})", "{}", "null", 9,
     Who::Nobody, 0, "the client has paused"},
    {"paused until there is data", R"({"state": "PAUSED", "pipeline": {"pending": "VOID_PENDING"},
         "sources": [{"name": "v", "waits_for_data_seconds": 2}]})",
     "{}", "null", 9, Who::Data, 2, "no samples for v"},
    {"ended", R"({"events": [{"name": "CancelDataRequestsAsync"}, {"name": "PlaybackFinished"}]})",
     "{}", "null", 9, Who::Nobody, 0, "played to its end"},
    {"sought behind the end",
     R"({"events": [{"name": "PlaybackFinished"}, {"name": "CancelDataRequestsAsync"}],
         "seek": {"phase": "waits for the client"}})",
     "{}", "null", 2, Who::Client, 2, "CancelDataRequestsAsync"},
    {"resources", R"({"decoder_requests": [{"sink": "v", "kind": "video", "waits_for": "client",
         "seconds": 3}]})",
     "{}", "null", 4, Who::Client, 3, "BackendResourceRequestAsync"},
    {"resources refused", R"({"decoder_refused": {"sink": "v", "kind": "video", "by": "client",
         "seconds_ago": 7}})",
     "{}", "null", 8, Who::Client, 7, "refused v the video decoder"},
    {"the longest of two", R"({"decoder_requests": [
         {"sink": "a", "kind": "audio", "waits_for": "main system", "seconds": 1},
         {"sink": "v", "kind": "video", "waits_for": "main system", "seconds": 3}]})",
     "{}", "null", 4, Who::MainSystem, 3, "request of v"},
    {"only just asked", R"({"decoder_requests": [{"sink": "v", "kind": "video",
         "waits_for": "main system", "seconds": 0.1}]})",
     "{}", "null", 0.2, Who::Nobody, 0, "it moves"},
    {"lent", R"({"decoder_requests": [{"sink": "v", "kind": "video", "waits_for": "main system",
         "seconds": 3}]})",
     "{}", R"({"lent": ["video"]})", 4, Who::Decoder, 3, "lent to another application"},
    {"the other one is lent", R"({"decoder_requests": [{"sink": "v", "kind": "video",
         "waits_for": "main system", "seconds": 3}]})",
     "{}", R"({"lent": ["audio"]})", 4, Who::MainSystem, 3, "has not answered"},
    {"refused", R"({"decoder_refused": {"sink": "v", "kind": "video", "by": "main system",
         "seconds_ago": 1}})",
     "{}", "null", 4, Who::Decoder, 1, "has not granted"},
    {"asked back", "{}", R"({"asked_back": 2})", "null", 4, Who::Decoder, 4,
     "asked a decoder back"},
    {"decrypter", R"({"sources": [{"name": "v", "waits_for_decryption_seconds": 6,
         "waits_for_data_seconds": 8}]})",
     "{}", "null", 9, Who::Key, 6, "with the client's decrypter"},
    {"no key yet", R"({"key_system": "k", "sources": [{"name": "v", "decrypted": 0,
         "waits_for_data_seconds": 8}]})",
     "{}", "null", 9, Who::Key, 8, "it has no key yet"},
    {"no data behind protected data", R"({"key_system": "k", "sources": [{"name": "v",
         "decrypted": 5, "waits_for_data_seconds": 8}]})",
     "{}", "null", 9, Who::Data, 8, "no samples for v"},
    {"no data", R"({"sources": [{"name": "a"}, {"name": "v", "waits_for_data_seconds": 8}]})", "{}",
     "null", 9, Who::Data, 8, "no samples for v"},
    {"nothing from the server", R"({"pipeline": {"state": "READY"},
         "url": {"address": "http://h/x", "bytes_read": 10}})",
     "{}", "null", 4, Who::Network, 4, "nothing comes from http://h/x after 10 bytes"},
    {"runs dry", R"({"buffering": {"percent": 0}, "url": {"address": "http://h/x",
         "bytes_read": 10}})",
     "{}", "null", 4, Who::Network, 4, "nothing comes"},
    {"a file is no network", R"({"pipeline": {"state": "READY"}, "url": {"address": "file:///x"}})",
     "{}", "null", 4, Who::Unknown, 4, "nobody that is known of"},
    {"an error", R"({"last_error": {"text": "demux: broken"}})", "{}", "null", 4, Who::Unknown, 4,
     "demux: broken"},
};

} // namespace

TEST(Why, NamesWhoIsWaitedFor) {
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto backend = stalled(row.backend);
        const auto first = scope::follow({}, backend, 100);
        const auto standing = scope::follow(first, backend, 100 + row.time);
        const auto link = Json::parse(row.link);
        const auto mainSystem = Json::parse(row.mainSystem);
        const auto why = scope::explain(standing, {backend, link, mainSystem}, 100 + row.time);
        EXPECT_STREQ(scope::nameOf(why.who), scope::nameOf(row.who));
        EXPECT_NEAR(why.seconds, row.seconds, 1e-6);
        EXPECT_NE(why.sentence.find(row.says), std::string::npos) << why.sentence;
    }
}

TEST(Why, ComparesStates) {
    const auto at = [](double position, double bytes, double failed) {
        auto backend = stalled("{}");
        backend["position_seconds"] = position;
        backend["url"] = {{"address", "http://h/x"}, {"bytes_read", bytes}};
        backend["buffering"] = {{"percent", 3}};
        backend["sources"] = {{{"name", "v"}, {"not_decrypted", failed}}};
        return backend;
    };
    const auto explain = [](const scope::Standing& standing, const Json& backend, double time) {
        return scope::explain(standing, {backend, Json(), Json()}, time);
    };
    auto standing = scope::follow({}, at(1, 10, 7), 100);
    standing = scope::follow(standing, at(2, 10, 7), 101);
    EXPECT_EQ(explain(standing, at(2, 10, 7), 101.2).who, Who::Nobody);
    standing = scope::follow(standing, at(2, 20, 7), 104);
    const auto slow = explain(standing, at(2, 20, 7), 104.1);
    EXPECT_EQ(slow.who, Who::Network);
    EXPECT_NE(slow.sentence.find("too slow"), std::string::npos) << slow.sentence;
    EXPECT_NEAR(slow.seconds, 3.1, 1e-6);
    standing = scope::follow(standing, at(2, 20, 8), 105);
    EXPECT_EQ(explain(standing, at(2, 20, 8), 105).who, Who::Key);
    EXPECT_EQ(explain(standing, at(2, 20, 8), 120).who, Who::Network) << "that was long ago";
}

TEST(Foreign, IsNeverTrusted) {
    EXPECT_FALSE(scope::parseForeign(std::string(100000, '[')));
    EXPECT_FALSE(scope::parseForeign(std::string(40, '[') + std::string(40, ']')));
    EXPECT_TRUE(scope::parseForeign(std::string(20, '[') + std::string(20, ']')));
    EXPECT_FALSE(scope::parseForeign(R"({"a": )"));
    EXPECT_FALSE(scope::parseForeign("\"" + std::string(9 << 20, 'x') + "\""));

    // Every kind of value in every place: it is looked at, and shown or not.
    const Json values[] = {nullptr,
                           true,
                           -1,
                           1e300,
                           "text",
                           Json::array({1, nullptr}),
                           Json::object({{"seconds", "x"}})};
    const char* const places[] = {
        "address",          "state",           "position_seconds", "pipeline", "seek",
        "decoder_requests", "sources",         "events",           "url",      "buffering",
        "key_system",       "decoder_refused", "last_error"};
    scope::Player player("p", "");
    const auto take = [&player](const Json& state) {
        player.take({{"kind", "state"},
                     {"process", 1},
                     {"state", scope::dump(state)},
                     {"main_system", scope::dump(state)}},
                    1);
    };
    for (const auto& value : values) {
        take(value);
        take({{"media", value}});
        take({{"media", {{"backends", value}, {"decoder_link", value}}}});
        for (const char* const place : places) {
            auto backend = stalled("{}");
            backend[place] = value;
            take({{"media", {{"backends", {backend, value}}, {"decoder_link", value}}}});
            backend[place] = Json::array({value, {{"name", value}, {"number", value}}});
            take({{"media", {{"backends", {backend}}}}});
        }
        EXPECT_FALSE(scope::dump(player.describe()).empty());
    }
    take({{"media", {{"backends", {stalled("{}")}}}}});
    EXPECT_EQ(player.status(), scope::Player::Status::Answers);
    player.take({{"kind", "state"}, {"state", "no JSON"}}, 2);
    EXPECT_EQ(player.status(), scope::Player::Status::Silent);
}

TEST(Player, KeepsLinesAndTellsOfChanges) {
    scope::Player player("p", "");
    player.take({{"kind", "traces"},
                 {"text", "one\n[00124] a uvagst f(): Processing cmd: m_state "
                          "/dev/shm/uva-scope-5dDJ/state quiet\ntw"}},
                1);
    player.take({{"kind", "log"}, {"text", "from the log\n"}}, 1);
    player.take({{"kind", "traces"}, {"text", "o\n"}}, 2);
    std::string all;
    player.lines().from(1, [&](const scope::Line& line) { all += line.text + ";"; });
    EXPECT_EQ(all, "from the log;two;");

    const auto take = [&player](const char* difference, double time) {
        const Json state = {{"media", {{"backends", {stalled(difference)}}}}};
        player.take({{"kind", "state"}, {"process", 7}, {"state", scope::dump(state)}}, time);
    };
    take(R"({"events": [{"number": 1, "name": "NeedData", "seconds_ago": 1}]})", 3);
    take(R"({"events": [{"number": 1, "name": "NeedData", "seconds_ago": 2},
                        {"number": 2, "name": "NewMetadata", "seconds_ago": 0}]})",
         4);
    std::string told;
    player.timeline().from(0, [&](const scope::Record& record) {
        if (record.track == "events")
            told += record.name + "@" + std::to_string(record.time).substr(0, 3) + " ";
    });
    EXPECT_EQ(told, "NeedData@2.0 NewMetadata@4.0 ");
    const auto before = player.timeline().end();
    take("{}", 4.1);
    EXPECT_EQ(player.timeline().end(), before) << "nothing has changed";
    player.take({{"kind", "silent"}, {"reason", "gone"}, {"ended", true}}, 5);
    EXPECT_EQ(player.status(), scope::Player::Status::Ended);
    // A shell that is asked by somebody else says nothing about a player that has ended.
    player.take({{"kind", "silent"}, {"reason", "busy"}, {"ended", false}}, 6);
    EXPECT_EQ(player.status(), scope::Player::Status::Ended);
}

TEST(Access, IsForThisHostWithTheToken) {
    const auto token = scope::newToken();
    EXPECT_EQ(token.size(), 32U);
    EXPECT_NE(token, scope::newToken());
    EXPECT_TRUE(scope::isSameSecret(token, std::string(token)));
    EXPECT_FALSE(scope::isSameSecret(token, token.substr(1)));
    EXPECT_FALSE(scope::isSameSecret(token, token + "0"));
    EXPECT_FALSE(scope::isSameSecret(token, ""));
    for (const char* const host : {"127.0.0.1", "127.0.0.1:80", "localhost:65535", "[::1]:1"})
        EXPECT_TRUE(scope::isThisHost(host)) << host;
    for (const char* const host :
         {"", "evil.example", "evil.example:80", "localhost.evil.example", "127.0.0.1.evil.example",
          "127.0.0.1:", "127.0.0.1:80@evil", "127.0.0.1:123456", "127.0.0.11"})
        EXPECT_FALSE(scope::isThisHost(host)) << host;
    EXPECT_TRUE(scope::isOwnOrigin("", "localhost:80"));
    EXPECT_TRUE(scope::isOwnOrigin("http://localhost:80", "localhost:80"));
    for (const char* const origin : {"null", "http://localhost:81", "https://localhost:80",
                                     "http://evil.example", "http://localhost"})
        EXPECT_FALSE(scope::isOwnOrigin(origin, "localhost:80")) << origin;
}

TEST(Bundle, IsAnArchiveThatTarReads) {
    const std::string large(1000, 'x');
    const auto tar = scope::makeTar("folder", {{"empty", ""}, {"large", large}, {"one", "1"}});
    char path[] = "/tmp/scope-XXXXXX";
    const int file = mkstemp(path);
    ASSERT_GE(file, 0);
    close(file);
    FILE* const out = fopen(path, "w");
    fwrite(tar.data(), 1, tar.size(), out);
    fclose(out);
    FILE* const listed =
        popen(("tar -tf " + std::string(path) + "; tar -xOf " + path + " folder/large folder/one")
                  .c_str(),
              "r");
    std::string text;
    for (int byte = 0; (byte = fgetc(listed)) != EOF;)
        text += static_cast<char>(byte);
    EXPECT_EQ(pclose(listed), 0);
    remove(path);
    EXPECT_EQ(text, "folder/empty\nfolder/large\nfolder/one\n" + large + "1");
}
