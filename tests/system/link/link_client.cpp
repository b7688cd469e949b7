#include "UvaGstIfLink.h"
#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReceiver.h"
#include "cpucomm/trid_cpucomm.h"
#include "simulation.h"
#include "support/wait_until.h"

#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

// The plug-in's end of the link without a player: does what its arguments say, one after the other.
// Exit code 0 when all went as said, 1 with a line on standard error otherwise.

namespace {

using namespace std::chrono_literals;

struct Message {
    const char* name;
    std::map<std::string, std::string> texts;
    GstMessage* get() { return reinterpret_cast<GstMessage*>(this); }
};

class Media : public UvaGstIfMedia {
public:
    const char* name(GstMessage* message) override { return of(message).name; }
    int integer(GstMessage*, const char* field) override {
        return std::string(field) == "width" ? 1920 : 1080;
    }
    Fraction fraction(GstMessage*, const char*) override { return {16, 9}; }
    const char* text(GstMessage* message, const char* field) override {
        const auto found = of(message).texts.find(field);
        return found == of(message).texts.end() ? nullptr : found->second.c_str();
    }
    States states(GstElement*) override { return {}; }
    bool logs(Category, Level level) override { return level != Debug; }
    void log(Category, Level, const char*, const char*, int, const char* text) override {
        printf("log: %s\n", text);
    }

private:
    static Message& of(GstMessage* message) { return *reinterpret_cast<Message*>(message); }
};

/// Keeps the control texts.
class Backend final : public UvaGstIfBackend {
public:
    void controlCommands(const char* commands) override {
        const std::lock_guard lock(m_lock);
        m_texts.insert(commands);
    }
    bool heard(const std::string& text) {
        const std::lock_guard lock(m_lock);
        return m_texts.count(text) > 0;
    }

private:
    std::mutex m_lock;
    std::set<std::string> m_texts;
};

class Client {
public:
    Client() {
        setUvaGstIfMedia(&m_media);
        const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_MSGQUEUE, &unlimited);
        Trid_Util_CPUComm_Init(0);
        const std::string failure = openUvaGstIfLink();
        if (!failure.empty())
            fprintf(stderr, "link_client: %s\n", failure.c_str());
        uvaGstIfReceiver.connectBackend(&m_backend);
    }

    bool obey(const std::string& order) {
        const auto colon = order.find(':');
        const std::string verb = order.substr(0, colon);
        const std::string rest = colon == std::string::npos ? "" : order.substr(colon + 1);
        const auto found = orders().find(verb);
        return found != orders().end() && (this->*found->second)(rest);
    }

private:
    using Order = bool (Client::*)(const std::string&);

    static const std::map<std::string, Order>& orders() {
        static const std::map<std::string, Order> table = {
            {"granted", &Client::granted}, {"refused", &Client::refused},
            {"broken", &Client::broken},   {"give", &Client::give},
            {"has", &Client::has},         {"control", &Client::control},
            {"reports", &Client::reports}, {"clean", &Client::clean},
            {"request", &Client::request}};
        return table;
    }

    bool granted(const std::string& type) {
        return uvaGstIfReceiver.requestDecoder(type.c_str(), &m_requester);
    }
    bool refused(const std::string& type) { return !granted(type); }
    /// Asks until the main system is there.
    bool request(const std::string& type) {
        return support::waitUntil([&] { return granted(type); }, 60s);
    }
    bool broken(const std::string& type) {
        auto answer = std::async(std::launch::async, [&] { return granted(type); });
        const bool waits = support::waitUntil([] { return uvaGstIfReceiver.state().waiting == 1; });
        const auto before = std::chrono::steady_clock::now();
        uvaGstIfReceiver.breakWaits(m_requester);
        const bool refusedAtOnce = !answer.get();
        uvaGstIfReceiver.allowWaits(m_requester);
        return waits && refusedAtOnce && std::chrono::steady_clock::now() - before < 4s;
    }
    bool give(const std::string& type) {
        Message message{"GstNoxDecoderNeeded", {{"type", "-" + type}}};
        uvaGstIfReceiver.handleApplicationMessage(message.get(), &m_requester);
        return true;
    }
    /// In this order: release requested, used, available.
    bool has(const std::string& masks) {
        return support::waitUntil([&masks] {
            const auto now = uvaGstIfReceiver.state();
            return masks == std::to_string(now.releaseRequest) + std::to_string(now.used) +
                                std::to_string(now.available);
        });
    }
    bool control(const std::string& text) {
        return support::waitUntil([&] { return m_backend.heard(text); }, 60s);
    }
    bool reports(const std::string&) {
        Message video{"GstNoxVideoFormat", {}};
        Message audio{"GstNoxAudioFormat", {{"codec", "AC-3"}}};
        uvaGstIfReceiver.handleApplicationMessage(video.get());
        uvaGstIfReceiver.handleApplicationMessage(audio.get());
        const unsigned char window[8] = {0, 10, 0, 20, 7, 0x80, 4, 0x38};
        uvaGstIfLowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_SET_WINDOW_REQ, window, 8);
        return true;
    }
    bool clean(const std::string&) {
        return support::waitUntil([] { return cpucomm::statistics().blocks == 0; });
    }

    Media m_media;
    Backend m_backend;
    UvaGstIfRequester m_requester;
};

} // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 1024);
    auto& client = *new Client; // threads of the link use it until the end
    for (int i = 1; i < argc; ++i) {
        printf("client: %s\n", argv[i]);
        if (client.obey(argv[i]))
            continue;
        const auto now = uvaGstIfReceiver.state();
        fprintf(stderr, "link_client: '%s' failed; release requested %u, used %u, available %u\n",
                argv[i], now.releaseRequest, now.used, now.available);
        _exit(1);
    }
    uvaGstIfReceiver.connectBackend(nullptr);
    uvaGstIfLowerLayer.Term();
    uvaGstIfReceiver.Term();
    Trid_Util_CPUComm_DeInit();
    fflush(stdout);
    _exit(0);
}
