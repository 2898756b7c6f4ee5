// What the client adds to an answer: from the trigger key (triggerAIAnswer) to the first chunk
// appended to the answer on screen, with the interviewer's words in the transcript and a
// loopback backend that streams the whole answer at once. The request goes through the real
// API client and its line reader; speech, audio and the transcript channel are stubbed, since
// they take no part in an answer.
#include "LoopbackInterview.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace {

using namespace bench;

constexpr int answerCount = 1'000;

void BM_TriggerToFirstAnswerChunk(benchmark::State& state)
{
    LoopbackInterview interview;
    auto& vm = interview.vm;
    if (const char* failure = interview.startWithQuestion()) {
        state.SkipWithError(failure);
        return;
    }

    // Stamped where the model appends the chunk, so the bench's own wake-up is not counted.
    qint64 firstChunkNs = 0;
    QObject::connect(&vm, &InterviewViewModel::aiAnswerHistoryChanged, &vm, [&] {
        if (firstChunkNs == 0 && !vm.aiAnswerHistory().isEmpty() && !vm.aiAnswerHistory().last().answer.isEmpty())
            firstChunkNs = steadyNs();
    });

    std::vector<qint64> latencies;
    latencies.reserve(answerCount);
    for (auto _ : state) {
        for (int k = 0; k < answerCount; ++k) {
            firstChunkNs = 0;
            const qint64 pressedNs = steadyNs();
            vm.triggerAIAnswer();
            // The answer ends and its log is saved before the next press, so nothing overlaps.
            const bool finished =
                interview.waitUntil([&] { return firstChunkNs != 0 && interview.answered(k + 1); });
            if (!finished) {
                state.SkipWithError("an answer did not arrive");
                break;
            }
            latencies.push_back(firstChunkNs - pressedNs);
        }
    }
    awaitTask(vm.stopInterview(), deadlineMs);

    std::sort(latencies.begin(), latencies.end());
    const auto percentile = [&](double p) {
        return latencies.empty() ? 0.0 : double(latencies[std::size_t(p * double(latencies.size() - 1))]) / 1000.0;
    };
    state.counters["answers"] = double(latencies.size());
    state.counters["p50_us"] = percentile(0.50);
    state.counters["p95_us"] = percentile(0.95);
    state.counters["max_us"] = percentile(1.0);
}
BENCHMARK(BM_TriggerToFirstAnswerChunk)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
