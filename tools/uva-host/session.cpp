#include "session.h"

#include "common/output_file.h"
#include "common/script.h"
#include "common/signals.h"
#include "gst_errors.h"
#include "host/backend_library.h"
#include "host/capability_query.h"
#include "host/event_loop.h"
#include "host/media_uri.h"
#include "host/sample.h"
#include "media_source.h"
#include "orders.h"
#include "timeline/timeline.h"
#include "util/printable.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include <csignal>
#include <cstdio>

namespace uvahost {

namespace {

Display::Style styleOf(const Options& options, const Terminal& terminal) {
    // A line that is rewritten, and the lines that a script logs, do not go together.
    const bool isLive = terminal.isLive() && options.script.empty();
    return options.quiet ? Display::Style::Silent
           : isLive      ? Display::Style::Live
                         : Display::Style::Log;
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

Session::Outcome Session::run() {
    findMedia();
    if (m_exitCode == 0)
        compileScript();
    if (m_exitCode == 0)
        partOutput();
    if (m_exitCode == 0)
        checkOutputs();
    if (m_exitCode == 0)
        useLibrary();
    return {m_exitCode, m_abandoned};
}

void Session::useLibrary() {
    if (!m_options.graph.empty())
        m_graph.emplace();
    hearGstErrors();
    auto loaded = host::BackendLibrary::load(m_options.backend);
    if (loaded.library == nullptr)
        return fail(loaded.error);
    if (asksOnly())
        answerQuestions(*loaded.library);
    else
        playMedia(std::move(loaded.library));
    failIf(tools::whyNotPrinted(m_output.stream()));
}

void Session::playMedia(std::shared_ptr<const host::BackendLibrary> library) {
    tools::Signals signals{SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGCONT, SIGWINCH};
    Terminal terminal;
    Timeline timeline;
    Display display(styleOf(m_options, terminal));
    Stage stage{m_options,
                signals,
                terminal,
                display,
                timeline,
                std::move(library),
                std::make_shared<host::EventLoop>(),
                makeKeys(m_options),
                m_script};
    if (m_script) {
        registerOrders(stage.scripted);
        auto names = host::eventNames();
        names.emplace_back(seekSignal);
        ScriptEvents::instance().nameSignals(names);
    }
    bool goesOn = true;
    do {
        goesOn = (m_options.mse ? playSource(stage) : playAll(stage)) && m_options.loop;
    } while (goesOn && m_exitCode == 0);
    writeOutputs();
}

void Session::answerQuestions(const host::BackendLibrary& library) {
    DeafClient client;
    auto* const backend = library.request(UVABackend::VideoElement, &client);
    if (backend == nullptr)
        return fail("the library gave no backend; its own message above says why");
    std::vector<std::string> lines;
    if (m_options.listTypes)
        lines = host::supportedTypes(*backend);
    if (m_options.canPlay) {
        const auto answer = host::askCanPlay(*backend, *m_options.canPlay);
        lines.push_back(answer.canPlay ? "yes" : "no: " + answer.reason);
        m_exitCode = answer.canPlay ? 0 : 1;
    }
    library.release(backend);
    for (const auto& line : lines)
        std::fprintf(m_output.stream(), "%s\n", line.c_str());
}

void Session::findMedia() {
    const auto find = [this](const std::string& name) {
        const auto media = host::toMediaUri(name);
        failIf(media.error.empty() ? "" : printable(name) + ": " + media.error);
        return media.uri;
    };
    for (const auto& name : m_options.media)
        m_uris.push_back(find(name));
    for (const auto& change : m_options.switches)
        find(change.name);
}

void Session::compileScript() {
    if (m_options.script.empty())
        return;
    auto compilation = tools::compileScript(m_options.script);
    failIf(compilation.error);
    if (!compilation.error.empty())
        m_exitCode = tools::usageError;
    m_script = std::move(compilation.script);
}

/// The library's own lines are not wanted by the quiet, nor among answers.
void Session::partOutput() {
    if (m_options.quiet)
        failIf(m_output.send(OwnOutput::Others::Nowhere));
    else if (asksOnly())
        failIf(m_output.send(OwnOutput::Others::ToErrors));
}

void Session::checkOutputs() {
    for (const auto* path : {&m_options.snapshot, &m_options.graph, &m_options.record})
        failIf(tools::whyNotWritable(m_output.pathOf(*path)));
    if (m_exitCode == 0) // it is begun with the looking
        failIf(m_options.timeline.empty() ? timeline::begin()
                                          : timeline::beginFile(m_options.timeline));
}

/// Whether the run goes on, like those below.
bool Session::playAll(Stage& stage) {
    for (std::size_t i = 0; i < m_uris.size(); ++i) {
        const auto& name = m_options.media[i];
        Playback playback(stage, name, i + 1 == m_uris.size());
        if (!take(playback.play(m_uris[i]), name))
            return false;
    }
    return true;
}

/// All that is named is one piece of media.
bool Session::playSource(Stage& stage) {
    std::string name;
    for (const auto& part : m_options.media)
        name += (name.empty() ? "" : " + ") + part;
    if (stage.keys != nullptr)
        UVA_OfferDRMBackend(host::clearKeySystem, stage.keys.get());
    bool goesOn = false;
    {
        Playback playback(stage, name, true);
        goesOn = take(playback.play(makeMediaSource(m_options, stage.keys)), name);
    }
    UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
    return !m_abandoned && isWithoutSamples() && goesOn;
}

/// With its release a backend has freed all samples that it was given.
bool Session::isWithoutSamples() {
    const auto left = host::Sample::living();
    failIf(left == 0 ? "" : "the backend never freed " + std::to_string(left) + " samples");
    return left == 0;
}

bool Session::take(Playback::Result result, const std::string& name) {
    for (const auto& wrong : {result.error, result.requests})
        failIf(wrong.empty() ? "" : printable(name) + ": " + wrong);
    if (!result.snapshot.rgba.empty())
        m_snapshot = std::move(result.snapshot);
    if (result.signal != 0)
        m_exitCode = 128 + result.signal;
    m_abandoned = result.abandoned;
    return !result.quit && result.signal == 0 && !m_abandoned;
}

void Session::writeOutputs() {
    const auto write = [this](const std::string& path, const std::string& bytes) {
        return tools::writeFile(m_output.pathOf(path), bytes);
    };
    if (!m_snapshot.rgba.empty()) {
        std::string error;
        const auto png = host::encodePng(m_snapshot, error);
        failIf(error.empty() ? write(m_options.snapshot, png) : error);
    }
    if (m_graph)
        failIf(m_graph->writeTo(m_output.pathOf(m_options.graph)));
    failIf(timeline::flush());
}

void Session::failIf(const std::string& error) {
    if (!error.empty())
        fail(error);
}

void Session::fail(const std::string& text) {
    std::fprintf(stderr, "uva-host: %s\n", text.c_str());
    if (m_exitCode == 0)
        m_exitCode = 1;
}

} // namespace uvahost
