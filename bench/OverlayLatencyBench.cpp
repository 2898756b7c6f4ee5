// From the trigger key to the first frame on screen that shows the answer's first chunk: the
// key pressed through XTEST, seen by the program's X11 key source, the answer streamed by a
// loopback backend at once, and the overlay drawn as the program draws it. Needs an X display:
//   xvfb-run -s "-screen 0 1280x800x24" ./build/bench/overlay_latency_bench
#include "LoopbackInterview.h"

#include "GlobalKeys.h"
#include "OverlayViewModel.h"
#include "QmlShellWindows.h"
#include "X11KeySource.h"
#include "XTestKeyboard.h"

#include <QApplication>
#include <QQuickWindow>
#include <QTest>
#include <QtQml/qqmlextensionplugin.h>

#include <X11/keysym.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <vector>

Q_IMPORT_QML_PLUGIN(Ravlet_ShellPlugin)

namespace {

using namespace bench;

constexpr int pressCount = 200;
constexpr quint16 f5 = 96;

QCoro::Task<qsizetype> noResumes()
{
    co_return 1;
}

void BM_TriggerKeyToFirstFrameWithTheAnswer(benchmark::State& state)
{
    LoopbackInterview interview;
    auto& vm = interview.vm;
    interview.settings.setAutoTriggerAIAnswers(false);
    interview.settings.setAITriggerKey({f5, false, std::nullopt, u"F5"_s});
    OverlayViewModel overlay(OverlayViewModel::Services{vm, interview.settings, interview.strings,
                                                        interview.notifications, interview.clock,
                                                        [] { return noResumes(); }});
    ShellModels models;
    models.interview = &vm;
    models.settings = &interview.settings;
    models.strings = &interview.strings;
    models.overlay = &overlay;
    QmlShellWindows windows;
    windows.createPanel(ShellWindows::Panel::overlay, models);
    QQuickWindow* window = windows.quickWindow(ShellWindows::Panel::overlay);
    windows.show(ShellWindows::Panel::overlay);
    X11KeySource source;
    GlobalKeys keys(source);
    keys.attach(models, window);
    keys.installKeyMonitors();
    XTestKeyboard keyboard;
    if (!window || !QTest::qWaitForWindowExposed(window) || !source.seesOtherPrograms() || !keyboard.isOpen()) {
        state.SkipWithError("no X display with XInput 2 and XTEST");
        return;
    }
    if (const char* failure = interview.startWithQuestion()) {
        state.SkipWithError(failure);
        return;
    }

    // Stamped where the model appends the chunk; a frame whose scene was synchronised after
    // that shows it, whichever thread renders.
    std::atomic<qint64> firstChunkNs = 0;
    std::atomic<bool> frameCarriesChunk = false;
    std::atomic<qint64> swappedNs = 0;
    QObject::connect(&vm, &InterviewViewModel::aiAnswerHistoryChanged, &vm, [&] {
        if (firstChunkNs == 0 && !vm.aiAnswerHistory().isEmpty() && !vm.aiAnswerHistory().last().answer.isEmpty())
            firstChunkNs = steadyNs();
    });
    QObject::connect(
        window, &QQuickWindow::beforeSynchronizing, window,
        [&] { frameCarriesChunk = firstChunkNs != 0; }, Qt::DirectConnection);
    QObject::connect(
        window, &QQuickWindow::frameSwapped, window,
        [&] {
            if (frameCarriesChunk && swappedNs == 0)
                swappedNs = steadyNs();
        },
        Qt::DirectConnection);

    std::vector<qint64> latencies;
    std::vector<qint64> toChunk;
    latencies.reserve(pressCount);
    for (auto _ : state) {
        for (int k = 0; k < pressCount; ++k) {
            firstChunkNs = 0;
            frameCarriesChunk = false;
            swappedNs = 0;
            const qint64 pressedNs = steadyNs();
            keyboard.tap(XK_F5);
            const bool finished = waitUntil(vm, interview.backend, [&] { return interview.answered(k + 1); })
                && QTest::qWaitFor([&] { return swappedNs != 0; }, deadlineMs);
            if (!finished) {
                state.SkipWithError("an answer did not reach the screen");
                break;
            }
            latencies.push_back(swappedNs - pressedNs);
            toChunk.push_back(firstChunkNs - pressedNs);
        }
    }
    awaitTask(vm.stopInterview(), deadlineMs);

    const auto percentile = [](std::vector<qint64> values, double p) {
        std::sort(values.begin(), values.end());
        return values.empty() ? 0.0 : double(values[std::size_t(p * double(values.size() - 1))]) / 1e6;
    };
    state.counters["presses"] = double(latencies.size());
    state.counters["p50_ms"] = percentile(latencies, 0.50);
    state.counters["p95_ms"] = percentile(latencies, 0.95);
    state.counters["max_ms"] = percentile(latencies, 1.0);
    state.counters["chunk_p95_ms"] = percentile(toChunk, 0.95);
}
BENCHMARK(BM_TriggerKeyToFirstFrameWithTheAnswer)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    QmlShellWindows::prepareDrawing();
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
