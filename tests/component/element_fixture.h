#ifndef ELEMENT_FIXTURE_H
#define ELEMENT_FIXTURE_H

#include "host/backend_library.h"
#include "host/event_loop.h"
#include "host/media_element.h"

#include "support/wait_until.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include "fake_backend/fake_backend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <dlfcn.h>
#include <mutex>
#include <sstream>

using host::State;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = host::Clock;
using support::waitUntil;

/// Keeps all that an element reports, as one text and as it came.
class Recorder : public host::Observer {
public:
    void onRecord(const host::Record& record) override {
        const bool isEvent = record.kind == host::Record::Kind::Event;
        std::ostringstream text;
        text << (isEvent ? "!" : "") << record.name << "(" << std::boolalpha;
        for (const auto& argument : record.arguments) {
            if (argument.name == "result")
                text << ")=";
            else if (&argument != &record.arguments.front())
                text << ", ";
            std::visit([&](const auto& value) { text << value; }, argument.value);
        }
        tell(text.str() + (isEvent ? ")" : ""));
    }
    void onStatus(const host::Status& status) override {
        if (status.state != this->status().state)
            tell(std::string("-> ") + host::name(status.state));
        const std::lock_guard lock(m_mutex);
        m_status = status;
        ++m_statuses;
    }
    void onSeek(const host::SeekResult& result) override {
        std::ostringstream text;
        text << "seek to " << result.target << " " << host::name(result.outcome);
        tell(text.str());
    }
    void onKeyNeeded(host::SourceId source, const host::KeyBytes& id, double time) override {
        std::ostringstream text;
        text << "key " << int{id[0]} << " needed by " << source << " at " << time;
        tell(text.str());
    }
    void onStarved(host::SourceId source) override { tell(std::to_string(source) + " starved"); }
    void onFilled(host::SourceId source) override { tell(std::to_string(source) + " filled"); }
    void onEnd(double position) override {
        std::ostringstream text;
        text << "end at " << position;
        tell(text.str());
    }
    void tell(const std::string& text) {
        const std::lock_guard lock(m_mutex);
        m_told.push_back(text);
    }

    /// What was told since the last call, in order.
    std::string story(bool withEvents = true) {
        const std::lock_guard lock(m_mutex);
        std::string story;
        for (const auto& text : std::exchange(m_told, {}))
            if (withEvents || text[0] != '!')
                story += (story.empty() ? "" : "; ") + text;
        return story;
    }
    host::Status status() { return locked(m_status); }
    int statuses() { return locked(m_statuses); }

private:
    template <typename Value>
    Value locked(const Value& value) {
        const std::lock_guard lock(m_mutex);
        return value;
    }
    std::mutex m_mutex;
    std::vector<std::string> m_told;
    host::Status m_status;
    int m_statuses = 0;
};

/// An element on the fake backend, and on a clock that stands still until the test moves it.
class ElementTest : public testing::Test {
protected:
    static constexpr auto longBound = seconds(20);

    void SetUp() override {
        auto loaded = host::BackendLibrary::load(FAKE_BACKEND);
        ASSERT_NE(loaded.library, nullptr) << loaded.error;
        m_library = loaded.library;
        void* handle = dlopen(FAKE_BACKEND, RTLD_NOW | RTLD_NOLOAD);
        m_fake =
            reinterpret_cast<support::FakeControl* (*)()>(dlsym(handle, "fakeBackendControl"))();
        renew();
    }
    /// For one more element.
    void renew() {
        m_element.reset();
        EXPECT_EQ(m_fake->living, 0);
        m_fake->answers = std::make_unique<support::FakeAnswers>();
        m_callsBefore = m_fake->calls().size();
        m_recorder.onStatus({});
        m_recorder.story();
        m_element.emplace(m_library, m_loop, m_recorder, m_options);
    }

    /// All that was posted has been done, and what that posted.
    void settle() {
        for (int i = 0; i < 4; ++i) {
            std::promise<void> done;
            ASSERT_TRUE(m_loop->post([&] { done.set_value(); }));
            done.get_future().wait();
        }
    }
    void pass(Clock::duration time) {
        for (; time.count() > 0; time -= m_options.tick) {
            *m_now += m_options.tick.count();
            settle();
        }
    }
    /// The time it took, or that it was given.
    milliseconds passUntil(State state, milliseconds most = seconds(60)) {
        milliseconds passed(0);
        for (; passed < most && m_recorder.status().state != state; passed += m_options.tick)
            pass(m_options.tick);
        return passed;
    }
    bool waitForState(State state) {
        return waitUntil([&] { return m_recorder.status().state == state; });
    }
    void deliver(UVAEvent* event) {
        m_fake->client.load()->deliverEvent(event);
        settle();
    }
    void seek(double target) {
        m_element->seek(target);
        settle();
    }
    void answerSeek(SeekCompletedExEvent::SeekOutcome outcome) {
        deliver(new SeekCompletedExEvent(outcome));
    }
    void moveTo(double position) {
        m_fake->position = position;
        pass(m_options.tick);
    }

    std::vector<std::string> calls() {
        auto all = m_fake->calls();
        return {all.begin() + static_cast<std::ptrdiff_t>(m_callsBefore), all.end()};
    }
    std::ptrdiff_t called(const std::string& call) {
        const auto all = calls();
        return std::count(all.begin(), all.end(), call);
    }

    const std::shared_ptr<std::atomic<long long>> m_now =
        std::make_shared<std::atomic<long long>>(1000000); ///< milliseconds
    std::shared_ptr<const host::BackendLibrary> m_library;
    const std::shared_ptr<host::EventLoop> m_loop = std::make_shared<host::EventLoop>(
        [now = m_now] { return Clock::time_point(milliseconds(*now)); });
    support::FakeControl* m_fake = nullptr;
    std::size_t m_callsBefore = 0;
    host::MediaElement::Options m_options;
    Recorder m_recorder;
    std::optional<host::MediaElement> m_element;
};

#endif
