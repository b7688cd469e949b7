#ifndef SUPPORT_MEDIA_HOST_H
#define SUPPORT_MEDIA_HOST_H

#include "support/wait_until.h"
#include "uva/uva_client.h"
#include "uva/uva_drm_backend.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"
#include "uva/uva_sample.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace support {

/// A client that keeps every event in the order of delivery. A hook may look at an event on the
/// thread that delivers it, before it is stored.
class RecordingClient : public UVAClient {
public:
    using Hook = std::function<void(UVAEvent&)>;

    explicit RecordingClient(Hook ask = nullptr) : hook(std::move(ask)) {}

    void deliverEvent(UVAEvent* event) override {
        std::unique_ptr<UVAEvent> owned(event);
        if (hook)
            hook(*owned);
        const std::lock_guard lock(m_mutex);
        m_events.push_back(std::move(owned));
    }

    std::vector<UVAEvent::Type> types() {
        const std::lock_guard lock(m_mutex);
        std::vector<UVAEvent::Type> types;
        for (const auto& event : m_events)
            types.push_back(event->type());
        return types;
    }

    int count(UVAEvent::Type type) {
        const auto all = types();
        return static_cast<int>(std::count(all.begin(), all.end(), type));
    }

    /// The newest event of the class, null when there is none. It lives until clear().
    template <typename Event>
    const Event* last() {
        const std::lock_guard lock(m_mutex);
        const Event* newest = nullptr;
        for (const auto& event : m_events)
            if (const auto* found = dynamic_cast<const Event*>(event.get()))
                newest = found;
        return newest;
    }

    void clear() {
        const std::lock_guard lock(m_mutex);
        m_events.clear();
    }

    Hook hook; ///< set before the backend can deliver

private:
    std::mutex m_mutex; // guards m_events
    std::vector<std::unique_ptr<UVAEvent>> m_events;
};

/// A source as a host describes it: the description owns its texts.
class TestSource : public UVABackend::SourceDescription {
public:
    /// Of a URL.
    explicit TestSource(std::string address, int sourceType = BackendStreaming)
        : m_text(std::move(address)) {
        type = sourceType;
        url = m_text.c_str();
        userAgent = "test-agent/1.0";
        mimeType = "video/mp4";
    }
    /// Of samples that the host feeds, and that it can seek in.
    TestSource(unsigned int id, std::string mime, unsigned long long milliseconds = 0)
        : m_text(std::move(mime)) {
        constexpr int seekable = 1;
        type = MseStreaming;
        sourceId = static_cast<int>(id);
        mimeType = m_text.c_str();
        streamType = seekable;
        durationMs = milliseconds;
    }

private:
    const std::string m_text;
};

/// A sample that says what its members hold. How many there are is counted.
class TestSample final : public UVASample {
public:
    static std::atomic<int>& alive() {
        static std::atomic<int> count{0};
        return count;
    }

    TestSample(double presentation, double length, const UVAStreamConfig* config,
               std::size_t size = 100)
        : bytes(size, 0x55), presented(presentation), decoded(presentation), lasts(length),
          stream(config) {
        ++alive();
    }
    ~TestSample() override {
        look();
        --alive();
    }

    const std::uint8_t* payload() const override {
        look();
        return bytes.empty() ? nullptr : bytes.data();
    }
    std::size_t payloadSize() const override { return bytes.size(); }
    double pts() const override { return presented; }
    double dts() const override { return decoded; }
    double duration() const override { return lasts; }
    const UVAStreamConfig* config() const override { return stream; }
    const std::uint8_t* keyId() const override { return key.empty() ? nullptr : key.data(); }
    std::size_t keyIdSize() const override { return key.size(); }
    const std::uint8_t* iv() const override { return vector.data(); }
    std::size_t ivSize() const override { return vector.size(); }
    const std::vector<Subsample>& subsamples() const override { return map; }

    std::vector<std::uint8_t> bytes, key;
    std::vector<std::uint8_t> vector = {1, 2, 3, 4, 5, 6, 7, 8};
    std::vector<Subsample> map;
    double presented, decoded, lasts; ///< seconds
    const UVAStreamConfig* stream;
    std::function<void()> onUse; ///< when the payload is asked for, and in the destructor

private:
    void look() const {
        if (onUse)
            onUse();
    }
};

/// Content protection whose answers are data, and which keeps a journal of what it is asked for.
class TestDrm final : public UVADRMBackend,
                      public UVADRMKeySlotGetter,
                      public UVADRMFullSampleDecrypter {
public:
    enum Call { Create, Release, GetInterface, GetSlot, Decrypt };
    enum Answer { Works, Refuses, MakesNone, Throws, ThrowsANumber };

    std::map<Call, Answer> answers; ///< the others work
    std::string answersFor;         ///< the first byte of the key that they hold for; empty: any
    int answersEvery = 1;           ///< so many samples a decrypter
    bool hasKeySlots = false, hasFullSample = false;
    std::uint8_t cipher = 0xFF;     ///< the bits that are turned in each byte
    std::atomic<bool> holds{false}; ///< a call to decrypt does not return
    std::atomic<int> created{0}, released{0}, decrypts{0};

    std::vector<std::string> takeJournal() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_journal, {});
    }

    int createDecrypter(UVADRMDecrypter*& decrypter, const std::uint8_t* keyId, std::size_t size,
                        std::uint64_t value) override {
        const std::string key(keyId, keyId + size);
        note("create " + key + " " + std::to_string(value));
        const auto answer = ask(Create, key);
        if (answer != Works)
            return answer == MakesNone ? 1 : 0;
        decrypter = new Decrypter(*this, key);
        ++created;
        return 1;
    }
    void releaseDecrypter(UVADRMDecrypter* decrypter) override {
        note("release");
        const auto key = static_cast<Decrypter*>(decrypter)->key;
        delete decrypter;
        ++released;
        ask(Release, key);
    }
    void* getInterface(const char* name) override {
        ask(GetInterface, answersFor);
        if (hasKeySlots && std::string_view(name) == UVADRMKeySlotGetter::interfaceName)
            return static_cast<UVADRMKeySlotGetter*>(this);
        if (hasFullSample && std::string_view(name) == UVADRMFullSampleDecrypter::interfaceName)
            return static_cast<UVADRMFullSampleDecrypter*>(this);
        return nullptr;
    }
    int getKeySlot(UVADRMDecrypter* decrypter, std::uint32_t& slot) override {
        const auto answer = ask(GetSlot, static_cast<Decrypter*>(decrypter)->key);
        slot = 42;
        return answer == Works ? 1 : 0;
    }
    int decrypt(UVADRMDecrypter* decrypter, const Sample& sample) override {
        std::string line =
            "whole of " + std::to_string(sample.size) + " iv " + std::to_string(sample.ivSize);
        for (const auto& range : sample.subsamples)
            line += " " + std::to_string(range.offset) + "+" + std::to_string(range.length);
        note(line);
        for (const auto& range : sample.subsamples)
            turn(sample.data + range.offset, sample.data + range.offset, range.length);
        return static_cast<Decrypter*>(decrypter)->answer();
    }

private:
    class Decrypter final : public UVADRMDecrypter {
    public:
        Decrypter(TestDrm& drm, std::string id) : key(std::move(id)), m_drm(drm) {}
        int decrypt(const Input& input, const Output& output) override {
            m_drm.note(std::to_string(input.size) +
                       (input.iv != nullptr ? " iv " + std::to_string(input.ivSize) : "") +
                       (input.first ? " first" : "") + (input.last ? " last" : "") +
                       (input.flag ? " flag" : ""));
            m_drm.turn(input.data, output.data, output.size);
            return answer();
        }
        int answer() {
            ++m_drm.decrypts;
            waitUntil([this] { return !m_drm.holds; });
            return ++m_count % m_drm.answersEvery != 0 || m_drm.ask(Decrypt, key) == Works ? 0 : 1;
        }
        const std::string key;

    private:
        TestDrm& m_drm;
        int m_count = 0;
    };

    void turn(const std::uint8_t* from, std::uint8_t* to, std::size_t size) const {
        std::transform(from, from + size, to, [this](std::uint8_t byte) {
            return static_cast<std::uint8_t>(byte ^ cipher);
        });
    }
    Answer ask(Call call, const std::string& key) {
        const auto found = answers.find(call);
        const bool holdsFor = answersFor.empty() || key.substr(0, 1) == answersFor;
        const Answer answer = found != answers.end() && holdsFor ? found->second : Works;
        if (answer == Throws)
            throw std::runtime_error("of the host");
        if (answer == ThrowsANumber)
            throw 42;
        return answer;
    }
    void note(std::string line) {
        const std::lock_guard lock(m_mutex);
        m_journal.push_back(std::move(line));
    }

    std::mutex m_mutex; // guards the journal
    std::vector<std::string> m_journal;
};

} // namespace support

#endif
