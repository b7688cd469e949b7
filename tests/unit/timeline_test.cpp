// The file that a recorder leaves: whole at any time, with a bound, and with words for what is
// missing.

#include "timeline/recorder.h"
#include "timeline/timeline.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class TimelineFile : public testing::Test {
protected:
    TimelineFile() {
        std::string name = (fs::temp_directory_path() / "timeline-XXXXXX").string();
        m_folder = mkdtemp(name.data());
        m_path = m_folder / "line.json";
    }
    ~TimelineFile() override { fs::remove_all(m_folder); }

    std::string text() const {
        std::stringstream bytes;
        bytes << std::ifstream(m_path).rdbuf();
        return bytes.str();
    }
    json rows() const { return json::parse(text()); }

    fs::path m_folder;
    fs::path m_path;
};

// Never destroyed, as every recorder: its thread goes on.
timeline::Recorder& recorderOf(const fs::path& path, off_t limit = 1 << 20) {
    auto& recorder = *new timeline::Recorder(limit);
    EXPECT_EQ(recorder.open(path), "");
    return recorder;
}

TEST_F(TimelineFile, HasTheRowsOfSeveralRecordersAndThreads) {
    constexpr int threads = 4;
    constexpr int rowsEach = 500;
    timeline::Recorder* const recorders[] = {&recorderOf(m_path), &recorderOf(m_path)};
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t)
        running.emplace_back([&, t] {
            for (int i = 0; i < rowsEach; ++i)
                recorders[t % 2]->add(json({{"thread", t}, {"row", i}}).dump());
        });
    for (auto& thread : running)
        thread.join();
    for (auto* const recorder : recorders)
        EXPECT_EQ(recorder->flush(), "");
    int next[threads] = {};
    for (const auto& row : rows())
        EXPECT_EQ(row.at("row"), next[row.at("thread").get<int>()]++);
    for (const int count : next)
        EXPECT_EQ(count, rowsEach);
}

TEST_F(TimelineFile, SaysWhenItIsFullAndTakesNoMore) {
    auto& recorder = recorderOf(m_path, 200);
    const std::string row = R"({"row": ")" + std::string(150, 'x') + "\"}";
    recorder.add(row);
    EXPECT_EQ(recorder.flush(), "");
    EXPECT_TRUE(recorder.add(row));
    EXPECT_EQ(recorder.flush(), "");
    EXPECT_FALSE(recorder.add(row));
    EXPECT_EQ(recorder.flush(), "");
    ASSERT_EQ(rows().size(), 2U) << text();
    EXPECT_EQ(rows()[1].at("name"), "the file is full: what comes is left out");
    EXPECT_EQ(rows()[1].at("args").at("bytes"), 200);
}

TEST_F(TimelineFile, TellsHowMuchIsMissingOnceItCanBeWrittenAgain) {
    auto& recorder = recorderOf(m_path);
    std::ofstream(m_path) << "damaged";
    for (int i = 0; i < 3; ++i)
        recorder.add("{}");
    EXPECT_NE(recorder.flush(), "");
    recorder.add("{}");
    EXPECT_NE(recorder.flush(), "");
    EXPECT_EQ(text(), "damaged");
    fs::resize_file(m_path, 0);
    recorder.add("{}");
    recorder.flush();
    ASSERT_EQ(rows().size(), 2U) << text();
    EXPECT_EQ(rows()[1].at("args").at("events"), 4);
}

TEST_F(TimelineFile, ThatOthersHoldIsNotWaitedForForEver) {
    auto& recorder = recorderOf(m_path);
    const ScopedFd other(open(m_path.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
    recorder.add("{}");
    EXPECT_NE(recorder.flush().find("somebody else holds its lock"), std::string::npos);
}

TEST_F(TimelineFile, IsRefusedWhereOneCannotBe) {
    timeline::Recorder recorder;
    for (const auto& path : {m_folder, m_folder / "none" / "line.json", fs::path("/dev/full")})
        EXPECT_NE(recorder.open(path).find("cannot write the time line '" + path.string() + "': "),
                  std::string::npos);
}

/// One of the process: what it records has this file.
TEST_F(TimelineFile, HasEventsWithWhateverTextsComeAndThreadsByTheirNames) {
    ASSERT_FALSE(timeline::isOn());
    { const timeline::Span before("test", "before"); }
    ASSERT_EQ(timeline::beginFile(m_path), "");
    std::thread([] {
        pthread_setname_np(pthread_self(), "worker");
        const timeline::Span span("test", "span");
        span.with("text", "\"\\\n\xff").with("null", static_cast<const char*>(nullptr));
        span.with("nan", std::numeric_limits<double>::quiet_NaN()).with("on", true).with("n", -7);
        span.flow(timeline::Flow::Start, "arrow", 255);
    }).join();
    EXPECT_EQ(timeline::flush(), "");
    json span, flow, name;
    for (const auto& row : rows()) {
        (row.at("ph") == "X" ? span : row.at("ph") == "s" ? flow : name) = row;
        EXPECT_NE(row.at("name"), "before");
    }
    EXPECT_EQ(span.at("args"), json({{"text", "\"\\\n\xEF\xBF\xBD"},
                                     {"null", ""},
                                     {"nan", nullptr},
                                     {"on", true},
                                     {"n", -7}}));
    EXPECT_EQ(flow.at("id"), "0xff");
    EXPECT_EQ(flow.at("tid"), span.at("tid"));
    EXPECT_GT(flow.at("ts"), span.at("ts"));
    EXPECT_EQ(name.at("tid"), span.at("tid"));
    EXPECT_EQ(name.at("args").at("name"), "worker");
}

} // namespace
