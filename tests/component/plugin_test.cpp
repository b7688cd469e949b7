// The built library as a host loads it: its entry points, and what a first request starts.

#include "support/media_host.h"
#include "support/no_threads.h"
#include "support/wait_until.h"

#include <dlfcn.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Request = UVAMediaBackend* (*)(unsigned int, UVAClient*);
using Release = bool (*)(UVAMediaBackend*);

/// Loaded once; it stays in the process anyway.
void* library() {
    static void* const handle = dlopen(std::getenv("UVA_BACKEND_LIBRARY"), RTLD_NOW | RTLD_LOCAL);
    return handle;
}

template <typename Function>
Function entry(const char* name) {
    return reinterpret_cast<Function>(dlsym(library(), name));
}

int threadsCalled(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string comm;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        count += comm == name;
    }
    return count;
}

class PluginTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(library(), nullptr) << dlerror(); }
    support::RecordingClient client;
};

// First, before anything else of this process has started the media system.
TEST_F(PluginTest, ARefusedTypeStartsNothing) {
    const auto request = entry<Request>("UVA_RequestBackend");
    ASSERT_NE(request, nullptr);
    for (const unsigned int type : {2U, 4U, 0x80000000U, ~0U})
        EXPECT_EQ(request(type, &client), nullptr) << type;
    EXPECT_EQ(threadsCalled("gst_run"), 0);
}

TEST_F(PluginTest, WithoutThreadsThereIsNoBackendUntilThereAreSome) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const auto request = entry<Request>("UVA_RequestBackend");
        std::optional<support::NoThreads> none(std::in_place);
        const bool isRefused = request(0, &client) == nullptr;
        none.reset();
        std::_Exit(isRefused && request(0, &client) != nullptr ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(PluginTest, RequestsStartTheProcessWideThreadsOnce) {
    const auto request = entry<Request>("UVA_RequestBackend");
    const auto release = entry<Release>("UVA_ReleaseBackend");
    ASSERT_NE(release, nullptr);
    const char* const debugRequest = "/tmp/GST_DEBUG"; // looked for at once, then now and then
    std::ofstream(debugRequest) << "uvabackend:2\n*:1\n";
    for (const unsigned int type : {0U, 1U, 3U, 3U}) {
        UVAMediaBackend* backend = request(type, &client);
        ASSERT_NE(backend, nullptr) << type;
        EXPECT_TRUE(release(backend));
    }
    EXPECT_TRUE(release(nullptr));
    // A thread takes its name itself, once it runs.
    for (const char* name : {"gst_run", "gst_chk_dbg"})
        EXPECT_TRUE(support::waitUntil([name] { return threadsCalled(name) == 1; })) << name;
    EXPECT_TRUE(support::waitUntil([=] {
        const char* now = std::getenv("GST_DEBUG");
        return !std::filesystem::exists(debugRequest) && now && now == std::string("uvabackend:2");
    }));
    EXPECT_TRUE(entry<bool (*)(void**)>("BackendInit")(nullptr));
    for (const char* name : {"gst_run", "gst_chk_dbg"})
        EXPECT_EQ(threadsCalled(name), 1) << name;
}

// By the host, and by the owner of a pipeline, who calls the member on the library's object.
TEST_F(PluginTest, WhatOthersCallIsFound) {
    for (const char* name :
         {"QRinput_new", "QRinput_append", "QRspec_getWidth", "MQRspec_getWidth", "BitStream_new",
          "uvaGstIfReceiver", "_ZN17CUvaGstIfReceiver23waitForDecoderAvailableEP11_GstElementPKc"})
        EXPECT_NE(dlsym(library(), name), nullptr) << name;
}

TEST_F(PluginTest, StaysLoaded) {
    dlclose(library());
    EXPECT_NE(dlopen(std::getenv("UVA_BACKEND_LIBRARY"), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

} // namespace
