#include "backend/gstnox_backend.h"

#include "base/gstnox_debug.h"
#include "base/gstnox_time.h"
#include "uva/uva_event.h"

#include <algorithm>
#include <cmath>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

/// Truncates; what no signed 64-bit count can hold becomes the largest or smallest that it can.
gint64 toNanoseconds(double seconds) {
    const double nanoseconds = seconds * nanosecondsPerSecond;
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (!(nanoseconds < limit))
        return G_MAXINT64;
    if (nanoseconds < -limit)
        return G_MININT64;
    return static_cast<gint64>(nanoseconds);
}

} // namespace

bool GstNoxBackend::isDurationInitialized() {
    return m_facts.duration() != MediaFacts::durationUninitialized;
}

bool GstNoxBackend::isDurationUnknown() {
    return m_facts.duration() == MediaFacts::durationUnknown;
}

UVATime GstNoxBackend::getPosition() {
    if (!m_pipeline.element()) {
        GST_WARNING("***W: gst_element_query_position failed");
        return {-1.0, 1.0, UVATime::Timestamp(), -1.0};
    }
    if (const auto position = m_pipeline.position())
        m_seek.note(static_cast<guint64>(*position));
    const guint64 last = m_seek.position();
    GST_LOG("pos=%" GST_TIME_FORMAT, GST_TIME_ARGS(last));
    const double seconds = last == GST_CLOCK_TIME_NONE ? 0.0 : toSeconds(last);
    return {seconds, 1.0, UVATime::Timestamp(), seconds};
}

int GstNoxBackend::setPosition(double seconds) {
    const gint64 known = m_facts.duration();
    // The target is compared with the nanosecond count itself.
    const bool accepted =
        seconds >= 0.0 && std::isfinite(seconds) &&
        (known == MediaFacts::durationUninitialized || seconds <= static_cast<double>(known));
    const timeline::Span span("uva", "setPosition");
    span.with("seconds", seconds);
    if (!accepted) {
        GST_ERROR("***E: pos=%lf out of scope", seconds);
        m_seek.refuse();
        raiseEvent(new SeekCompletedExEvent(SeekCompletedExEvent::SeekOutcome::Failed),
                   GST_LEVEL_WARNING, "SeekOutcome::Failed");
        return 0;
    }
    const auto target = static_cast<guint64>(toNanoseconds(seconds));
    for (const auto& bin : m_sources.all())
        bin->closeForSeek();
    m_sources.waitForRequests(); // else one from before the seek came after its event
    m_seek.request(target);
    GST_DEBUG("pos=%" GST_TIME_FORMAT, GST_TIME_ARGS(target));
    raiseEvent(new CancelDataRequestsAsyncEvent(seconds), GST_LEVEL_DEBUG, "pos=%f", seconds);
    return 1;
}

void GstNoxBackend::completeSeek(const UVAAsyncEvent* event) {
    GstState state = GST_STATE_VOID_PENDING;
    {
        const GLibLock lock(m_lock);
        state = m_state;
    }
    GST_INFO("CancelDataRequestsAsync: pos=%" GST_TIME_FORMAT " (%f) state=%d",
             GST_TIME_ARGS(m_seek.position()),
             static_cast<const CancelDataRequestsAsyncEvent*>(event)->position, state);
    const Operation operation(*this);
    const auto target = m_seek.begin();
    if (!target)
        return;
    const bool done = seekPipeline(*target);
    m_seek.end(done);
    using Outcome = SeekCompletedExEvent::SeekOutcome;
    if (!done) {
        raiseEvent(new SeekCompletedExEvent(Outcome::Failed), GST_LEVEL_WARNING,
                   "SeekOutcome::Failed");
        return;
    }
    if (state == GST_STATE_PLAYING) {
        GST_WARNING("***W: force state transition");
        m_pipeline.setState(GST_STATE_PAUSED);
        m_pipeline.setState(GST_STATE_PLAYING);
    }
    raiseEvent(new SeekCompletedExEvent(Outcome::Succeeded), GST_LEVEL_DEBUG,
               "SeekOutcome::Succeeded");
}

/// One step for all media sources: none takes what belongs behind the seek before all have dropped
/// what belongs before it.
bool GstNoxBackend::seekPipeline(guint64 target) {
    if (!m_pipeline.element())
        return false;
    const auto sources = m_sources.all();
    for (const auto& bin : sources)
        bin->closeForSeek(); // one may have been attached meanwhile
    m_sourceGroup.forgetStart();
    for (const auto& bin : sources)
        bin->beginSeek();
    const bool done = m_pipeline.seek(target);
    const MediaSources::Visit visit(m_sources, MediaSources::Visit::Request);
    for (const auto& bin : sources)
        if (bin->endSeek())
            askForData(bin->id());
    return done;
}

int GstNoxBackend::getDuration(double& seconds) {
    if (!isDurationInitialized()) {
        const auto queried = m_pipeline.duration();
        if (!queried)
            return NotAvailable;
        changeDuration(static_cast<double>(*queried) / nanosecondsPerSecond);
    }
    const gint64 known = m_facts.duration();
    GST_LOG("m_duration=%" GST_TIME_FORMAT, GST_TIME_ARGS(forLog(known)));
    seconds = static_cast<double>(known) / nanosecondsPerSecond;
    return Success;
}

void GstNoxBackend::changeDuration(double seconds) {
    m_facts.growDuration(toNanoseconds(seconds));
}

int GstNoxBackend::setContentSize(unsigned int id, unsigned long long milliseconds) {
    const double seconds = static_cast<double>(milliseconds) / 1000.0;
    GST_DEBUG("id=%u duration=%lf m_duration=%" GST_TIME_FORMAT, id, seconds,
              GST_TIME_ARGS(forLog(m_facts.duration())));
    changeDuration(seconds);
    return Success;
}

int GstNoxBackend::getSeekableTimeRanges(ByteRange** /*bytes*/, TimeRange**& ranges) {
    const gint64 known = m_facts.duration();
    if (known == MediaFacts::durationUninitialized) {
        ranges = new TimeRange* [1] { nullptr };
        return Success;
    }
    // The end is the nanosecond count itself.
    ranges = new TimeRange* [2] { new TimeRange{0.0, static_cast<double>(known)}, nullptr };
    return Success;
}

int GstNoxBackend::getBufferedTimeRanges(unsigned int id, const std::vector<ByteRange>& /*bytes*/,
                                         std::vector<TimeRange>& ranges) {
    GST_LOG("id=%d", static_cast<int>(id));
    if (!m_sources.all().empty()) {
        if (const auto bin = m_sources.find(id))
            for (const TimeRange& range : bin->bufferedRanges(m_seek.position())) {
                GST_LOG("  buffered: [%" GST_TIME_FORMAT ",%" GST_TIME_FORMAT "]",
                        GST_TIME_ARGS(static_cast<guint64>(toNanoseconds(range.start))),
                        GST_TIME_ARGS(static_cast<guint64>(toNanoseconds(range.end))));
                ranges.push_back(range);
            }
        return Success;
    }
    constexpr double lookAhead = 50.0; // seconds
    const gint64 known = m_facts.duration();
    const auto position = m_pipeline.position();
    if (!position || known == MediaFacts::durationUninitialized)
        return NotAvailable;
    const double end = std::min(static_cast<double>(*position) / nanosecondsPerSecond + lookAhead,
                                static_cast<double>(known));
    ranges.push_back({0.0, end});
    GST_LOG("  buffered: 0 - %f", end);
    return Success;
}

int GstNoxBackend::getPlaybackSpeedRanges(std::vector<SpeedRange>& ranges) {
    GST_DEBUG("[1.0, 1.0]");
    ranges.push_back({1.0, 1.0});
    return Success;
}
