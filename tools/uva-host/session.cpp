#include "session.h"

#include "host/backend_library.h"
#include "host/event_loop.h"
#include "host/media_uri.h"
#include "output_file.h"
#include "pipeline_graph.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace uvahost {

namespace {

std::unique_ptr<Display> makeDisplay(const Options& options, const Terminal& terminal) {
    if (options.quiet)
        return std::make_unique<SilentDisplay>();
    if (terminal.isLive())
        return std::make_unique<LiveDisplay>(true);
    return std::make_unique<LogDisplay>();
}

} // namespace

Session::Session(Options options) : m_options(std::move(options)) {}

Session::~Session() = default;

int Session::run() {
    if (!findMedia() || !checkOutputs())
        return m_exitCode;
    if (!m_options.graph.empty())
        m_graph = std::make_unique<PipelineGraph>();

    auto loaded = host::BackendLibrary::load(m_options.backend);
    if (loaded.library == nullptr) {
        fail(loaded.error);
        return m_exitCode;
    }
    Signals signals;
    Terminal terminal;
    Timeline timeline;
    const auto display = makeDisplay(m_options, terminal);
    Stage stage{m_options,
                signals,
                terminal,
                *display,
                timeline,
                std::move(loaded.library),
                std::make_shared<host::EventLoop>()};
    playAll(stage);
    writeOutputs(timeline);
    checkLog();
    return m_exitCode;
}

bool Session::findMedia() {
    for (const auto& name : m_options.media) {
        auto media = host::toMediaUri(name);
        if (!media.error.empty())
            fail(printable(name) + ": " + media.error);
        m_uris.push_back(std::move(media.uri));
    }
    return m_exitCode == 0;
}

bool Session::checkOutputs() {
    for (const auto* path : {&m_options.snapshot, &m_options.graph, &m_options.timeline}) {
        if (path->empty())
            continue;
        if (const auto error = whyNotWritable(*path); !error.empty())
            fail(error);
    }
    return m_exitCode == 0;
}

void Session::playAll(Stage& stage) {
    for (std::size_t i = 0; i < m_uris.size(); ++i) {
        const auto& name = m_options.media[i];
        Playback playback(stage, name, i + 1 == m_uris.size());
        auto result = playback.play(m_uris[i]);
        if (!result.error.empty())
            fail(printable(name) + ": " + result.error);
        if (!result.snapshot.rgba.empty())
            m_snapshot = std::move(result.snapshot);
        if (result.signal != 0)
            m_exitCode = 128 + result.signal;
        m_abandoned = result.abandoned;
        if (result.quit || result.signal != 0 || m_abandoned)
            return;
    }
}

void Session::writeOutputs(const Timeline& timeline) {
    std::string error;
    if (!m_snapshot.rgba.empty()) {
        const auto png = host::encodePng(m_snapshot, error);
        if (error.empty())
            error = writeFile(m_options.snapshot, png);
        if (!error.empty())
            fail(error);
    }
    if (m_graph != nullptr)
        if (error = m_graph->writeTo(m_options.graph); !error.empty())
            fail(error);
    if (!m_options.timeline.empty())
        if (error = writeFile(m_options.timeline, timeline.text()); !error.empty())
            fail(error);
}

/// A reader that went away (`| head`) has seen what it wanted; a disk that is full is an error.
void Session::checkLog() {
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    if ((!flushed || std::ferror(stdout) != 0) && errno != EPIPE && errno != 0)
        fail(std::string("cannot write the log to standard output: ") + std::strerror(errno));
}

void Session::fail(const std::string& text) {
    std::fprintf(stderr, "uva-host: %s\n", text.c_str());
    if (m_exitCode == 0)
        m_exitCode = 1;
}

} // namespace uvahost
