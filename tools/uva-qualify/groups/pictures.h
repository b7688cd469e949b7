#ifndef UVA_QUALIFY_PICTURES_H
#define UVA_QUALIFY_PICTURES_H

#include "clip_player.h"
#include "finding.h"
#include "media/clips.h"

#include <optional>
#include <string>
#include <vector>

namespace qualify {

/// How pictures followed one another.
struct Sequence {
    int first = -1, last = -1; ///< numbers; -1: no picture could be read
    int missing = 0;           ///< between the lowest and the highest number
    int repeated = 0;
    int disordered = 0; ///< shown behind one with a higher number
    int unreadable = 0;
    std::string oddities; ///< the first of them, in words

    int faults() const { return repeated + disordered + unreadable; }
};

/// Of the pictures from one index on.
Sequence sequenceOf(const std::vector<SeenPicture>& pictures, std::size_t from = 0);

/// When the picture with this number was shown first; nothing: never.
std::optional<Clock::time_point> timeOf(const std::vector<SeenPicture>& pictures, int number);

/// The picture that is on screen at a time; null: none yet.
const SeenPicture* pictureAt(const std::vector<SeenPicture>& pictures, Clock::time_point time);

/// The longest time from one picture to the next, milliseconds, of those from one index on.
double longestGap(const std::vector<SeenPicture>& pictures, std::size_t from = 0);

/// Milliseconds from picture to picture, over seconds since the first.
Series intervalsOf(const std::vector<SeenPicture>& pictures, const char* title);

/// Media time less time passed since the first picture that playback did not stand at, milliseconds
/// over seconds, of those from one index on.
Series paceOf(const std::vector<SeenPicture>& pictures, std::size_t from = 0);
/// The value that is furthest from 0; 0: there is none.
double worstOf(const Series& series);

/// The number of the picture that is on screen at a time of the clip.
int numberAt(const Clip& clip, double seconds);

/// Waits for the picture with this number, as long as others come, and counts those before it that
/// were not shown. Where not every picture is seen, all or none.
int unseen(Player& player, const Stage& stage, int number);

/// Of the first so many seconds, those whose pulse was not heard just once.
int unheard(const std::vector<HeardPulse>& pulses, int seconds);

double milliseconds(Clock::time_point from, Clock::time_point to);

/// The newest picture, with this caption.
std::vector<Evidence> evidenceOf(Watch& watch, const std::string& caption);

} // namespace qualify

#endif
