// A desktop shortcut bound to `ravletai --trigger`: from starting that process to the answer's
// start in the running program (the trigger reaching the interview, and the first chunk from a
// loopback backend), and the second process's own lifetime. The running program's side is the
// one it has: its single-instance socket, the launch arguments and the global key decisions.
// The second process is the real program, found next to this bench's build:
//   ./build/bench/command_action_bench
#include "LoopbackInterview.h"

#include "GlobalKeys.h"
#include "KeySource.h"
#include "LaunchArguments.h"
#include "SingleInstance.h"

#include <QProcess>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace {

using namespace bench;

constexpr int startCount = 100;

// Where no keys of other programs can be seen, as on a Wayland session without the portal.
class NoKeys final : public KeySource {
public:
    bool seesOtherPrograms() const override { return false; }
    std::optional<quint16> localKeyCode(quint32) const override { return std::nullopt; }
    void grabArrows(ArrowHandler) override {}
    void releaseArrows() override {}

protected:
    void setObserving(bool) override {}
};

double percentileMs(std::vector<qint64> values, double p)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : double(values[std::size_t(p * double(values.size() - 1))]) / 1e6;
}

void BM_TriggerCommandToAnswer(benchmark::State& state)
{
    QTemporaryDir runtime;
    LoopbackInterview interview;
    interview.settings.setAutoTriggerAIAnswers(false);
    NoKeys source;
    GlobalKeys keys(source);
    keys.attach(interview.vm, interview.settings, nullptr);
    keys.installKeyMonitors();
    SingleInstance instance(runtime.filePath(u"ravletai.socket"_s));
    if (!runtime.isValid() || !instance.listen()) {
        state.SkipWithError("no socket for the running instance");
        return;
    }
    QObject::connect(&instance, &SingleInstance::argumentsReceived, [&](const QStringList& arguments) {
        if (const auto action = LaunchArguments::findKeyAction(arguments))
            keys.performKeyAction(*action);
    });
    if (const char* failure = interview.startWithQuestion()) {
        state.SkipWithError(failure);
        return;
    }

    qint64 triggeredNs = 0, firstChunkNs = 0;
    QObject scope;
    QObject::connect(&interview.vm, &InterviewViewModel::isGeneratingAnswerChanged, &scope, [&] {
        if (triggeredNs == 0 && interview.vm.isGeneratingAnswer())
            triggeredNs = steadyNs();
    });
    QObject::connect(&interview.vm, &InterviewViewModel::aiAnswerHistoryChanged, &scope, [&] {
        const auto& history = interview.vm.aiAnswerHistory();
        if (firstChunkNs == 0 && !history.isEmpty() && !history.last().answer.isEmpty())
            firstChunkNs = steadyNs();
    });

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"XDG_RUNTIME_DIR"_s, runtime.path());
    std::vector<qint64> toTrigger, toChunk, lifetime;
    for (auto _ : state) {
        for (int k = 0; k < startCount; ++k) {
            triggeredNs = firstChunkNs = 0;
            qint64 endedNs = 0;
            QProcess second;
            second.setProcessEnvironment(environment);
            QObject::connect(&second, &QProcess::finished, [&] { endedNs = steadyNs(); });
            const qint64 startedNs = steadyNs();
            second.start(QStringLiteral(RAVLET_PROGRAM_PATH), {u"--trigger"_s});
            const bool finished = interview.waitUntil([&] { return interview.answered(k + 1) && endedNs != 0; });
            if (!finished || second.exitCode() != 0 || triggeredNs == 0 || firstChunkNs == 0) {
                state.SkipWithError("the command did not start an answer");
                return;
            }
            toTrigger.push_back(triggeredNs - startedNs);
            toChunk.push_back(firstChunkNs - startedNs);
            lifetime.push_back(endedNs - startedNs);
        }
    }
    state.counters["starts"] = double(toTrigger.size());
    state.counters["to_trigger_p50_ms"] = percentileMs(toTrigger, 0.50);
    state.counters["to_trigger_p95_ms"] = percentileMs(toTrigger, 0.95);
    state.counters["to_chunk_p95_ms"] = percentileMs(toChunk, 0.95);
    state.counters["lifetime_p50_ms"] = percentileMs(lifetime, 0.50);
    state.counters["lifetime_p95_ms"] = percentileMs(lifetime, 0.95);
}
BENCHMARK(BM_TriggerCommandToAnswer)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
