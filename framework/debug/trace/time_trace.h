#ifndef TIME_TRACE_H
#define TIME_TRACE_H

#include <cstdint>
#include <ctime>
#include <memory>

/// Records labelled time points on the monotonic clock and prints the differences between them: it
/// measures where time goes in a start-up or a playback step. Recording allocates and formats
/// nothing.
///
/// Bound to one thread at a time. Two threads that use one object at once show as points labelled
/// "--- THREAD COLLISION ---". Labels are not copied and must outlive the object.
///
/// Functions that return a number return 0 or one of the error codes; what went wrong is traced
/// under the object's unit, at the object's level but never below TRACELEVEL_ERROR, provided the
/// unit lets errors through.
class CTimeTrace {
public:
    static constexpr int32_t errorRangeStart = -2550;
    static constexpr int32_t errorRangeEnd = -2551;
    static constexpr int32_t errorIllegalRange = -2552;
    static constexpr int32_t errorStartId = -2554;
    static constexpr int32_t errorEndId = -2555;

    /// Room for 1000 points, or for `capacity` points. Without memory for them there is no room.
    CTimeTrace(int unit, int level);
    CTimeTrace(unsigned capacity, int unit, int level);
    virtual ~CTimeTrace() = default;
    CTimeTrace(const CTimeTrace&) = delete;
    CTimeTrace& operator=(const CTimeTrace&) = delete;

    /// Forgets all points.
    void InitTT();
    /// Forgets all points and records the start point, with id 0. Returns what the clock returned.
    int32_t StartTT(const char* text);
    /// Records the next point. Does nothing when there is no room left.
    void TTPoint(int32_t id, const char* text);
    /// The index of the last recorded point.
    int32_t GetTTSize() const { return m_lastIndex; }

    /// `b` - `a`.
    static timespec TTDiffTime(timespec a, timespec b);
    ///@{
    /// From the start point to the last point, and to now.
    timespec TTDiffTimeTotal() const;
    timespec TTDiffTimeTotalCurrent() const;
    ///@}

    ///@{
    /// The time between two points, by index or by the first point that has the id. An end beyond
    /// the capacity means the last point there is room for.
    int32_t TTGetRange(timespec* out, int32_t start, int32_t end) const;
    int32_t TTGetIdRange(timespec* out, int32_t startId, int32_t endId) const;
    ///@}

    ///@{
    /// Prints one line for each point, or one line for a range.
    void TTPrint() const;
    int32_t TTPrintRange(int32_t start, int32_t end) const;
    int32_t TTPrintIdRange(int32_t startId, int32_t endId, const char* text1,
                           const char* text2) const;
    ///@}

private:
    struct Point {
        int32_t id;
        const char* text;
        timespec time;
    };

    int32_t record(int32_t index, int32_t id, const char* text);
    int32_t findId(int32_t id) const;
    int32_t fail(int32_t code, const char* format, ...) const __attribute__((format(printf, 3, 4)));

    const std::unique_ptr<Point[]> m_points;
    const int32_t m_capacity;
    int32_t m_lastIndex = 0;
    const int32_t m_unit;
    const int32_t m_level;
};

/// The time trace of the process, for whoever measures. Never destroyed.
extern CTimeTrace& timeTrace;

#endif
