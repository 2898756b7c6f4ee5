// Resident memory of the program over a simulated 30-minute interview with the overlay shown,
// the interview played 10 times faster than real time (about three minutes). Needs an X display:
//   xvfb-run -s "-screen 0 1280x800x24" ./build/bench/interview_memory_bench [--minutes N]
//
// Speech made once by espeak-ng (three questions of the interviewer, three answers of the user)
// loops on both channels and goes through the real path: AudioCaptureService fed float32
// 16 kHz blocks and MicrophoneService fed 48 kHz blocks through its libsamplerate converter,
// as the sound server's threads would feed them; Deepgram's recogniser over a real WebSocket;
// the interview model with its real transcript channel and API client; and the overlay, drawn
// by Qt Quick's software renderer. The interview asks for an answer after every question, about
// one every 30 s. Time runs on a manual clock advanced with the audio, so the interview sees the
// whole 30 minutes pass.
//
// The loopback vendor, backend and transcript channel server run in a second process (this
// program started with --loopback-servers), so what they record stays out of the figures; the
// figures do include the bench's own copy of the speech, about 2.5 MB, held from the start.
#include "APIClient.h"
#include "AppStrings.h"
#include "AudioCaptureService.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "core/InterviewHarness.h"
#include "FakeBackend.h"
#include "FakeTranscriptChannel.h"
#include "FakeVendorServer.h"
#include "InterviewAdapters.h"
#include "InterviewViewModel.h"
#include "MicrophoneService.h"
#include "NotificationCenter.h"
#include "OverlayViewModel.h"
#include "PreferencesStore.h"
#include "QmlShellWindows.h"
#include "RendererChoice.h"
#include "SpokenAudio.h"
#include "SyntheticAudioSources.h"
#include "UserSettings.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QSocketNotifier>
#include <QTest>
#include <QTimer>
#include <QtQml/qqmlextensionplugin.h>
#include <QWebSocket>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <span>
#include <vector>

Q_IMPORT_QML_PLUGIN(Ravlet_ShellPlugin)

namespace {

using namespace Qt::StringLiterals;

constexpr int speedUp = 10;
constexpr qint64 rate = 16000;
constexpr qint64 micRate = 48000;
// The system audio arrives in 100 ms blocks, as the capture records them; each block moves
// the clock on by as much.
constexpr qint64 blockMs = 100;
constexpr qint64 blockFrames = rate * blockMs / 1000;
constexpr qint64 pairMs = 30'000;
// espeak-ng's rate, which the vendor also hears words at.
constexpr int wordsPerMinute = 150;

struct Exchange {
    QString question;
    QString answer;
};

const Exchange exchanges[] = {
    {u"Tell me about a project you are proud of and what you did on it."_s,
     u"I led the rewrite of our billing service. The old system failed under load at the end of "
     u"every month. I split it into three services with a queue between them and moved customers "
     u"over in small groups. The monthly run went from six hours to forty minutes."_s},
    {u"How do you handle a disagreement with a colleague about a design?"_s,
     u"I ask us both to write down what we are optimising for, because most disagreements are "
     u"about goals rather than code. Then we compare the options against those goals, and if we "
     u"still disagree we build the smallest test that can settle it."_s},
    {u"What would you do in your first month on this team?"_s,
     u"I would read the last few incident reports, pair with each engineer on a real task, and "
     u"ship one small fix in the first week. By the end of the month I would like to own one "
     u"part of the system and know who to ask about the rest."_s},
};

// What the backend streams for every answer, in pieces of a few words.
const QString answerText =
    u"Start with the situation in one sentence: the billing service failed at every month end "
    u"and finance waited hours for invoices. Then say what you owned. You led the rewrite, so "
    u"name the decisions that were yours: splitting the service in three, putting a queue "
    u"between the parts, and moving customers over in small groups so that a fault touched few "
    u"of them. Give one detail that shows judgement, such as the group size you chose and why. "
    u"Close with the result in numbers, six hours down to forty minutes and no outage since, and "
    u"one sentence on what you would do differently, for example adding load tests before the "
    u"first group moved rather than after. Keep it under two minutes and stop there; let the "
    u"interviewer ask about the queue if they want the details."_s;

// One channel's audio over one loop of the script: speech at its offsets, silence between.
struct Track {
    struct Speech {
        qint64 start = 0; // in samples
        std::vector<qint16> pcm;
    };
    std::vector<Speech> speech;
    qint64 length = 0; // samples

    // The looped track from sample `from` on.
    void read(qint64 from, std::span<float> out) const
    {
        std::fill(out.begin(), out.end(), 0.0f);
        for (std::size_t k = 0; k < out.size(); ++k) {
            const qint64 at = (from + qint64(k)) % length;
            for (const auto& part : speech) {
                if (at >= part.start && at < part.start + qint64(part.pcm.size())) {
                    out[k] = float(part.pcm[std::size_t(at - part.start)]) / 32767.0f;
                    break;
                }
            }
        }
    }
};

struct Script {
    Track interviewer;
    Track user;
    std::vector<qint64> triggerMs; // within one loop
    qint64 loopMs = 0;
};

// The words the vendor hears on each channel, in the order they are spoken.
QStringList wordsOf(QString Exchange::*text)
{
    QStringList words;
    for (const auto& exchange : exchanges)
        words += (exchange.*text).split(u' ');
    return words;
}

std::vector<qint16> samplesOf(const QByteArray& pcm)
{
    std::vector<qint16> samples(std::size_t(pcm.size() / 2));
    std::memcpy(samples.data(), pcm.constData(), samples.size() * sizeof(qint16));
    return samples;
}

// Each question, then its answer, in a pair of 30 s (longer if the speech needs it); the answer
// is asked for half a second after the question ends.
std::optional<Script> makeScript()
{
    Script script;
    qint64 offsetMs = 0;
    const SpokenAudio::Voice voice{u"en"_s, wordsPerMinute};
    for (const auto& exchange : exchanges) {
        const auto question = SpokenAudio::speak(exchange.question, voice, 1.0);
        const auto answer = SpokenAudio::speak(exchange.answer, voice, 1.0);
        if (!question || !answer)
            return std::nullopt;
        const qint64 questionSamples = question->size() / 2;
        const qint64 answerSamples = answer->size() / 2;
        const qint64 start = offsetMs * rate / 1000;
        script.interviewer.speech.push_back({start, samplesOf(*question)});
        script.user.speech.push_back({start + questionSamples, samplesOf(*answer)});
        const qint64 questionEndMs = offsetMs + questionSamples * 1000 / rate;
        script.triggerMs.push_back((questionEndMs + 500) / blockMs * blockMs);
        const qint64 spokenMs = (questionSamples + answerSamples) * 1000 / rate;
        offsetMs += std::max(pairMs, (spokenMs / 1000 + 1) * 1000);
    }
    script.loopMs = offsetMs;
    script.interviewer.length = script.user.length = offsetMs * rate / 1000;
    return script;
}

// Deepgram's v2 listen socket as the interview hears it. Speech is where the level of the
// incoming audio is up; the vendor answers in audio time: the turn so far as a partial every
// 200 ms of speech, and as a final every two seconds of speech and when the speaker pauses. The
// words are the script's, at the rate they are spoken. The first socket is the interviewer's:
// the interview opens that channel first.
class ListeningVendor {
public:
    ListeningVendor(QStringList interviewerWords, QStringList userWords)
        : m_interviewerWords(std::move(interviewerWords))
        , m_userWords(std::move(userWords))
    {
        m_server.setBehaviour(FakeVendorServer::Behaviour::deepgramToday);
        m_server.setKeepsBinaryFrames(false);
        QObject::connect(
            &m_server, &FakeVendorServer::binaryFrameReceived, &m_server,
            [this](int connection, const QByteArray& bytes) { hear(connection, bytes); });
    }

    QString origin() const { return m_server.origin(); }
    int connectionCount() const { return m_server.connectionCount(); }
    int partialsSent = 0;
    int finalsSent = 0;

private:
    static constexpr qint64 partialEvery = rate / 5;
    static constexpr qint64 finalEvery = 2 * rate;
    static constexpr qint64 pauseLength = rate * 7 / 10;
    static constexpr qint64 samplesPerWord = rate * 60 / wordsPerMinute;
    // RMS in 16-bit units; espeak-ng's voiced frames are well above it, its silence is zero.
    static constexpr double speechLevel = 300;

    struct Listener {
        const QStringList* words = nullptr;
        qsizetype nextWord = 0;
        bool inSpeech = false;
        qint64 silence = 0;
        qint64 turn = 0;
        qint64 sincePartial = 0;
        QStringList heard;
    };

    void hear(int connection, const QByteArray& bytes)
    {
        auto& listener = m_listeners[connection];
        if (!listener.words)
            listener.words = connection == 0 ? &m_interviewerWords : &m_userWords;
        const qsizetype count = bytes.size() / 2;
        if (count == 0)
            return;
        const auto* samples = reinterpret_cast<const qint16*>(bytes.constData());
        double power = 0;
        for (qsizetype i = 0; i < count; ++i)
            power += double(samples[i]) * samples[i];
        if (std::sqrt(power / double(count)) >= speechLevel) {
            listener.inSpeech = true;
            listener.silence = 0;
        } else {
            if (listener.inSpeech) {
                listener.silence += count;
                if (listener.silence >= pauseLength) {
                    endTurn(connection, listener);
                    listener.inSpeech = false;
                }
            }
            return;
        }
        listener.turn += count;
        listener.sincePartial += count;
        while (listener.heard.size() <= listener.turn / samplesPerWord) {
            listener.heard.append(listener.words->at(listener.nextWord));
            listener.nextWord = (listener.nextWord + 1) % listener.words->size();
        }
        if (listener.sincePartial >= partialEvery) {
            listener.sincePartial = 0;
            send(connection, u"Update"_s, listener.heard.join(u' '));
            ++partialsSent;
        }
        if (listener.turn >= finalEvery)
            endTurn(connection, listener);
    }

    void endTurn(int connection, Listener& listener)
    {
        if (!listener.heard.isEmpty()) {
            send(connection, u"EndOfTurn"_s, listener.heard.join(u' '));
            ++finalsSent;
        }
        listener.heard.clear();
        listener.turn = 0;
        listener.sincePartial = 0;
    }

    void send(int connection, const QString& event, const QString& transcript)
    {
        const auto& socket = m_server.connections().at(connection).socket;
        if (!socket)
            return;
        const QJsonObject message{
            {u"type"_s, u"TurnInfo"_s}, {u"event"_s, event}, {u"transcript"_s, transcript}};
        socket->sendTextMessage(
            QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
    }

    FakeVendorServer m_server;
    QStringList m_interviewerWords;
    QStringList m_userWords;
    std::map<int, Listener> m_listeners;
};

QCoro::Task<qsizetype> noResumes()
{
    co_return 1;
}

// Fields of /proc/self/status in MB.
double statusMegabytes(const char* field)
{
    QFile status(u"/proc/self/status"_s);
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray key = QByteArray(field) + ':';
    for (const auto& line : status.readAll().split('\n')) {
        if (line.startsWith(key))
            return line.mid(key.size()).trimmed().split(' ').value(0).toDouble() / 1024.0;
    }
    return 0;
}

double heapInUseMegabytes()
{
    const auto info = mallinfo2();
    return double(info.uordblks + info.hblkhd) / (1024.0 * 1024.0);
}

int itemCount(const QQuickItem* item)
{
    int count = 1;
    for (const auto* child : item->childItems())
        count += itemCount(child);
    return count;
}

struct Sample {
    int minute = 0;
    double rssMb = 0;
    double heapMb = 0;
    qsizetype entries = 0;
    qsizetype answers = 0;
    int items = 0;
    double realSeconds = 0;
};

std::optional<int> minutesArgument(const QStringList& arguments)
{
    const auto at = arguments.indexOf(u"--minutes"_s);
    if (at < 0)
        return 30;
    bool ok = false;
    const int minutes = arguments.value(at + 1).toInt(&ok);
    if (!ok || minutes < 1)
        return std::nullopt;
    return minutes;
}

QList<QByteArray> answerPieces()
{
    QList<QByteArray> pieces{"data: {\"logId\":\"log-1\"}\n\n"};
    const auto words = answerText.split(u' ');
    for (qsizetype k = 0; k < words.size(); k += 5) {
        const auto chunk = words.mid(k, 5).join(u' ') + (k + 5 < words.size() ? u" "_s : QString());
        const QJsonObject content{{u"content"_s, chunk}};
        pieces.append("data: " + QJsonDocument(content).toJson(QJsonDocument::Compact) + "\n\n");
    }
    pieces.append("data: [DONE]\n\n");
    return pieces;
}

void setRoutes(FakeBackend& backend, const QString& vendorOrigin)
{
    backend.setRoute("GET", "/api/v1/subscription/status",
                     FakeBackend::Response::json(200, R"({"speechProvider":"deepgram"})"));
    backend.setRoute("POST", "/api/v1/interview/session",
                     FakeBackend::Response::json(
                         200, R"({"id":"session-1","languageInput":"en-US",)"
                              R"("languageOutput":"en","startedAt":"2024-05-01T10:00:00.000Z",)"
                              R"("status":"active"})"));
    const QJsonObject token{
        {u"provider"_s, u"deepgram"_s}, {u"token"_s, u"speech-1"_s}, {u"endpoint"_s, vendorOrigin}};
    backend.setRoute(
        "GET", "/api/v1/speech/token",
        FakeBackend::Response::json(200, QJsonDocument(token).toJson(QJsonDocument::Compact)));
    backend.setRoute("PUT", "/api/v1/interview/session/session-1",
                     FakeBackend::Response::json(200, "{}"));
    backend.setRoute("POST", "/api/v1/interview/session/session-1/transcript",
                     FakeBackend::Response::json(200, "{}"));
    backend.setRoute("PATCH", "/api/v1/chat/log/log-1", FakeBackend::Response::json(200, "{}"));
    // About 30 pieces 15 ms apart: some five seconds of interview for the whole answer.
    backend.setRoute("POST", "/api/v1/chat/answer",
                     FakeBackend::Response::stream(answerPieces(), 15));
}

// The child: prints "<backend origin> <channel base URL>" once listening, answers "report" on
// its input with "<partials> <finals> <sockets> <RSS MB>", and ends when its input closes.
int serveLoopback()
{
    ListeningVendor vendor(wordsOf(&Exchange::question), wordsOf(&Exchange::answer));
    FakeTranscriptChannel channelServer;
    FakeBackend backend;
    setRoutes(backend, vendor.origin());
    std::printf("%s %s\n", qPrintable(backend.origin()), qPrintable(channelServer.baseURL()));
    std::fflush(stdout);

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, &input, [&] {
        char bytes[256];
        const auto count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count <= 0) {
            input.setEnabled(false);
            QCoreApplication::quit();
            return;
        }
        pending.append(bytes, qsizetype(count));
        for (auto end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
            if (pending.left(end).trimmed() == "report") {
                std::printf("%d %d %d %.1f\n", vendor.partialsSent, vendor.finalsSent,
                            vendor.connectionCount(), statusMegabytes("VmRSS"));
                std::fflush(stdout);
            }
            pending.remove(0, end + 1);
        }
    });
    return QCoreApplication::exec();
}

// The servers' process, seen from the bench.
class LoopbackServers {
public:
    struct Report {
        int partials = 0;
        int finals = 0;
        int sockets = 0;
        double rssMb = 0;
    };

    LoopbackServers()
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QCoreApplication::applicationFilePath(), {u"--loopback-servers"_s});
        const auto origins = readLine().split(' ');
        if (origins.size() == 2) {
            backendOrigin = QString::fromUtf8(origins[0]);
            channelBaseURL = QString::fromUtf8(origins[1]);
        }
    }
    ~LoopbackServers()
    {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }
    LoopbackServers(const LoopbackServers&) = delete;
    LoopbackServers& operator=(const LoopbackServers&) = delete;

    bool isRunning() const { return !backendOrigin.isEmpty(); }

    std::optional<Report> report()
    {
        m_process.write("report\n");
        const auto fields = readLine().split(' ');
        if (fields.size() != 4)
            return std::nullopt;
        return Report{fields[0].toInt(), fields[1].toInt(), fields[2].toInt(),
                      fields[3].toDouble()};
    }

    QString backendOrigin;
    QString channelBaseURL;

private:
    // Blocks: only before and after the interview.
    QByteArray readLine()
    {
        while (!m_process.canReadLine()) {
            if (!m_process.waitForReadyRead(10'000))
                return {};
        }
        return m_process.readLine().trimmed();
    }

    QProcess m_process;
};

int run(int minutes)
{
    if (const auto missing = SpokenAudio::missingTool(); !missing.isEmpty()) {
        std::printf("needs %s\n", qPrintable(missing));
        return 1;
    }
    const auto script = makeScript();
    if (!script) {
        std::printf("espeak-ng or sox failed to make the speech\n");
        return 1;
    }
    LoopbackServers servers;
    if (!servers.isRunning()) {
        std::printf("the loopback servers did not start\n");
        return 1;
    }

    ManualClock clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    UserSettings settings{preferences, notifications};
    settings.setInputLanguage(u"en-US"_s);
    settings.setOutputLanguage(u"en"_s);
    // The bench asks for the answers itself, at known moments.
    settings.setAutoTriggerAIAnswers(false);
    AppStrings strings{QStringList{u"en"_s}};
    InMemoryTokenStore tokens;
    APIClient client{servers.backendOrigin, tokens, notifications};
    client.setAccessToken(u"access-1"_s);

    SystemAudioSource::BlockHandler systemBlock;
    MicrophoneSource::TapBlock microphoneBlock;
    AudioCaptureService systemAudio(
        [&] { return std::make_unique<bench::SyntheticSystemSource>(&systemBlock); });
    MicrophoneService microphone(
        [&] { return std::make_unique<bench::SyntheticMicrophone>(&microphoneBlock, double(micRate)); });
    SystemAudioCapture systemCapture(systemAudio);
    MicrophoneCapture microphoneCapture(microphone);
    InterviewViewModel::Services services;
    services.audioCapture = &systemCapture;
    services.microphone = &microphoneCapture;
    services.makeRecognizer = vendorRecognizers(clock);
    services.makeTranscriptChannel = [&clock, &servers] {
        return std::make_shared<ChannelAt>(clock, servers.channelBaseURL);
    };
    InterviewViewModel vm(clock, settings, strings, services);
    vm.setBackend(std::make_shared<APIClientInterviewBackend>(client));
    vm.setLoggedIn(true);

    OverlayViewModel overlay(OverlayViewModel::Services{vm, settings, strings, notifications, clock,
                                                        [] { return noResumes(); }});
    QmlShellWindows windows;
    windows.createPanel(ShellWindows::Panel::overlay, overlay);
    QQuickWindow* window = windows.quickWindow(ShellWindows::Panel::overlay);
    windows.show(ShellWindows::Panel::overlay);
    if (!window || !QTest::qWaitForWindowExposed(window)) {
        std::printf("the overlay was not shown: no X display?\n");
        return 1;
    }

    // The clock follows real time, sped up, in whole blocks; while the interview records, each
    // block of the clock is a block of audio on both channels.
    QElapsedTimer real;
    real.start();
    qint64 clockMovedMs = 0;
    bool feeding = false;
    qint64 fedMs = 0;
    qint64 microphoneFrames = 0;
    const qint64 interviewMs = qint64(minutes) * 60'000;
    int triggers = 0;
    std::vector<Sample> samples;
    double peakMb = 0;
    std::vector<float> block(blockFrames);
    std::vector<float> micBlock(MicrophoneService::tapFrames);
    std::vector<float> micSource(MicrophoneService::tapFrames / 3 + 2);
    QByteArray blockBytes(qsizetype(blockFrames * sizeof(float)), Qt::Uninitialized);
    QEventLoop interviewLoop;

    const auto sample = [&](int minute) {
        samples.push_back({minute, statusMegabytes("VmRSS"), heapInUseMegabytes(),
                           vm.transcriptManager().entries().size(), vm.aiAnswerHistory().size(),
                           itemCount(window->contentItem()), double(real.elapsed()) / 1000.0});
        const auto& s = samples.back();
        peakMb = std::max(peakMb, s.rssMb);
        std::printf("%6d %9.1f %9.2f %8lld %8lld %6d %8.1f\n", s.minute, s.rssMb, s.heapMb,
                    static_cast<long long>(s.entries), static_cast<long long>(s.answers), s.items,
                    s.realSeconds);
        std::fflush(stdout);
    };

    const auto feedBlock = [&] {
        if (systemBlock) {
            script->interviewer.read(fedMs * rate / 1000, block);
            std::memcpy(blockBytes.data(), block.data(), std::size_t(blockBytes.size()));
            SampleBlock platformBlock;
            platformBlock.description = {SampleDescription::Format::float32, 1, 4, double(rate)};
            platformBlock.frameCount = std::size_t(blockFrames);
            platformBlock.data = reinterpret_cast<const std::byte*>(blockBytes.constData());
            platformBlock.byteLength = std::size_t(blockBytes.size());
            systemBlock(platformBlock);
        }
        // The microphone keeps up with the system audio in its own 4096-frame blocks at 48 kHz,
        // made from the 16 kHz speech by linear interpolation.
        const qint64 dueFrames = (fedMs + blockMs) * micRate / 1000;
        while (microphoneFrames + qint64(MicrophoneService::tapFrames) <= dueFrames) {
            const qint64 first = microphoneFrames / 3;
            script->user.read(first, micSource);
            for (std::size_t k = 0; k < micBlock.size(); ++k) {
                const qint64 at = microphoneFrames + qint64(k);
                const auto i = std::size_t(at / 3 - first);
                const float fraction = float(at % 3) / 3.0f;
                micBlock[k] = micSource[i] * (1 - fraction) + micSource[i + 1] * fraction;
            }
            if (microphoneBlock)
                microphoneBlock(micBlock);
            microphoneFrames += qint64(MicrophoneService::tapFrames);
        }
    };

    bool stepping = false;
    QTimer driver;
    driver.setTimerType(Qt::PreciseTimer);
    driver.setInterval(2);
    QObject::connect(&driver, &QTimer::timeout, &driver, [&] {
        if (stepping)
            return;
        stepping = true;
        while (clockMovedMs + blockMs <= real.elapsed() * speedUp) {
            if (feeding) {
                const qint64 inLoop = fedMs % script->loopMs;
                for (const auto at : script->triggerMs) {
                    if (at == inLoop) {
                        vm.triggerAIAnswer();
                        ++triggers;
                    }
                }
                feedBlock();
            }
            clock.advance(std::chrono::milliseconds(blockMs));
            clockMovedMs += blockMs;
            if (feeding) {
                fedMs += blockMs;
                // Every simulated second for the peak, every minute for the table.
                if (fedMs % 1000 == 0)
                    peakMb = std::max(peakMb, statusMegabytes("VmRSS"));
                if (fedMs % 60'000 == 0)
                    sample(int(fedMs / 60'000));
                if (fedMs >= interviewMs) {
                    feeding = false;
                    interviewLoop.quit();
                    break;
                }
            }
        }
        stepping = false;
    });
    driver.start();

    // The renderer weighs more than anything else here: Mesa's llvmpipe, which OpenGL gets
    // under Xvfb, holds far more than the software renderer.
    const auto api = window->rendererInterface()->graphicsApi();
    std::printf("interview_memory_bench: %d minutes of interview at %dx, a loop of %.1f s "
                "(%zu questions and answers); overlay drawn by %s\n",
                minutes, speedUp, double(script->loopMs) / 1000.0, script->triggerMs.size(),
                api == QSGRendererInterface::Software ? "the software renderer"
                : api == QSGRendererInterface::OpenGL ? "OpenGL"
                                                      : "another graphics API");
    std::printf("%6s %9s %9s %8s %8s %6s %8s\n", "minute", "RSS MB", "heap MB", "lines", "answers",
                "items", "real s");
    try {
        awaitTask(vm.startInterview(), 30'000);
    } catch (const std::exception& error) {
        std::printf("the interview did not start: %s\n", error.what());
        return 1;
    }
    if (!vm.isRecording()) {
        std::printf("the interview did not start: %s\n",
                    qPrintable(vm.error().value_or(QString())));
        return 1;
    }
    sample(0);
    feeding = true;
    // Three times the planned real time is far behind: the figures would not be of a live run.
    QTimer::singleShot(std::chrono::milliseconds(qint64(minutes) * 60'000 / speedUp * 3 + 60'000),
                       &interviewLoop, [&] {
                           std::printf("the run fell too far behind real time\n");
                           interviewLoop.exit(1);
                       });
    if (interviewLoop.exec() != 0)
        return 1;
    const double interviewRealSeconds =
        double(real.elapsed()) / 1000.0 - samples.front().realSeconds;
    const auto entries = vm.transcriptManager().entries().size();
    const auto answers = vm.aiAnswerHistory().size();
    const bool overlayShown = window->isVisible();
    const double endAnonymousMb = statusMegabytes("RssAnon");
    const double endFileMb = statusMegabytes("RssFile");
    const double endSharedMb = statusMegabytes("RssShmem");
    try {
        awaitTask(vm.stopInterview(), 30'000);
    } catch (const std::exception& error) {
        std::printf("the interview did not stop: %s\n", error.what());
    }
    driver.stop();

    const auto vendor = servers.report().value_or(LoopbackServers::Report{});

    const Sample& first = samples.front();
    const Sample& last = samples.back();
    const Sample& thirdStart = samples[std::size_t(minutes - minutes / 3)];
    const double lastThirdMinutes = last.minute - thirdStart.minute;
    const double growth = last.rssMb - thirdStart.rssMb;
    const double heapGrowth = last.heapMb - thirdStart.heapMb;
    // The interview keeps its transcript and answers until it ends, by design: some ten KB a
    // minute here. Below this the resident size moves only with that and with the allocator,
    // which takes memory from the system in steps of about 128 KB.
    constexpr double growthTolerance = 0.5;
    constexpr double endGoal = 100.0;

    std::printf("\ninterview: %d min simulated in %.0f s (%.1fx); vendor sent %d partials and %d "
                "finals on %d sockets; %lld lines, %lld of %d answers; overlay %s\n",
                minutes, interviewRealSeconds, minutes * 60.0 / interviewRealSeconds,
                vendor.partials, vendor.finals, vendor.sockets, static_cast<long long>(entries),
                static_cast<long long>(answers), triggers, overlayShown ? "shown" : "NOT SHOWN");
    std::printf("(the loopback servers' own process: %.1f MB resident, not counted)\n",
                vendor.rssMb);
    std::printf("RSS at the start of the interview: %.1f MB\n", first.rssMb);
    std::printf(
        "RSS at the end (minute %d):         %.1f MB (%.1f MB anonymous, %.1f MB mapped from "
        "files, mostly shared libraries, %.1f MB shared memory, the window's image for the "
        "X server)\n",
        last.minute, last.rssMb, endAnonymousMb, endFileMb, endSharedMb);
    std::printf("peak RSS during the interview (sampled every simulated second): %.1f MB\n",
                peakMb);
    if (lastThirdMinutes > 0) {
        std::printf("growth over the last third (minutes %d to %d): %+.2f MB, %+.3f MB/min "
                    "(heap in use %+.0f KB/min)\n",
                    thirdStart.minute, last.minute, growth, growth / lastThirdMinutes,
                    heapGrowth * 1024.0 / lastThirdMinutes);
    }
    std::printf("goal: at most %.0f MB at the end: %s\n", endGoal,
                last.rssMb <= endGoal ? "met" : "MISSED");
    if (lastThirdMinutes > 0) {
        std::printf("goal: no growth in the last third (within %.1f MB): %s\n", growthTolerance,
                    growth <= growthTolerance ? "met" : "MISSED");
    } else {
        std::printf("goal: no growth in the last third: not judged, the run is too short\n");
    }
    if (entries == 0 || answers == 0 || vendor.finals == 0 || !overlayShown) {
        std::printf("the interview did not run as scripted\n");
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--loopback-servers") == 0) {
        QCoreApplication app(argc, argv);
        return serveLoopback();
    }
    applyRendererChoice(); // as the program picks it
    QmlShellWindows::prepareDrawing();
    QApplication app(argc, argv);
    const auto minutes = minutesArgument(QCoreApplication::arguments());
    if (!minutes) {
        std::printf("usage: interview_memory_bench [--minutes N]\n");
        return 2;
    }
    return run(*minutes);
}
