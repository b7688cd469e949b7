#ifndef SAMPLE_INTAKE_H
#define SAMPLE_INTAKE_H

#include "base/glib_lock.h"
#include "base/gst_ptr.h"

#include <gst/gst.h>

#include <memory>
#include <utility>
#include <vector>

class MediaSourceGroup;
class UVASample;
class UVAStreamConfig;

/// Reads the host's samples and wraps their payloads, without a copy. That runs the host's code:
/// callers hold no lock. Thread-safe.
class SampleIntake {
public:
    struct Sample {
        GstPtr<GstCaps> caps;     ///< of the sample; null: as before, or it has no buffer
        GstPtr<GstBuffer> buffer; ///< with its times and protection; null: it has no payload
        GstClockTime pts = GST_CLOCK_TIME_NONE;
        GstClockTime duration = GST_CLOCK_TIME_NONE;
    };
    struct Batch {
        std::vector<Sample> samples;
        std::size_t bytes = 0;
    };

    /// The group outlives the intake.
    explicit SampleIntake(MediaSourceGroup& group);
    ~SampleIntake();

    /// The samples of a null-terminated array, whose slots are cleared.
    Batch read(UVASample** slots) EXCLUDES(m_lock);

    /// Estimated from the durations of the first video samples: a fraction, 0/1 when they do not
    /// tell, 0/0 before.
    std::pair<int, int> frameRate() EXCLUDES(m_lock);

private:
    struct Format;
    /// What the samples of a batch have in common.
    struct Context;

    static Sample take(std::unique_ptr<UVASample> sample, Context& context);
    static void noteFormat(const UVAStreamConfig* config, Context& context);

    MediaSourceGroup& m_group;
    GLibMutex m_lock; // a leaf
    std::pair<int, int> m_frameRate GUARDED_BY(m_lock){0, 0};
    std::shared_ptr<const Format> m_format GUARDED_BY(m_lock); // of the sample before
};

#endif
