// What a process tells of itself, whatever hangs in it, and the file it goes to.

#include "messaging/queue/zant_msg_queue.h"
#include "messaging/timer/time_out_server.h"
#include "state/framework_state.h"
#include "state/state_report.h"
#include "support/no_threads.h"
#include "support/wait_until.h"
#include "util/atomic_file.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using support::waitUntil;
using Json = StateReport::Json;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

namespace {

Json collected(StateReport& report, milliseconds bound = milliseconds(20000)) {
    return Json::parse(report.collect(bound));
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

class AtomicFile : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/atomic-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder = pattern;
    }
    void TearDown() override { fs::remove_all(folder); }
    long files() const {
        return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
    }

    fs::path folder;
};

} // namespace

TEST(StateReport, WithoutThreadsItSaysSo) {
    StateReport report;
    report.add("one", [] { return Json("asked"); });
    {
        const support::NoThreads none;
        const auto error = collected(report)["one"]["error"].get<std::string>();
        EXPECT_NE(error.find("no thread can be started"), std::string::npos) << error;
    }
    EXPECT_EQ(collected(report)["one"], "asked");
}

TEST(StateReport, WhoHangsHoldsNobodyUpAndIsAskedOnce) {
    StateReport report;
    std::promise<void> letGo;
    const auto gone = letGo.get_future().share();
    const auto asked = std::make_shared<std::atomic<int>>(0);
    report.add("hangs", [gone, asked] {
        ++*asked;
        gone.wait();
        return Json("at last");
    });
    report.add("throws", []() -> Json { throw std::runtime_error("no memory"); });
    report.add("broken text", [] { return Json("\xff\"\n"); });
    report.add("broken text", [] { return Json("another of the name"); });

    for (int i = 0; i < 3; ++i) {
        const auto state = collected(report, milliseconds(50));
        EXPECT_NE(state["hangs"]["error"].get<std::string>().find("no answer"), std::string::npos);
        EXPECT_GT(state["hangs"]["seconds"], 0.04);
        EXPECT_EQ(*asked, 1);
    }
    letGo.set_value();
    const auto state = collected(report);
    EXPECT_EQ(state["hangs"], "at last");
    EXPECT_EQ(state["throws"]["error"], "no memory");
    EXPECT_EQ(state["broken text"], "\xef\xbf\xbd\"\n");
    EXPECT_EQ(state.begin().key(), "hangs") << "the order is that of the modules";
    // The answer above may still have been that of the first question.
    const int before = *asked;
    EXPECT_EQ(collected(report)["hangs"], "at last");
    EXPECT_EQ(*asked, before + 1);
}

TEST(StateReport, HasTheMembersThatAreNamed) {
    StateReport report;
    for (const char* const name : {"one", "two", "three"})
        report.add(name, [name] { return Json(name); });
    EXPECT_EQ(Json::parse(report.collect(milliseconds(20000), {"three", "none", "one"})),
              Json::parse(R"({"one": "one", "three": "three"})"));
}

TEST(StateReport, TellsOfThreadsQueuesTimersAndTraces) {
    AddStateMshellCmds();
    CZantMsgQueue queue;
    ASSERT_EQ(queue.Open("/state_test", O_RDWR | O_CREAT, 0600, 4, true), 0);
    TimeOutServer::instance().AddTimer(TimeOutTimer(5000, 77, queue.handle, 0));
    pthread_setname_np(pthread_self(), "a) b (c");

    const auto state = collected(StateReport::instance());
    EXPECT_EQ(state["process"]["id"], getpid());
    EXPECT_GT(state["process"]["resident_bytes"], 100000);
    const auto& threads = state["threads"];
    const auto own = std::find_if(threads.begin(), threads.end(),
                                  [](const Json& thread) { return thread["id"] == gettid(); });
    ASSERT_NE(own, threads.end()) << threads;
    EXPECT_EQ((*own)["name"], "a) b (c");
    EXPECT_GE((*own)["cpu_seconds"], 0.0);
    ASSERT_EQ(state["queues"].size(), 1U);
    EXPECT_EQ(state["queues"][0]["name"], "/state_test");
    EXPECT_EQ(state["queues"][0]["waiting"], 0);
    ASSERT_EQ(state["timers"].size(), 1U);
    EXPECT_EQ(state["timers"][0]["signal"], 77);
    EXPECT_TRUE(state["trace"]["direct_print"]);
    TimeOutServer::instance().PopTimer();
}

TEST_F(AtomicFile, IsThereWholeOrNotAtAll) {
    const auto file = folder / "state.json";
    EXPECT_EQ(writeFileAtomically(file, "one"), "");
    EXPECT_EQ(writeFileAtomically(file, std::string(100000, 'x')), "");
    EXPECT_EQ(contentOf(file), std::string(100000, 'x'));
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0600U);

    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{1000, before.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const auto failure = writeFileAtomically(file, std::string(2000, 'y'));
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_NE(failure.find("File too large"), std::string::npos) << failure;
    EXPECT_EQ(contentOf(file).front(), 'x') << "the one before stays";
    EXPECT_EQ(files(), 1);

    // A link is replaced, and not followed.
    fs::create_symlink(file, folder / "link");
    EXPECT_EQ(writeFileAtomically(folder / "link", "two"), "");
    EXPECT_EQ(contentOf(file).front(), 'x');
    EXPECT_EQ(contentOf(folder / "link"), "two");
}

TEST_F(AtomicFile, GoesOnlyWhereItMay) {
    fs::create_directory(folder / "open");
    chmod((folder / "open").c_str(), 0777);
    fs::create_directory(folder / ".hidden");
    const struct {
        std::string path, reason;
    } rows[] = {
        {"", "no absolute path"},
        {"state.json", "no absolute path"},
        {folder.string() + "/", "no absolute path"},
        {folder / ".state", "is hidden"},
        {folder / ".hidden/state", "is hidden"},
        {folder / "../state", "is hidden"},
        {folder / "none/state", "make it, or name another"},
        {folder / "open/state", "is not sticky"},
        {folder / std::string(300, 'n'), "File name too long"},
        {folder / "open", "Is a directory"},
    };
    for (const auto& [path, reason] : rows) {
        const auto failure = writeFileAtomically(path, "text");
        EXPECT_NE(failure.find(reason), std::string::npos) << path << ": " << failure;
    }
    EXPECT_EQ(files(), 2);
    EXPECT_EQ(writeFileAtomically("/tmp/" + folder.filename().string() + ".json", "text"), "");
    fs::remove("/tmp/" + folder.filename().string() + ".json");
}
