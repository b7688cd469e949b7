#include "session.h"

#include "gst_errors.h"
#include "host/backend_library.h"
#include "host/capability_query.h"
#include "host/event_loop.h"
#include "host/media_uri.h"
#include "media_source.h"
#include "output_file.h"
#include "pipeline_graph.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

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

/// With a delay they come when they are missed.
std::shared_ptr<host::ClearKey> makeKeys(const Options& options) {
    if (options.keys.empty())
        return nullptr;
    using Interface = host::ClearKey::Interface;
    auto keys = std::make_shared<host::ClearKey>(options.fullSampleDecrypter ? Interface::FullSample
                                                                             : Interface::PerRange);
    if (!options.keyDelay)
        for (const auto& pair : options.keys)
            keys->addKey(pair);
    return keys;
}

/// A question is no playback: what the backend has to tell is of no interest.
class DeafClient final : public UVAClient {
public:
    void deliverEvent(UVAEvent* event) override { delete event; }
};

} // namespace

Session::Session(Options options) : m_options(std::move(options)) {}

Session::~Session() = default;

int Session::run() {
    if (!findMedia() || !partOutput() || !checkOutputs())
        return m_exitCode;
    if (!m_options.graph.empty())
        m_graph = std::make_unique<PipelineGraph>();
    const GstErrors errors;

    auto loaded = host::BackendLibrary::load(m_options.backend);
    if (loaded.library == nullptr) {
        fail(loaded.error);
        return m_exitCode;
    }
    if (m_options.canPlay || m_options.listTypes)
        return answerQuestions(*loaded.library);
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
                std::make_shared<host::EventLoop>(),
                makeKeys(m_options)};
    if (m_options.mse)
        playSource(stage);
    else
        playAll(stage);
    writeOutputs(timeline);
    checkLog();
    return m_exitCode;
}

int Session::answerQuestions(const host::BackendLibrary& library) {
    std::vector<std::string> types;
    host::CapabilityAnswer answer;
    {
        DeafClient client;
        auto* backend = library.request(UVABackend::VideoElement, &client);
        if (backend == nullptr) {
            fail("the library gave no backend; its own message above says why");
            return m_exitCode;
        }
        if (m_options.listTypes)
            types = host::supportedTypes(*backend);
        if (m_options.canPlay)
            answer = host::askCanPlay(*backend, *m_options.canPlay);
        library.release(backend);
    }
    for (const auto& type : types)
        std::fprintf(m_output.stream(), "%s\n", type.c_str());
    if (m_options.canPlay) {
        std::fprintf(m_output.stream(), "%s\n",
                     answer.canPlay ? "yes" : ("no: " + answer.reason).c_str());
        m_exitCode = answer.canPlay ? 0 : 1;
    }
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
    for (const auto& change : m_options.switches)
        if (const auto media = host::toMediaUri(change.name); !media.error.empty())
            fail(printable(change.name) + ": " + media.error);
    return m_exitCode == 0;
}

/// The library's own lines are not wanted by the quiet, nor among answers.
bool Session::partOutput() {
    const bool answers = m_options.canPlay || m_options.listTypes;
    if (!m_options.quiet && !answers)
        return true;
    const auto others = m_options.quiet ? OwnOutput::Others::Nowhere : OwnOutput::Others::ToErrors;
    if (const auto error = m_output.send(others); !error.empty())
        fail(error);
    return m_exitCode == 0;
}

bool Session::checkOutputs() {
    for (const auto* path : {&m_options.snapshot, &m_options.graph, &m_options.timeline}) {
        if (path->empty())
            continue;
        if (const auto error = whyNotWritable(m_output.pathOf(*path)); !error.empty())
            fail(error);
    }
    return m_exitCode == 0;
}

void Session::playAll(Stage& stage) {
    for (std::size_t i = 0; i < m_uris.size(); ++i) {
        const auto& name = m_options.media[i];
        Playback playback(stage, name, i + 1 == m_uris.size());
        if (!take(playback.play(m_uris[i]), name))
            return;
    }
}

/// All that is named is one piece of media.
void Session::playSource(Stage& stage) {
    std::string name;
    for (const auto& part : m_options.media)
        name += (name.empty() ? "" : " + ") + part;
    if (stage.keys != nullptr)
        UVA_OfferDRMBackend(host::clearKeySystem, stage.keys.get());
    {
        Playback playback(stage, name, true);
        take(playback.play(makeMediaSource(m_options, stage.keys)), name);
    }
    UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
}

/// Whether the run goes on.
bool Session::take(Playback::Result result, const std::string& name) {
    if (!result.error.empty())
        fail(printable(name) + ": " + result.error);
    if (!result.snapshot.rgba.empty())
        m_snapshot = std::move(result.snapshot);
    if (result.signal != 0)
        m_exitCode = 128 + result.signal;
    m_abandoned = result.abandoned;
    return !result.quit && result.signal == 0 && !m_abandoned;
}

void Session::writeOutputs(const Timeline& timeline) {
    std::string error;
    if (!m_snapshot.rgba.empty()) {
        const auto png = host::encodePng(m_snapshot, error);
        if (error.empty())
            error = writeFile(m_output.pathOf(m_options.snapshot), png);
        if (!error.empty())
            fail(error);
    }
    if (m_graph != nullptr)
        if (error = m_graph->writeTo(m_output.pathOf(m_options.graph)); !error.empty())
            fail(error);
    if (!m_options.timeline.empty())
        if (error = writeFile(m_output.pathOf(m_options.timeline), timeline.text()); !error.empty())
            fail(error);
}

/// A reader that went away (`| head`) has seen what it wanted; a disk that is full is an error.
void Session::checkLog() {
    errno = 0;
    const bool flushed = std::fflush(m_output.stream()) == 0;
    if ((!flushed || std::ferror(m_output.stream()) != 0) && errno != EPIPE && errno != 0)
        fail(std::string("cannot write the log to standard output: ") + std::strerror(errno));
}

void Session::fail(const std::string& text) {
    std::fprintf(stderr, "uva-host: %s\n", text.c_str());
    if (m_exitCode == 0)
        m_exitCode = 1;
}

} // namespace uvahost
