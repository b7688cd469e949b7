#include "runtime.h"

#include "nox/screen.h"
#include "uva/uva_drm_backend.h"

#include <chrono>
#include <cstdlib>
#include <future>

namespace uva_native {

namespace {

constexpr auto patience = std::chrono::seconds(5);       // with an answer
constexpr auto pageTick = std::chrono::milliseconds(10); // a page looks at the position that often
constexpr host::SourceId sourcesOfAPlayer = 1024;        // more than a page can add

class NoObserver final : public host::Observer {
public:
    void onRecord(const host::Record& /*record*/) override {}
    void onStatus(const host::Status& /*status*/) override {}
    void onSeek(const host::SeekResult& /*result*/) override {}
};

host::BackendLibrary::Loaded loadOn(host::EventLoop& loop) {
    std::promise<host::BackendLibrary::Loaded> loaded;
    loop.post([&loaded] { loaded.set_value(host::BackendLibrary::load("")); });
    return loaded.get_future().get();
}

} // namespace

Runtime& Runtime::instance() {
    static auto* const runtime = new Runtime; // never destroyed: the library's threads go on
    return *runtime;
}

Runtime::Runtime()
    : m_loop(std::make_shared<host::EventLoop>()),
      m_clearKey(std::make_shared<host::ClearKey>(host::ClearKey::Interface::FullSample)),
      m_loaded(loadOn(*m_loop)), m_keys(m_clearKey) {
    UVA_OfferDRMBackend(host::clearKeySystem, m_clearKey.get());
}

host::CapabilityAnswer Runtime::canPlayType(const std::string& type) {
    const auto description = host::parseContentType(type);
    if (!description)
        return {false, "it is no content type"};
    if (library() == nullptr)
        return {false, error()};
    static NoObserver nobody;
    const std::lock_guard<std::mutex> lock(m_askMutex);
    if (m_asker == nullptr)
        m_asker = std::make_unique<host::MediaElement>(library(), m_loop, nobody, elementOptions());
    auto answer = m_asker->canPlayType(*description);
    if (answer.wait_for(patience) != std::future_status::ready)
        return {false, "the backend did not answer; see the system log"};
    return answer.get();
}

host::MediaElement::Options Runtime::elementOptions() {
    host::MediaElement::Options options;
    options.userAgent = "uva-web";
    options.tick = pageTick;
    options.firstSource = m_players++ * sourcesOfAPlayer + 1;
    options.noProgress = std::chrono::milliseconds(0); // the page decides how long it waits
    options.mainSystem = std::getenv("NOX_GST_STANDALONE") == nullptr;
    options.pictures = [](host::SourceId source) {
        const auto counted = nox::Screen::instance().counters(source);
        return host::PictureCounters{counted.shown, counted.dropped, counted.corrupted};
    };
    return options;
}

} // namespace uva_native
