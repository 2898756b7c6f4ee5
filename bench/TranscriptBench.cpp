// Transcript assembly over a simulated three-hour interview, and the cost of one redraw of the
// live view as the transcript grows.
#include "Clock.h"
#include "TranscriptManager.h"

#include <benchmark/benchmark.h>

#include <vector>

using namespace std::chrono_literals;
using Speaker = TranscriptEntry::Speaker;

namespace {

constexpr qint64 interviewMs = 3 * 60 * 60 * 1000;
constexpr qint64 partialEveryMs = 200; // 5 partials a second on each channel
constexpr qint64 finalEveryMs = 2000;
constexpr qint64 turnMs = 20'000; // speakers take turns; a turn ends with a gap > 5 s

struct Step {
    qint64 atMs;
    TranscriptSegment segment;
};

std::vector<Step> simulatedInterview()
{
    std::vector<Step> steps;
    const QString words = QStringLiteral("so tell me about a time you handled a difficult production incident");
    for (qint64 t = 0; t < interviewMs; t += partialEveryMs) {
        const auto active = (t / turnMs) % 2 == 0 ? Speaker::interviewer : Speaker::user;
        const auto other = active == Speaker::interviewer ? Speaker::user : Speaker::interviewer;
        const auto length = 8 + (t / partialEveryMs) % 50;
        steps.push_back({t, {words.left(length), false, active, t, std::nullopt}});
        steps.push_back({t, {QString(), false, other, t, std::nullopt}}); // the silent channel
        if (t % finalEveryMs == 0)
            steps.push_back({t, {words, true, active, t, 0.93}});
    }
    return steps;
}

void BM_ProcessSegmentThreeHourInterview(benchmark::State& state)
{
    const auto steps = simulatedInterview();
    for (auto _ : state) {
        ManualClock clock(0);
        TranscriptManager manager(clock);
        for (const auto& step : steps) {
            if (step.atMs > clock.nowMs())
                clock.advance(std::chrono::milliseconds(step.atMs - clock.nowMs()));
            benchmark::DoNotOptimize(manager.processSegment(step.segment));
        }
        state.counters["entries"] = double(manager.entries().size());
    }
    state.counters["segments"] = double(steps.size());
    state.counters["time_per_segment"] = benchmark::Counter(
        double(steps.size()), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ProcessSegmentThreeHourInterview)->Unit(benchmark::kMillisecond);

void BM_DisplayedEntries(benchmark::State& state)
{
    ManualClock clock(0);
    TranscriptManager manager(clock);
    for (int64_t i = 0; i < state.range(0); ++i) {
        manager.processSegment({QStringLiteral("an answer of some length"), true,
                                i % 2 ? Speaker::user : Speaker::interviewer, i, std::nullopt});
        manager.closeAllActiveEntries();
    }
    manager.processSegment({QStringLiteral("still talking"), false, Speaker::interviewer, 0, std::nullopt});
    manager.processSegment({QStringLiteral("me too"), false, Speaker::user, 0, std::nullopt});
    for (auto _ : state)
        benchmark::DoNotOptimize(manager.displayedEntries());
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_DisplayedEntries)->RangeMultiplier(10)->Range(10, 100'000)->Complexity();

} // namespace

BENCHMARK_MAIN();
