#ifndef CHAOS_SET_H
#define CHAOS_SET_H

#include "host/backend_library.h"
#include "player.h"

#include <cstdio>
#include <memory>
#include <string>

/// What stands around the players: the library, the clip, the main system.
namespace chaos {

const std::shared_ptr<const host::BackendLibrary>& library();
Player::Habits url(milliseconds latest = milliseconds(8)); ///< plays a clip
Player::Habits fed(milliseconds latest = milliseconds(8)); ///< with the samples of the same

/// Another process, which obeys commands and writes down each signal.
class MainSystem {
public:
    MainSystem();
    ~MainSystem();
    void say(const std::string& command);
    /// Returns once it has done all that it was told.
    void untilObeyed() const;
    /// How often a signal has passed: "-> 519" to the library, "<- 520" from it.
    static int count(const std::string& signal);

private:
    const std::unique_ptr<FILE, int (*)(FILE*)> m_commands;
    int m_said = 0;
};

/// No main system: sinks need no decoder. Before the first player.
void playStandalone();

/// How many pictures of these times (seconds) have been shown.
int picturesShown(double from, double to);

/// The samples of players that are gone are gone as well, each once.
void requireNoSamples();

} // namespace chaos

#endif
