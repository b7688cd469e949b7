#ifndef MESSAGING_TIME_OUT_TIMER_H
#define MESSAGING_TIME_OUT_TIMER_H

#include "messaging/timer/timer.h"

#include <cstdint>

class CZantMsg;

/// Asks for a message to a queue when a time is up.
///
/// The timer belongs to the thread that reads the queue: that thread starts, stops, validates and
/// destroys it. A stopped timer's message may be on its way already, so the thread acts on a timer
/// message only when TimerIsValid says so. Messages that outlive their timer are harmless.
///
/// A copy stands for the same timer: its messages name the original.
class TimeOutTimer {
public:
    /// `expiryMs` milliseconds after a start, `signal` goes to the queue with this handle and
    /// carries `addExpiryInfo`.
    TimeOutTimer(double expiryMs, unsigned long signal, int queue, long addExpiryInfo);
    TimeOutTimer(const TimeOutTimer& other);
    TimeOutTimer& operator=(const TimeOutTimer&) = delete;
    virtual ~TimeOutTimer();

    /// What the constructor was given, anew. Does not start the time.
    void SetTimer(double expiryMs, unsigned long signal, int queue, long addExpiryInfo);
    ///@{
    /// Starts the time, with other values than before or the same. Without a queue (handle above 0)
    /// it does nothing. The server's thread must have been started for anything to arrive, see
    /// TimeOutServer.
    void StartTimer();
    void StartTimer(double expiryMs, unsigned long signal, int queue, long addExpiryInfo);
    ///@}
    /// Makes messages of earlier starts invalid; they still arrive.
    void StopTimer();
    /// Starts the time without a message.
    void StartMeasurement();
    /// True for the message of the current start; the timer has expired then.
    bool TimerIsValid(const CZantMsg* msg);

    /// Started, and neither stopped nor known to have expired.
    bool TimerIsRunning() const { return state == running; }
    /// In milliseconds, negative once due.
    double GetRemainingTime();
    /// Since the start, in milliseconds.
    double GetElapsedTime();
    /// Since the start, in microseconds.
    double GetElapsedTimeInMicroSec();

    ///@{
    /// What the timer was given, and what names it in messages.
    double GetExpiryTime() const { return expiryTime; }
    int32_t GetQueueId() const { return queueId; }
    uint32_t GetSignalName() const { return signalName; }
    uint32_t GetTimerId() const { return timerId; }
    TimeOutTimer* GetTimerObjPtr() const { return timerObjPtr; }
    int32_t GetAddExpiryInfo() const { return addExpiryInfo; }
    ///@}

    /// The message of an expiry.
    CZantMsg expiryMessage() const;
    /// When the time is up, in microseconds of the monotonic clock.
    double deadlineInMicroSec() const;

private:
    enum State : int32_t { idle = 1, running = 2 };

    int32_t queueId = 0;
    double expiryTime = 0;
    State state = idle;
    uint32_t signalName = 0;
    uint32_t timerId;
    TimeOutTimer* timerObjPtr;
    Timer measure;
    int32_t addExpiryInfo = 0;
    /// Stands for timerObjPtr in a message.
    uint32_t m_word;
    /// Not a copy.
    bool m_isOriginal;
};

/// As the named timer's TimerIsValid; false for a message that names no timer that still exists.
/// For the thread that the timer belongs to.
bool TimerIsValid(const CZantMsg* msg);

#endif
