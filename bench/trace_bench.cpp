// What tracing costs its callers: a dropped trace against one relaxed load and a branch, a queued
// trace against the same line through spdlog's asynchronous logger.

#include "debug/trace/zant_trace_core.h"
#include "debug/trace/zant_trace_thread.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <memory>
#include <spdlog/async.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

namespace {

constexpr unsigned unit = 7;

/// Lines a round: the ring takes them all, and so does spdlog's queue.
constexpr int linesPerRound = 1000;
constexpr size_t spdlogQueue = 8192;

int32_t plainThreshold = TRACELEVEL_WARNING;

void droppedTrace(benchmark::State& state) {
    int channel = 0;
    for (auto _ : state) {
        ZANT_TRACE(unit, TRACELEVEL_DEBUG, "channel %d\n", channel);
        benchmark::DoNotOptimize(++channel);
    }
}

void loadAndBranch(benchmark::State& state) {
    int channel = 0;
    for (auto _ : state) {
        if (__builtin_expect(TRACELEVEL_DEBUG >= __atomic_load_n(&plainThreshold, __ATOMIC_RELAXED),
                             0))
            printf("channel %d\n", channel);
        benchmark::DoNotOptimize(++channel);
    }
}

void queuedTrace(benchmark::State& state) {
    for (auto _ : state) {
        for (int i = 0; i < linesPerRound; ++i)
            ZANT_TRACE(unit, TRACELEVEL_ERROR, "queue %s: message %d of %d taken\n", "/Q_RECEIVER",
                       i, linesPerRound);
        state.PauseTiming();
        zantTraceThread.ClearTraceBuffer();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * linesPerRound);
}

void spdlogAsync(benchmark::State& state) {
    static const auto pool = std::make_shared<spdlog::details::thread_pool>(spdlogQueue, 1);
    static const auto logger = [] {
        auto made = std::make_shared<spdlog::async_logger>(
            "trace", std::make_shared<spdlog::sinks::null_sink_mt>(), pool,
            spdlog::async_overflow_policy::block);
        made->set_pattern("[%t] %v");
        return made;
    }();
    for (auto _ : state) {
        for (int i = 0; i < linesPerRound; ++i)
            logger->error("queue {}: message {} of {} taken", "/Q_RECEIVER", i, linesPerRound);
        state.PauseTiming();
        while (pool->queue_size() > 0)
            benchmark::ClobberMemory();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * linesPerRound);
}

} // namespace

BENCHMARK(droppedTrace);
BENCHMARK(loadAndBranch);
BENCHMARK(queuedTrace);
BENCHMARK(spdlogAsync);

int main(int argumentCount, char** arguments) {
    zantTrace.SetTraceModeDirectPrint(0);
    benchmark::Initialize(&argumentCount, arguments);
    if (benchmark::ReportUnrecognizedArguments(argumentCount, arguments))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
