// What tracing costs its callers: a dropped trace against one relaxed load and a branch, a queued
// trace against the same line through spdlog's asynchronous logger. Processor time of the caller.

#include "bench_support.h"
#include "debug/trace/zant_trace_core.h"
#include "debug/trace/zant_trace_thread.h"
#include "timeline/timeline.h"

#include <memory>
#include <spdlog/async.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <thread>

namespace {

constexpr unsigned unit = 7;

/// Lines a turn: the ring takes them all, and so does spdlog's queue.
constexpr int lines = 1000;
constexpr size_t spdlogQueue = 8192;

int32_t plainThreshold = TRACELEVEL_WARNING;

/// Nanoseconds of this thread that one call takes; the argument counts the calls.
template <typename What>
double nanosecondsEach(int count, What what) {
    const auto calls = [&] {
        for (int i = 0; i < count; ++i)
            what(i);
    };
    return bench::processorSeconds(calls, CLOCK_THREAD_CPUTIME_ID) / count * 1e9;
}

/// What follows may change it, as far as the compiler knows.
void escape(int& value) {
    asm volatile("" : "+r"(value));
}

void dropped() {
    constexpr int count = 100000;
    bench::compare(
        "trace_dropped", bench::share(501),
        [] {
            return nanosecondsEach(count, [](int channel) {
                ZANT_TRACE(unit, TRACELEVEL_DEBUG, "channel %d\n", channel);
                escape(channel);
            });
        },
        [] {
            return nanosecondsEach(count, [](int channel) {
                const int threshold = __atomic_load_n(&plainThreshold, __ATOMIC_RELAXED);
                if (__builtin_expect(TRACELEVEL_DEBUG >= threshold, 0))
                    std::printf("channel %d\n", channel);
                escape(channel);
            });
        });
}

/// A point and a span of the time line while nobody records.
template <typename What>
void unrecorded(const char* row, What what) {
    constexpr int count = 100000;
    bench::compare(
        row, bench::share(501),
        [&] {
            return nanosecondsEach(count, [&](int channel) {
                what(channel);
                escape(channel);
            });
        },
        [] {
            return nanosecondsEach(count, [](int channel) {
                if (__builtin_expect(__atomic_load_n(&plainThreshold, __ATOMIC_RELAXED) < 0, 0))
                    std::printf("channel %d\n", channel);
                escape(channel);
            });
        });
}

void unrecordedPoint() {
    unrecorded("timeline_point", [](int channel) {
        if (timeline::isOn())
            timeline::instant("bench", "point").with("channel", channel);
    });
}

void unrecordedSpan() {
    unrecorded("timeline_span", [](int channel) {
        const timeline::Span span("bench", "span");
        span.with("channel", channel);
    });
}

void queued() {
    const auto pool = std::make_shared<spdlog::details::thread_pool>(spdlogQueue, 1);
    const auto logger = std::make_shared<spdlog::async_logger>(
        "trace", std::make_shared<spdlog::sinks::null_sink_mt>(), pool,
        spdlog::async_overflow_policy::block);
    logger->set_pattern("[%t] %v");
    bench::compare(
        "trace_queued", bench::share(501),
        [] {
            const double each = nanosecondsEach(lines, [](int i) {
                ZANT_TRACE(unit, TRACELEVEL_ERROR, "queue %s: message %d of %d taken\n",
                           "/Q_RECEIVER", i, lines);
            });
            zantTraceThread.ClearTraceBuffer();
            return each;
        },
        [&] {
            const double each = nanosecondsEach(lines, [&](int i) {
                logger->error("queue {}: message {} of {} taken", "/Q_RECEIVER", i, lines);
            });
            while (pool->queue_size() > 0)
                std::this_thread::yield();
            return each;
        });
}

} // namespace

int main(int argc, char** argv) {
    zantTrace.SetTraceModeDirectPrint(0);
    return bench::run(argc, argv,
                      {{"dropped", dropped},
                       {"queued", queued},
                       {"unrecorded_point", unrecordedPoint},
                       {"unrecorded_span", unrecordedSpan}});
}
