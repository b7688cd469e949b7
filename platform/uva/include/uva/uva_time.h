#ifndef UVA_TIME_H
#define UVA_TIME_H

/// A playback position together with the moment at which it was taken. A plain value.
class UVATime {
public:
    UVATime(double positionSeconds, double playbackRate, double timestampSeconds,
            double mediaPositionSeconds)
        : position(positionSeconds), rate(playbackRate), timestamp(timestampSeconds),
          mediaPosition(mediaPositionSeconds) {}

    /// Seconds of the host's monotonic clock, comparable between all positions of one process.
    /// Thread-safe.
    static double Timestamp();

    double position;      ///< seconds on the element's timeline; negative: no position
    double rate;          ///< speed of the timeline, 1.0 is normal
    double timestamp;     ///< Timestamp() when the position was read
    double mediaPosition; ///< seconds on the media's own timeline
};

#endif
