// What GStreamer's debug output looks like in the system log, whatever its objects are going
// through.

#include "../unit/recorded_syslog.h"
#include "gst_ptr.h"
#include "gstnox_plugin.h"
#include "gstnox_syslog.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <regex>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

namespace {

std::atomic<int> kernelRefusal{0}; ///< errno of a kernel that was built without the call

} // namespace

extern "C" ssize_t process_vm_readv(pid_t pid, const iovec* local, unsigned long localCount,
                                    const iovec* remote, unsigned long remoteCount,
                                    unsigned long flags) {
    if (kernelRefusal != 0) {
        errno = kernelRefusal;
        return -1;
    }
    return syscall(SYS_process_vm_readv, pid, local, localCount, remote, remoteCount, flags);
}

namespace {

using Object = GstPtr<GstObject>;

class SyslogTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        gst_init(nullptr, nullptr);
        gst_debug_remove_log_function(nullptr);
        GST_DEBUG_CATEGORY_INIT(category, "syslogtest", 0, "");
        gst_debug_category_set_threshold(category, GST_LEVEL_MEMDUMP);
        gst_debug_add_log_function(gstLogToSyslog, nullptr, nullptr);
    }
    static void TearDownTestSuite() { gst_debug_remove_log_function(gstLogToSyslog); }
    void SetUp() override { takeSyslog(); }
    void TearDown() override { kernelRefusal = 0; }

    static void log(gpointer object, GstDebugLevel level = GST_LEVEL_INFO) {
        gst_debug_log(category, level, "/a/b/file.c", "work", 7, static_cast<GObject*>(object),
                      "the %s", "text");
    }
    /// The line's end from the function on.
    static std::string tail(const std::string& line) {
        const auto at = line.find("file.c(7):work()");
        return at != std::string::npos ? line.substr(at + 16) : line;
    }
    static std::string logged(gpointer object) {
        log(object);
        const auto lines = takeSyslog();
        return lines.size() == 1 ? tail(lines[0].second) : "not one line";
    }

    static GstDebugCategory* category;
    const Object bin = Object::sink(GST_OBJECT(gst_bin_new("the bin")));
};
GstDebugCategory* SyslogTest::category = nullptr;

TEST_F(SyslogTest, ALineSaysWhenWhoAndWhere) {
    const int priorities[] = {LOG_CRIT, LOG_ERR,   LOG_WARNING, LOG_NOTICE,
                              LOG_INFO, LOG_DEBUG, LOG_DEBUG};
    for (int level = 0; level < 7; ++level) {
        log(level % 2 == 0 ? bin.get() : nullptr, static_cast<GstDebugLevel>(level));
        const auto lines = takeSyslog();
        ASSERT_EQ(lines.size(), 1U) << level;
        EXPECT_EQ(lines[0].first, priorities[level]) << level;
        const std::string name = level % 2 == 0 ? " 'the bin'" : "";
        EXPECT_TRUE(std::regex_match(
            lines[0].second,
            std::regex(R"(\d\d:\d\d:\d\d\.\d{6}: <gst:syslogtest> \[[0-9a-f]{8,}\] file\.c\(7\):)"
                       R"(work\(\))" +
                       name + ": the text\n")))
            << lines[0].second;
    }
}

TEST_F(SyslogTest, EveryObjectHasAName) {
    const auto nameless = Object::sink(GST_OBJECT(gst_bin_new(nullptr)));
    g_free(std::exchange(nameless.get()->name, nullptr));
    gst_object_set_name(nameless.get(), nullptr);
    EXPECT_EQ(logged(nameless.get()),
              " '" + std::string(GST_OBJECT_NAME(nameless.get())) + "': the text\n");
    char* const name = std::exchange(nameless.get()->name, nullptr);
    EXPECT_EQ(logged(nameless.get()), " '': the text\n");
    nameless.get()->name = name;

    auto* adapterLike = static_cast<GObject*>(g_object_new(G_TYPE_OBJECT, nullptr));
    EXPECT_EQ(logged(adapterLike), " 'GObject': the text\n");
    g_object_unref(adapterLike);

    auto* pad = gst_pad_new("src_0", GST_PAD_SRC);
    gst_element_add_pad(GST_ELEMENT(bin.get()), pad);
    EXPECT_EQ(logged(pad), " 'src_0': the text\n");

    const std::string much(1000, 'n');
    gst_object_set_name(bin.get(), much.c_str());
    EXPECT_EQ(logged(bin.get()), " '" + much.substr(0, 255) + "': the text\n");
    for (const int refusal : {ENOSYS, EPERM}) {
        kernelRefusal = refusal;
        EXPECT_EQ(logged(bin.get()), " '" + much.substr(0, 255) + "': the text\n");
    }
}

/// GStreamer logs with it held.
TEST_F(SyslogTest, AnObjectsLockIsLeftAlone) {
    GST_OBJECT_LOCK(bin.get());
    std::thread another([&] { log(bin.get()); });
    std::vector<std::pair<int, std::string>> lines;
    EXPECT_TRUE(support::waitUntil([&] { return !(lines = takeSyslog()).empty(); }));
    GST_OBJECT_UNLOCK(bin.get());
    another.join();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(tail(lines[0].second), " 'the bin': the text\n");
}

TEST_F(SyslogTest, AnObjectMayBeRenamedMeanwhile) {
    constexpr std::size_t rounds = 20000;
    std::atomic<bool> done{false};
    std::thread renaming([&] {
        for (unsigned i = 0; !done; ++i)
            gst_object_set_name(bin.get(), std::string(1 + i % 200, 'a').c_str());
    });
    for (std::size_t i = 0; i < rounds; ++i)
        log(bin.get());
    done = true;
    renaming.join();
    EXPECT_EQ(takeSyslog().size(), rounds);
    // The memory of the old name may be gone for good when it is looked at.
    const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* gone = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(gone, MAP_FAILED);
    char* const name = std::exchange(bin.get()->name, static_cast<char*>(gone));
    EXPECT_EQ(logged(bin.get()), " '': the text\n");
    bin.get()->name = name;
    munmap(gone, size);
}

// The process-wide start, in a process whose log nobody reads yet.
TEST(BackendStart, SaysWhatItDidOnce) {
    gst_debug_set_threshold_for_name("uvapluginloader", GST_LEVEL_INFO);
    takeSyslog();
    std::vector<std::string> said;
    const auto count = [&said](const std::string& text) {
        for (const auto& [priority, line] : takeSyslog()) {
            EXPECT_EQ(priority, LOG_INFO) << line;
            said.push_back(line);
        }
        return std::count_if(said.begin(), said.end(), [&](const std::string& line) {
            return line.find("<gst:uvapluginloader>") != std::string::npos &&
                   line.find(text) != std::string::npos;
        });
    };
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(BackendInit(nullptr));
    EXPECT_TRUE(support::waitUntil([&] { return count("gst main loop started") == 1; }));
    rlimit queues{};
    getrlimit(RLIMIT_MSGQUEUE, &queues);
    EXPECT_EQ(count("RLIMIT_MSGQUEUE stays as it is: "), queues.rlim_cur == RLIM_INFINITY ? 0 : 1);
    EXPECT_EQ(count("Processing cfgfile"), 0) << "there is none";
}

} // namespace
