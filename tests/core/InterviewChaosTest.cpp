// Seeded interviews over real loopback sockets with trouble on every wire: vendor sockets that
// die, transcript channels that are cut, refused or unreachable, acknowledgements that get lost,
// and bursts of server errors from the backend. After each interview the model must be idle with
// nothing left running, and over the whole run no word may be lost: a speaker's pieces join his
// previous line when they come within 5 s, and for every final line the server's newest text of it
// (over the channel or in a transcript post) is the line's whole text, or the line is still held as
// the pending upload.
//
// The interviews run on a manual clock so that the back-offs, the retries of the transcript
// channel and the handshake timers cost no real time. Real sockets and
// virtual timers mix through VirtualTimePump: it hands Qt whatever the sockets have ready and moves
// the clock on only when nothing else can make progress.

#include "InterviewHarness.h"

#include "AuthTokenStore.h"
#include "FakeBackend.h"
#include "FakeTranscriptChannel.h"
#include "FakeVendorServer.h"
#include "LogCapture.h"

#include <QAbstractEventDispatcher>
#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QThread>
#include <QTimer>
#include <QWebSocket>

#include <gtest/gtest.h>

#include <array>
#include <iostream>
#include <random>

namespace {

using Reaction = FakeTranscriptChannel::Reaction;
using Response = FakeBackend::Response;

QByteArray compactJson(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Spends one of the failures scripted in `budget`, if any are left.
bool spend(int& budget)
{
    return budget > 0 && budget-- > 0;
}

constexpr int defaultRuns = 200;
// Interview k runs with seed firstSeed + k.
constexpr quint32 firstSeed = 7'340'000;
// Real time one start or stop may take before the run is given up as hung.
constexpr int realDeadlineMs = 20'000;

int chaosRuns()
{
    const int runs = qEnvironmentVariableIntValue("RAVLET_CHAOS_RUNS");
    return runs > 0 ? runs : defaultRuns;
}

// Moves a manual clock along with real sockets. Whatever Qt has ready is handled first, with a
// little virtual time per busy round; when nothing has arrived for a moment (the loopback
// servers answer within microseconds, Qt's network thread within a millisecond), only a
// virtual timer can move things on, and the clock jumps to the next one. A jump is capped, so
// that a slow machine mistaken for an idle one costs little virtual time.
class VirtualTimePump {
public:
    explicit VirtualTimePump(ManualClock& clock)
        : m_clock(clock)
    {
        m_wake.setSingleShot(true);
        m_wake.setTimerType(Qt::PreciseTimer);
    }

    void round()
    {
        auto* dispatcher = QThread::currentThread()->eventDispatcher();
        bool busy = false;
        for (int k = 0; k < 50 && dispatcher->processEvents(QEventLoop::AllEvents); ++k)
            busy = true;
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (!busy) {
            m_wake.start(idleWaitMs);
            dispatcher->processEvents(QEventLoop::WaitForMoreEvents);
            busy = m_wake.isActive() || dispatcher->processEvents(QEventLoop::AllEvents);
            m_wake.stop();
        }
        if (busy) {
            m_clock.advance(busyStep);
            return;
        }
        const qint64 now = m_clock.nowMs();
        const qint64 next =
            std::min(m_clock.nextDeadlineMs().value_or(now + maxJumpMs), now + maxJumpMs);
        m_clock.advance(std::chrono::milliseconds(std::max<qint64>(next - now, 1)));
    }

    bool until(const std::function<bool()>& done, int deadlineMs = realDeadlineMs)
    {
        const QDeadlineTimer deadline(deadlineMs);
        while (!done()) {
            if (deadline.hasExpired())
                return false;
            round();
        }
        return true;
    }

private:
    static constexpr int idleWaitMs = 2;
    static constexpr std::chrono::milliseconds busyStep{10};
    static constexpr qint64 maxJumpMs = 1000;

    ManualClock& m_clock;
    QTimer m_wake;
};

QString turnInfo(const QString& event, const QString& transcript)
{
    return QString::fromUtf8(compactJson(
        {{u"type"_s, u"TurnInfo"_s}, {u"event"_s, event}, {u"transcript"_s, transcript}}));
}

// What one seeded interview does.
struct Plan {
    enum class Action { say, killVendor, cutChannel, trigger };
    enum class Channel { live, refusing, unusable };

    struct Step {
        qint64 atMs = 0;
        Action action = Action::say;
        Speaker speaker = Speaker::interviewer;
        QString text{};
        bool withPartial = false;
        bool joins = false; // comes within 5 s of the speaker's previous piece, to grow that line
    };

    QList<Step> steps;
    Channel channel = Channel::live;
    bool autoTrigger = false;
    bool failPendingRetry = false; // the post that retries an older transcript at start fails
    int completeFailures = 0;
    int postFailures = 0;
};

Plan makePlan(quint32 seed)
{
    std::mt19937 random(seed);
    const auto chance = [&](double p) {
        return std::uniform_real_distribution<double>(0, 1)(random) < p;
    };
    const auto between = [&](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };

    Plan plan;
    const double channelDraw = std::uniform_real_distribution<double>(0, 1)(random);
    plan.channel = channelDraw < 0.8   ? Plan::Channel::live
                   : channelDraw < 0.9 ? Plan::Channel::refusing
                                       : Plan::Channel::unusable;
    plan.autoTrigger = chance(0.3);
    plan.failPendingRetry = chance(0.3);
    plan.completeFailures = chance(0.15) ? 1 : 0;
    plan.postFailures = chance(0.2) ? between(1, 2) : 0;

    // Pieces of one speaker: some come within 5 s of the previous one and grow its line, the
    // others open a line of their own.
    qint64 lastMs = 0;
    for (const Speaker speaker : {Speaker::interviewer, Speaker::user}) {
        const int pieces = speaker == Speaker::interviewer ? between(2, 6) : between(1, 5);
        qint64 at = between(200, 2000);
        bool joins = false;
        for (int k = 0; k < pieces; ++k) {
            // Braced lists are evaluated in order, so the draws keep theirs.
            plan.steps.append({at, Plan::Action::say, speaker,
                               u"seed %1 %2 piece %3"_s.arg(seed).arg(toText(speaker)).arg(k),
                               chance(0.5), joins});
            lastMs = std::max(lastMs, at);
            joins = chance(0.5);
            at += joins ? between(800, 3000) : between(5500, 8000);
        }
    }
    const int troubles = between(1, 5);
    for (int k = 0; k < troubles; ++k)
        plan.steps.append({between(0, int(lastMs) + 2000),
                           static_cast<Plan::Action>(
                               between(int(Plan::Action::killVendor), int(Plan::Action::trigger))),
                           chance(0.5) ? Speaker::interviewer : Speaker::user});
    return plan;
}

} // namespace

// The interview over real sockets on loopback: the API client against the fake backend, a
// Deepgram recogniser against the fake vendor (reached through the speech token's endpoint),
// and the transcript channel against its fake server. Only the two audio sources are fed by
// hand. The backend's trouble is scripted by counts that its routes spend request by request.
class InterviewChaosTest : public ::testing::Test {
protected:
    InterviewChaosTest()
    {
        settings.setOutputLanguage(u"en"_s);
        client.setAccessToken(u"access-1"_s);
        vm.setBackend(std::make_shared<APIClientInterviewBackend>(client));
        vm.setLoggedIn(true);
        prepareSessionRoutes(1);
        backend.setRoute("GET", "/api/v1/subscription/status",
                         Response::json(200, R"({"speechProvider":"deepgram"})"));
        backend.setHandler("POST", "/api/v1/interview/session",
                           [this](const FakeBackend::Request& request) {
                               auto session = QJsonDocument::fromJson(request.body).object();
                               session.insert(u"id"_s, sessionId(++sessions));
                               session.insert(u"startedAt"_s, u"2024-05-01T10:00:00.000Z"_s);
                               session.insert(u"status"_s, u"active"_s);
                               return Response::json(200, compactJson(session));
                           });
        backend.setHandler("GET", "/api/v1/speech/token", [this](const FakeBackend::Request&) {
            const QJsonObject token{{u"provider"_s, u"deepgram"_s},
                                    {u"token"_s, u"speech-"_s + QString::number(++speechTokens)},
                                    {u"endpoint"_s, vendor.origin()}};
            return Response::json(200, compactJson(token));
        });
        backend.setRoute(
            "POST", "/api/v1/chat/answer",
            Response::stream({"data: {\"logId\":\"log-7\"}\n\n",
                              "data: {\"content\":\"I built \"}\n\n",
                              "data: {\"content\":\"a mixing desk.\"}\n\ndata: [DONE]\n\n"},
                             5));
        backend.setRoute("PATCH", "/api/v1/chat/log/log-7", Response::json(200, "{}"));
        channelServer.setFrameRule(
            [this](const FakeTranscriptChannel::Frame& frame) { return react(frame); });
    }

    static QString sessionId(int number) { return u"session-"_s + QString::number(number); }

    // The session's own routes exist before the session does: handlers are not added while
    // the backend runs one.
    void prepareSessionRoutes(int number)
    {
        const QByteArray path = "/api/v1/interview/session/" + sessionId(number).toUtf8();
        backend.setHandler("PUT", path, [this](const FakeBackend::Request&) {
            return Response::json(spend(completeFailures) ? 503 : 200, "{}");
        });
        backend.setHandler(
            "POST", path + "/transcript", [this](const FakeBackend::Request& request) {
                if (spend(postFailures))
                    return Response::json(502, "{}");
                for (const auto& entry :
                     QJsonDocument::fromJson(request.body).object().value(u"entries"_s).toArray())
                    delivered[entry[u"id"_s].toString()] = entry[u"content"_s].toString();
                return Response::json(200, "{}");
            });
    }

    InterviewViewModel::Services services()
    {
        InterviewViewModel::Services s;
        s.audioCapture = &systemAudio;
        s.microphone = &microphone;
        s.makeRecognizer = [this, vendorRecognizer = vendorRecognizers(clock)](
                               SpeechProvider provider, Speaker speaker) {
            auto recognizer = vendorRecognizer(provider, speaker);
            recognizers[std::size_t(speaker)] = recognizer;
            return recognizer;
        };
        s.makeTranscriptChannel = [this] {
            return std::make_shared<ChannelAt>(clock, channelBaseURL);
        };
        return s;
    }

    // Mostly acks; now and then a lost ack, a cut right after the ack, or a cut instead of it.
    // Decided by the line's text and how often it came, so that a seed always does the same.
    Reaction react(const FakeTranscriptChannel::Frame& frame)
    {
        const QString content = frame.content();
        const int seen = ++framesSeen[content];
        if (seen > 3)
            return Reaction::ack;
        const auto draw = std::mt19937(qHash(content) ^ quint32(seen) * 2654435761u)() % 40;
        if (draw < 4)
            return Reaction::ignore;
        if (draw < 7)
            return Reaction::ackThenDrop;
        if (draw < 10)
            return Reaction::drop;
        return Reaction::ack;
    }

    // The vendor's end of the socket that the channel's recogniser has open now, matched by port.
    QWebSocket* vendorSocket(Speaker speaker) const
    {
        const auto recognizer = recognizers[std::size_t(speaker)].lock();
        if (!recognizer)
            return nullptr;
        for (auto* own : recognizer->findChildren<QWebSocket*>()) {
            if (own->state() != QAbstractSocket::ConnectedState)
                continue;
            for (const auto& connection : vendor.connections()) {
                if (connection.socket
                    && connection.socket->state() == QAbstractSocket::ConnectedState
                    && connection.socket->peerPort() == own->localPort())
                    return connection.socket;
            }
        }
        return nullptr;
    }

    // How long a piece of `speaker` must wait: his previous one may still be on its way, and a
    // piece that is to open a line of its own waits out the transcript's 5 s gap.
    qint64 waitBeforeLine(Speaker speaker, bool joins) const
    {
        const auto& transcript = vm.transcriptManager();
        const auto& [socket, text] = lastSaid[std::size_t(speaker)];
        if (socket && socket->state() == QAbstractSocket::ConnectedState) {
            const auto& entries = transcript.entries();
            const bool arrived =
                std::any_of(entries.begin(), entries.end(), [&](const TranscriptEntry& entry) {
                    return entry.content.endsWith(text);
                });
            if (!arrived)
                return 100;
        }
        if (joins)
            return 0;
        if (const auto last = transcript.lastCommitTimestampMs(speaker)) {
            const qint64 gap = clock.nowMs() - *last;
            if (gap <= TranscriptManager::utteranceGapMs)
                return TranscriptManager::utteranceGapMs - gap + 50;
        }
        return 0;
    }

    void schedule(const Plan::Step& step, qint64 delayMs, int attempt = 0)
    {
        clock.startTimer(delayMs, [this, step, attempt] { perform(step, attempt); });
    }

    void perform(const Plan::Step& step, int attempt)
    {
        switch (step.action) {
        case Plan::Action::say: {
            if (const qint64 wait = waitBeforeLine(step.speaker, step.joins);
                wait > 0 && attempt < 200) {
                schedule(step, wait, attempt + 1);
                return;
            }
            auto* socket = vendorSocket(step.speaker);
            if (!socket)
                break; // the channel is down: the vendor heard nothing
            const auto samples = step.speaker == Speaker::interviewer
                                     ? std::vector<float>{0.25f, -0.5f, 0.75f}
                                     : std::vector<float>{-1.0f, 0.125f};
            (step.speaker == Speaker::interviewer ? systemAudio : microphone).play(samples);
            if (step.withPartial)
                socket->sendTextMessage(
                    turnInfo(u"Update"_s, step.text.left(step.text.size() / 2)));
            socket->sendTextMessage(turnInfo(u"EndOfTurn"_s, step.text));
            lastSaid[std::size_t(step.speaker)] = {socket, step.text};
            break;
        }
        case Plan::Action::killVendor:
            if (auto* socket = vendorSocket(step.speaker))
                socket->abort();
            break;
        case Plan::Action::cutChannel:
            channelServer.closeAbruptly();
            break;
        case Plan::Action::trigger:
            vm.triggerAIAnswer();
            break;
        }
        --stepsLeft;
    }

    void useChannel(Plan::Channel channel)
    {
        channelServer.setRefusing(channel == Plan::Channel::refusing);
        channelBaseURL = channel == Plan::Channel::unusable ? u"http://127.0.0.1:no-port"_s
                                                            : channelServer.baseURL();
    }

    // Runs a start or a stop on the pump; a failure when it hangs.
    bool finishes(QCoro::Task<> task, const char* what)
    {
        const auto done = std::make_shared<bool>(false);
        [](QCoro::Task<> task, std::shared_ptr<bool> done) -> QCoro::Task<> {
            co_await task;
            *done = true;
        }(std::move(task), done);
        if (pump.until([&] { return *done; }))
            return true;
        ADD_FAILURE() << "the " << what << " hung";
        return false;
    }

    // One interview, start to stop. Returns false when the run cannot go on.
    bool interview(quint32 seed, const Plan& plan)
    {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        useChannel(plan.channel);
        channelServer.setAckRevisions(seed % 2 == 0);
        settings.setAutoTriggerAIAnswers(plan.autoTrigger);
        completeFailures = 0;
        if (vm.pendingTranscriptUpload()) {
            pendingSeen += 1;
            postFailures = plan.failPendingRetry ? 2 : 0;
        }
        lastSaid = {};
        prepareSessionRoutes(sessions + 1);

        if (!finishes(vm.startInterview(), "start"))
            return false;
        postFailures = 0;
        if (!vm.isRecording() || vm.pipelineState() != State::recording) {
            ADD_FAILURE() << "not recording after the start: " << vm.statusMessage().toStdString();
            return false;
        }

        stepsLeft = int(plan.steps.size());
        for (const auto& step : plan.steps)
            schedule(step, step.atMs);
        if (!pump.until([&] { return stepsLeft == 0; })) {
            ADD_FAILURE() << "the interview's script did not finish";
            return false;
        }

        completeFailures = plan.completeFailures;
        // A second failed delivery would replace the one still pending, which the design gives
        // up by intent: never fail a delivery while one is pending.
        postFailures = vm.pendingTranscriptUpload() ? 0 : plan.postFailures;
        if (!finishes(vm.stopInterview(), "stop"))
            return false;
        postFailures = completeFailures = 0;
        EXPECT_TRUE(vm.pipelineState() == State::idle && !vm.isRecording());
        EXPECT_EQ(vm.runningTaskCount(), 0);
        for (const auto& entry : vm.transcriptManager().entries())
            lines.insert(entry.id, entry.content);
        return !testing::Test::HasFailure();
    }

    struct Tally {
        QStringList lost; // lines whose newest text the server lacks and nothing holds
        int grown = 0;    // lines made of more than one piece
        int overChannel = 0;
        int inPosts = 0;
    };

    Tally tally() const
    {
        QHash<QString, QSet<QString>> pending;
        if (const auto& upload = vm.pendingTranscriptUpload()) {
            for (const auto& entry : upload->entries)
                pending[entry.value(u"id"_s).toString()].insert(
                    entry.value(u"content"_s).toString());
        }
        Tally result;
        for (auto it = lines.cbegin(); it != lines.cend(); ++it) {
            const QString& text = it.value();
            result.grown += text.count(u"seed "_s) > 1 ? 1 : 0;
            // What the server confirmed is what it keeps; a post comes after all that the
            // channel carried of a line.
            const QString overChannel =
                channelServer.acknowledgedText(it.key()).value_or(QString());
            const QString server = delivered.value(it.key(), overChannel);
            result.overChannel += !delivered.contains(it.key()) && overChannel == text ? 1 : 0;
            result.inPosts += delivered.value(it.key()) == text ? 1 : 0;
            if (server == text || pending.value(it.key()).contains(text))
                continue;
            result.lost.append(text + u" (server: "_s + server + u')');
        }
        return result;
    }

    ManualClock clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    UserSettings settings{preferences, notifications};
    AppStrings strings{QStringList{u"en"_s}};
    FakeBackend backend;
    FakeVendorServer vendor;
    FakeTranscriptChannel channelServer;
    InMemoryTokenStore tokens;
    APIClient client{backend.origin(), tokens, notifications};
    QString channelBaseURL = channelServer.baseURL(); // read as each interview makes its channel
    FakeCapture systemAudio;
    FakeCapture microphone;
    // The recogniser each channel has now.
    std::array<std::weak_ptr<SpeechRecognitionProvider>, 2> recognizers;

    // The session's routes.
    int completeFailures = 0;
    int postFailures = 0;
    QHash<QString, QString> delivered; // the last text a transcript post carried, by id

    int sessions = 0;
    int speechTokens = 0;
    InterviewViewModel vm{clock, settings, strings, services()};

    LogCapture log; // the interviews' own log lines would drown the summary
    VirtualTimePump pump{clock};
    int pendingSeen = 0;
    int stepsLeft = 0;
    std::array<std::pair<QPointer<QWebSocket>, QString>, 2> lastSaid;
    QHash<QString, int> framesSeen;
    QHash<QString, QString> lines; // every final line of every transcript, by id
};

TEST_F(InterviewChaosTest, NoFinalLineIsLostAcrossSeededInterviews)
{
    const int runs = chaosRuns();
    for (int k = 0; k < runs; ++k) {
        const quint32 seed = firstSeed + quint32(k);
        if (!interview(seed, makePlan(seed)))
            return;
    }
    // A recogniser stopped during a handshake says goodbye for up to 2 s of real time, and an
    // answer cut off by a stop is still read to its end (three pieces each).
    EXPECT_TRUE(pump.until(
        [&] {
            return vendor.openConnectionCount() == 0
                   && backend.piecesSent()
                          == 3 * backend.requestCount("POST", "/api/v1/chat/answer");
        },
        5'000));
    pump.until([] { return false; }, 50); // the last reply's end reaches its reader

    // Every answer was asked within its session, in the answer language.
    for (const auto& request : backend.requests("POST", "/api/v1/chat/answer")) {
        const auto body = QJsonDocument::fromJson(request.body).object();
        EXPECT_TRUE(body.value(u"sessionId"_s).toString().startsWith(u"session-"_s));
        EXPECT_EQ(body.value(u"language"_s), u"en"_s);
    }

    const Tally result = tally();
    std::cout << "lines: " << lines.size() << ", grown: " << result.grown << std::endl;
    EXPECT_TRUE(result.lost.isEmpty()) << result.lost.join(u'\n').toStdString();
    EXPECT_GT(result.grown, runs / 4);
    EXPECT_GT(lines.size(), runs * 2);

    // The trouble really happened: both delivery paths carried lines, both speech channels
    // restarted, channels reconnected and a delivery waited for a start.
    if (runs >= 100) {
        EXPECT_GT(result.overChannel, 0);
        EXPECT_GT(result.inPosts, 0);
        for (const Speaker speaker : {Speaker::interviewer, Speaker::user})
            EXPECT_FALSE(log.lines()
                             .filter(u"Restarting "_s + toText(speaker) + u" recognizer: "_s)
                             .isEmpty());
        EXPECT_GT(channelServer.connections().size(), runs);
        EXPECT_GT(pendingSeen, 0);
    }
}
