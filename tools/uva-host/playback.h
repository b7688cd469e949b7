#ifndef UVA_HOST_PLAYBACK_H
#define UVA_HOST_PLAYBACK_H

#include "common/offer.h"
#include "common/signals.h"
#include "display.h"
#include "host/media_element.h"
#include "inbox.h"
#include "options.h"
#include "script/script.h"
#include "script/script_state.h"
#include "terminal.h"
#include "timeline.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace uvahost {

/// The signal of scripts that tells of a seek's end.
constexpr const char* seekSignal = "SeekResult";

class Playback;

/// What the playbacks of one run share.
struct Stage {
    const Options& options;
    tools::Signals& signals;
    Terminal& terminal;
    Display& display;
    Timeline& timeline;
    std::shared_ptr<const host::BackendLibrary> library;
    std::shared_ptr<host::EventLoop> loop;
    std::shared_ptr<host::ClearKey> keys; ///< null: none was named
    const std::optional<CompiledScript>& script;
    Playback* scripted = nullptr; ///< what the script is about, while it runs
};

/// Plays one piece of media, from the request of its backend to the release. Bound to the program's
/// own thread.
class Playback {
public:
    struct Result {
        std::string error;      ///< empty: it went well
        std::string requests;   ///< what is wrong with those for samples; empty: each was answered
        int signal = 0;         ///< the one that ended it
        bool quit = false;      ///< the user has had enough
        bool abandoned = false; ///< the backend hangs; the event loop cannot be used any more
        host::Picture snapshot; ///< empty when none was asked for
    };

    /// `last`: the one that the snapshot is taken of.
    Playback(Stage& stage, std::string name, bool last);

    /// What is played: a URI, or samples.
    using Media = std::variant<std::string, host::MediaSource>;
    Result play(Media media);

    // What a script orders.
    host::MediaElement& element() { return m_element; }
    /// The number of the seek.
    std::uint64_t requestSeek(double target);
    void act(Key key);
    ScriptValue describe() const;

private:
    enum class Stop { None, Ended, Elapsed, Failed, Quit, Signal, Scripted };

    void begin(Media media);
    bool isPlaying() const { return m_status.state == host::State::Playing; }
    host::Clock::duration played() const;
    void runScript();
    void turn(host::Clock::time_point deadline);
    void wait(host::Clock::time_point deadline);
    void takeMessages();
    void takeRecords();
    void take(const host::Record& record);
    void take(const host::Status& status);
    void take(const host::SeekResult& answer);
    void take(const KeyNeeded& key);
    void deliverKeys();
    void checkDetaches();
    void takeKeys();
    void takeSignals();
    void suspend();
    void step(double seconds);
    void nextSeek();
    void checkTimes();
    void snapshot();
    void fail(std::string reason);
    void stop(Stop reason);
    void finish();
    std::string faultOfRequests() const;
    std::string summary(double playedFor, long held) const;

    Stage& m_stage;
    const std::string m_name;
    const bool m_wantSnapshot;
    const tools::Offer m_picture; // of the screen; not open when another has the name
    Inbox m_inbox;
    host::MediaElement m_element; // behind the inbox, which must outlive it
    KeyDecoder m_keys;
    bool m_keyboard = true; // until its end was read

    host::Status m_status;
    ScriptState m_state{"playback"};        // as scripts see it
    host::Clock::duration m_playedBefore{}; // spent playing, up to m_status.time
    bool m_hasStarted = false;
    std::deque<double> m_seeksLeft;       // which begin then
    std::optional<double> m_seekFromList; // the one under way
    int m_seeksOpen = 0;

    std::vector<Detach> m_detachesLeft;
    std::optional<host::Clock::time_point> m_keysDue;

    Stop m_stop = Stop::None;
    Result m_result;
};

} // namespace uvahost

#endif
