#include "messaging/timer/time_out_timer.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/pointer_tokens.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue/zant_msg_queue.h"
#include "messaging/timer/time_out_server.h"
#include "util/cancellation_block.h"

#include <cmath>
#include <sys/time.h>

using pointer_tokens::Kind;

namespace {

uint32_t firstTimerId() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(now.tv_usec);
}

} // namespace

TimeOutTimer::TimeOutTimer(double expiryMs, unsigned long signal, int queue, long info)
    : timerId(firstTimerId()), timerObjPtr(this), m_word(pointer_tokens::put(this, Kind::timer)),
      m_isOriginal(true) {
    SetTimer(expiryMs, signal, queue, info);
}

TimeOutTimer::TimeOutTimer(const TimeOutTimer& other)
    : queueId(other.queueId), expiryTime(other.expiryTime), state(other.state),
      signalName(other.signalName), timerId(other.timerId), timerObjPtr(other.timerObjPtr),
      measure(other.measure), addExpiryInfo(other.addExpiryInfo), m_word(other.m_word),
      m_isOriginal(false) {}

TimeOutTimer::~TimeOutTimer() {
    if (m_isOriginal && m_word != 0)
        pointer_tokens::take(m_word, Kind::timer);
}

void TimeOutTimer::SetTimer(double expiryMs, unsigned long signal, int queue, long info) {
    // What is not a number is never due, and would keep every timer before it from its turn.
    expiryTime = std::isnan(expiryMs) ? 0 : expiryMs;
    signalName = static_cast<uint32_t>(signal);
    queueId = queue;
    addExpiryInfo = static_cast<int32_t>(info);
}

void TimeOutTimer::StartTimer() {
    if (queueId <= 0) {
        ZANT_TRACE_STREAM(TRACEUNIT_TIMER, TRACELEVEL_ERROR,
                          "TimeOutTimer::StartTimer() - Timer destination queue not set - this = "
                              << this << '\n');
        return;
    }
    // The one server thread would wait in a full queue, and every other timer with it.
    if (QueueTypeIsBlocking(queueId)) {
        ZANT_TRACE_STREAM(TRACEUNIT_TIMER, TRACELEVEL_ERROR,
                          "TimeOutTimer::StartTimer() - Timer destination queue blocks: open it "
                          "with O_NONBLOCK - this = "
                              << this << " Queue = " << queueId << '\n');
        return;
    }
    measure.start();
    state = running;
    ZANT_TRACE_STREAM(TRACEUNIT_TIMER, TRACELEVEL_INFO,
                      "TimeOutTimer::StartTimer() - this = " << this << " Timer-Id = " << timerId
                                                             << " Queue = " << queueId
                                                             << " Signal = " << signalName << '\n');
    TimeOutServer::instance().AddTimer(*this);
}

void TimeOutTimer::StartTimer(double expiryMs, unsigned long signal, int queue, long info) {
    SetTimer(expiryMs, signal, queue, info);
    StartTimer();
}

void TimeOutTimer::StopTimer() {
    ++timerId;
    state = idle;
    ZANT_TRACE_STREAM(TRACEUNIT_TIMER, TRACELEVEL_INFO,
                      "TimeOutTimer::StopTimer()  - this = " << this << '\n');
}

void TimeOutTimer::StartMeasurement() {
    measure.start();
    state = running;
}

bool TimeOutTimer::TimerIsValid(const CZantMsg* msg) {
    if (!msg)
        return false;
    const auto oldTimerId = static_cast<uint32_t>(msg->responseInfo);
    ZANT_TRACE_STREAM(TRACEUNIT_TIMER, TRACELEVEL_INFO,
                      "TimeOutTimer::TimerIsValid()  - this = " << this << " Timer-Id = " << timerId
                                                                << " Old-Timer-Id = " << oldTimerId
                                                                << '\n');
    if (oldTimerId != timerId)
        return false;
    state = idle;
    return true;
}

double TimeOutTimer::GetRemainingTime() {
    return expiryTime - measure.getElapsedTimeInMilliSec();
}

double TimeOutTimer::GetElapsedTime() {
    return measure.getElapsedTimeInMilliSec();
}

double TimeOutTimer::GetElapsedTimeInMicroSec() {
    return measure.getElapsedTimeInMicroSec();
}

CZantMsg TimeOutTimer::expiryMessage() const {
    CZantMsg msg(signalName);
    msg.responseInfo = static_cast<int32_t>(timerId);
    msg.responseInfo2 = static_cast<int32_t>(m_word);
    msg.param2 = addExpiryInfo;
    return msg;
}

double TimeOutTimer::deadlineInMicroSec() const {
    return measure.startInMicroSec() + expiryTime * 1000;
}

bool TimerIsValid(const CZantMsg* msg) {
    if (!msg || msg->responseInfo2 == 0)
        return false;
    void* const named =
        pointer_tokens::find(static_cast<uint32_t>(msg->responseInfo2), Kind::timer);
    return named && static_cast<TimeOutTimer*>(named)->TimerIsValid(msg);
}
