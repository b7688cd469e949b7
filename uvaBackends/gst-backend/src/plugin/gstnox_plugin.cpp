#include "plugin/gstnox_plugin.h"

#include "UvaGstIfLink.h"
#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReceiver.h"
#include "backend/gstnox_backend.h"
#include "backend/gstnox_link.h"
#include "base/gst_ptr.h"
#include "config/cfg_file.h"
#include "cpucomm/tri_hidtv.h"
#include "cpucomm/trid_cpucomm.h"
#include "debug/shell/mshell.h"
#include "debug/shell/zant_dbg_mshell.h"
#include "debug/trace/zant_trace_core.h"
#include "messaging/queue/zant_msg_queue_mshell.h"
#include "messaging/thread/thread_object_mshell.h"
#include "plugin/gstnox_mshell.h"
#include "plugin/gstnox_syslog.h"
#include "script/script_mshell.h"
#include "state/framework_state.h"
#include "timeline/timeline.h"

#include <sys/resource.h>
#include <syslog.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

GstDebugCategory* loaderDebug = nullptr;

constexpr char debugRequestFile[] = "/tmp/GST_DEBUG";
constexpr int syslogFacility = LOG_LOCAL1;
constexpr unsigned int debugRequestInterval = 3; // seconds

std::atomic<bool> watchDebugRequests{false};

/// The link to the main system needs more queue memory than a process gets by default.
void ZantAppInit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_MSGQUEUE, &limit) != 0)
        return;
    limit.rlim_cur = RLIM_INFINITY;
    limit.rlim_max = RLIM_INFINITY;
    if (setrlimit(RLIMIT_MSGQUEUE, &limit) != 0)
        GST_CAT_INFO(loaderDebug, "RLIMIT_MSGQUEUE stays as it is: %s", g_strerror(errno));
}

/// The vendor's link to the main system's processor, until the process ends.
void openVendorLink() {
    TriHidtvRegMap();
    Trid_Util_CPUComm_Init(0);
    Trid_Util_CPUComm_Ready();
    std::atexit([] {
        Trid_Util_CPUComm_DeInit();
        TriHidtvRegUnmap();
    });
}

void startShell() {
    mshell.Init("zant_dbg_server_uva");
    mshell.StartThread("zant_mshell_uva", 0, 0);
    std::atexit([] { mshell.RemoveSocket(); });
    mshell.AddMshellInternalMshellCmds();
    AddZantMsgQueueMshellCmds();
    AddZantDbgMshellCmds();
    AddThreadObjectMshellCmds();
    AddStateMshellCmds();
    AddScriptMshellCmds();
    uva_add_mshell_commands();
}

/// The trace file wins; never both.
void runConfigurationFile() {
    CCfgFile reader;
    for (const char* path : {"/etc/tracesuva.cfg", "/etc/preinituva.cfg"}) {
        if (!reader.file_exist(path))
            continue;
        GST_CAT_LEVEL_LOG(loaderDebug, GST_LEVEL_NONE, nullptr, "Processing cfgfile: %s", path);
        reader.ReadCfgfile(path);
        return;
    }
}

void beginTimeline() {
    if (const std::string failure = timeline::begin(); !failure.empty())
        std::printf("<UVA> ***E: %s\n", failure.c_str());
}

/// The arbitration of the decoders with the main system. What can be played without goes on
/// without.
void startLink() {
    setUvaGstIfMedia(linkMedia);
    GstNoxBackend::setLink(uvaGstIfReceiver);
    const std::string failure = openUvaGstIfLink();
    if (failure.empty())
        return;
    // To the log whatever its level, and for whoever sits before a terminal and has no log.
    GST_CAT_LEVEL_LOG(loaderDebug, GST_LEVEL_NONE, nullptr, "***E: %s", failure.c_str());
    std::printf("<UVA> ***E: %s\n", failure.c_str());
}

/// Dispatches the default main context for the life of the process.
gpointer runMainLoop(gpointer /*unused*/) {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    GST_CAT_INFO(loaderDebug, "gst main loop started");
    g_main_loop_run(loop);
    GST_CAT_INFO(loaderDebug, "gst main loop stopped");
    g_main_loop_unref(loop);
    return nullptr;
}

/// First line of the request file without its newline; the file is gone afterwards.
std::array<char, 4096> takeDebugRequest() {
    std::array<char, 4096> line{};
    std::FILE* file = std::fopen(debugRequestFile, "re");
    if (file == nullptr)
        return line;
    if (std::fgets(line.data(), static_cast<int>(line.size()), file) == nullptr)
        line[0] = '\0';
    std::fclose(file);
    if (unlink(debugRequestFile) != 0)
        GST_CAT_WARNING(loaderDebug, "cannot delete %s: %s", debugRequestFile, g_strerror(errno));
    const std::size_t length = std::strlen(line.data());
    if (length > 0 && line[length - 1] == '\n')
        line[length - 1] = '\0';
    return line;
}

gpointer runDebugWatcher(gpointer /*unused*/) {
    while (watchDebugRequests) {
        const auto request = takeDebugRequest();
        if (request[0] != '\0') {
            g_print("*** set 'GST_DEBUG=%s'\n", request.data());
            gst_debug_set_threshold_from_string(request.data(), TRUE);
            g_setenv("GST_DEBUG", request.data(), TRUE);
        }
        sleep(debugRequestInterval);
    }
    return nullptr;
}

/// What is there once in a process, but for GStreamer itself, before it, and the threads.
void bringUp() {
    GST_DEBUG_CATEGORY_INIT(loaderDebug, "uvapluginloader", 0,
                            "The plugin loader for the media backend");
    createDebugCategories();
    zantTrace.Init("uvagst", syslogFacility);
    openlog("<UVA>", 0, syslogFacility);
    beginTimeline();
    gst_debug_remove_log_function(nullptr);
    gst_debug_add_log_function(gstLogToSyslog, nullptr, nullptr);
    watchDebugRequests = true;
    ZantAppInit();
    openVendorLink();
    startShell();
    runConfigurationFile();
    zantTrace.CheckAndStartTracingToFile("uva");
    startLink();
}

/// They are never joined. Nothing plays without the main loop: whoever asks again tries again.
bool startThreads(GError** error) {
    GThread* const loop = g_thread_try_new("gst_run", runMainLoop, nullptr, error);
    if (loop == nullptr)
        return false;
    g_thread_unref(loop);
    GError* failure = nullptr;
    GThread* const watcher = g_thread_try_new("gst_chk_dbg", runDebugWatcher, nullptr, &failure);
    const GErrorPtr reason(failure);
    if (watcher != nullptr)
        g_thread_unref(watcher);
    else
        GST_CAT_WARNING(loaderDebug, "***W: %s is not looked for: %s", debugRequestFile,
                        reason->message);
    return true;
}

bool isAccepted(UVABackend::UVABackendType type) {
    return type == UVABackend::VideoElement || type == UVABackend::AudioElement ||
           type == UVABackend::MediaObject;
}

} // namespace

bool BackendInit(GError** error) noexcept {
    static std::mutex mutex;
    static bool isUp = false, done = false; // guarded by mutex
    const std::lock_guard lock(mutex);
    if (done)
        return true;
    if (!gst_init_check(nullptr, nullptr, error))
        return false;
    if (!std::exchange(isUp, true))
        bringUp();
    done = startThreads(error);
    return done;
}

void BackendTerm() noexcept {
    watchDebugRequests = false;
    uvaGstIfLowerLayer.Term();
    uvaGstIfReceiver.Term();
}

UVAMediaBackend* UVA_RequestBackend(UVABackend::UVABackendType type, UVAClient* client) noexcept {
    std::printf("<UVA> %s() type=%d\n", "UVA_RequestBackend", static_cast<int>(type));
    if (!isAccepted(type))
        return nullptr;
    GError* failure = nullptr;
    if (BackendInit(&failure))
        return new GstNoxBackend(type, client);
    const GErrorPtr error(failure);
    if (error)
        std::printf("<UVA> ***E: cannot initialize the gst backend: %s (%d)\n", error->message,
                    error->code);
    else
        std::printf("<UVA> ***E: cannot initialize the gst backend (no error detail)\n");
    return nullptr;
}

bool UVA_ReleaseBackend(UVAMediaBackend* backend) noexcept {
    std::printf("<UVA> %s()\n", "UVA_ReleaseBackend");
    if (backend != nullptr)
        static_cast<GstNoxBackend*>(backend)->release();
    return true;
}
