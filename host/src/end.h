#ifndef HOST_END_H
#define HOST_END_H

#include "progress_watch.h"

namespace host {

class Playback;
class Seek;

/// How playback ends: with the media, or where it does not get on.
///
/// The bus of the backend is not flushed by a seek, so behind one an end may be the old one. Then
/// something is still to move. The new one is where the media ends, as far as that is known, or
/// where something was played behind the seek; and nothing moves any more.
class End {
public:
    End(Playback& playback, Seek& seek, ProgressWatch& watch)
        : m_playback(playback), m_seek(seek), m_watch(watch) {}

    void see(); ///< the backend tells of one
    void forget() { m_seen = false; }
    /// Ends playback if the one that was seen counts.
    void consider();
    /// This phase has lasted too long.
    void standStill(Phase phase);

    ProgressWatch::Place place() const;

private:
    bool isPlausible() const;
    void reach();

    Playback& m_playback;
    Seek& m_seek;
    ProgressWatch& m_watch;
    bool m_seen = false;
};

} // namespace host

#endif
