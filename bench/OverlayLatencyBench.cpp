// From the trigger key to the first frame on screen that shows the answer's first chunk: the
// key pressed through XTEST, seen by the program's X11 key source, the answer streamed by a
// loopback backend at once or by a real ravlet-server's offline engine, and the overlay drawn as
// the program draws it. Against the server it also times the server alone, from a request
// written to its first answer line, so that the client's own part shows. Needs an X display:
//   xvfb-run -s "-screen 0 1280x800x24" ./build/bench/overlay_latency_bench
#include "LoopbackInterview.h"

#include "GlobalKeys.h"
#include "OverlayViewModel.h"
#include "QmlShellWindows.h"
#include "RendererChoice.h"
#include "X11KeySource.h"
#include "XTestKeyboard.h"

#include <QApplication>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QQuickWindow>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QtQml/qqmlextensionplugin.h>
#include <QUrlQuery>

#include <X11/keysym.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
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

double percentileMs(std::vector<qint64> values, double p)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : double(values[std::size_t(p * double(values.size() - 1))]) / 1e6;
}

struct Presses {
    std::vector<qint64> toFrame;
    std::vector<qint64> toChunk;
    const char* failure = nullptr;
};

// Presses the trigger key `pressCount` times with the overlay on screen and the interviewer's
// question in the transcript; each answer ends and its log is saved before the next press.
Presses pressTrigger(LoopbackInterview& interview)
{
    Presses presses;
    auto& vm = interview.vm;
    interview.settings.setAutoTriggerAIAnswers(false);
    interview.settings.setAITriggerKey({f5, false, std::nullopt, u"F5"_s});
    OverlayViewModel overlay(OverlayViewModel::Services{vm, interview.settings, interview.strings,
                                                        interview.notifications, interview.clock,
                                                        [] { return noResumes(); }});
    QmlShellWindows windows;
    windows.createPanel(ShellWindows::Panel::overlay, overlay);
    QQuickWindow* window = windows.quickWindow(ShellWindows::Panel::overlay);
    windows.show(ShellWindows::Panel::overlay);
    X11KeySource source;
    GlobalKeys keys(source);
    keys.attach(vm, interview.settings, window);
    keys.installKeyMonitors();
    XTestKeyboard keyboard;
    if (!window || !QTest::qWaitForWindowExposed(window) || !source.seesOtherPrograms() || !keyboard.isOpen()) {
        presses.failure = "no X display with XInput 2 and XTEST";
        return presses;
    }
    if (const char* failure = interview.startWithQuestion()) {
        presses.failure = failure;
        return presses;
    }

    // Stamped where the model appends the chunk; a frame whose scene was synchronised after
    // that shows it, whichever thread renders.
    std::atomic<qint64> firstChunkNs = 0;
    std::atomic<bool> frameCarriesChunk = false;
    std::atomic<qint64> swappedNs = 0;
    // Goes first, and takes these connections with it: the interview outlives this call.
    QObject scope;
    QObject::connect(&vm, &InterviewViewModel::aiAnswerHistoryChanged, &scope, [&] {
        if (firstChunkNs == 0 && !vm.aiAnswerHistory().isEmpty() && !vm.aiAnswerHistory().last().answer.isEmpty())
            firstChunkNs = steadyNs();
    });
    QObject::connect(
        window, &QQuickWindow::beforeSynchronizing, &scope,
        [&] { frameCarriesChunk = firstChunkNs != 0; }, Qt::DirectConnection);
    QObject::connect(
        window, &QQuickWindow::frameSwapped, &scope,
        [&] {
            if (frameCarriesChunk && swappedNs == 0)
                swappedNs = steadyNs();
        },
        Qt::DirectConnection);

    presses.toFrame.reserve(pressCount);
    for (int k = 0; k < pressCount; ++k) {
        firstChunkNs = 0;
        frameCarriesChunk = false;
        swappedNs = 0;
        const qint64 pressedNs = steadyNs();
        keyboard.tap(XK_F5);
        const bool finished = interview.waitUntil([&] { return interview.answered(k + 1); })
            && QTest::qWaitFor([&] { return swappedNs != 0; }, deadlineMs);
        if (!finished) {
            presses.failure = "an answer did not reach the screen";
            break;
        }
        presses.toFrame.push_back(swappedNs - pressedNs);
        presses.toChunk.push_back(firstChunkNs - pressedNs);
    }
    return presses;
}

void report(benchmark::State& state, const Presses& presses)
{
    state.counters["presses"] = double(presses.toFrame.size());
    state.counters["p50_ms"] = percentileMs(presses.toFrame, 0.50);
    state.counters["p95_ms"] = percentileMs(presses.toFrame, 0.95);
    state.counters["max_ms"] = percentileMs(presses.toFrame, 1.0);
    state.counters["chunk_p50_ms"] = percentileMs(presses.toChunk, 0.50);
    state.counters["chunk_p95_ms"] = percentileMs(presses.toChunk, 0.95);
}

void BM_TriggerKeyToFirstFrameWithTheAnswer(benchmark::State& state)
{
    LoopbackInterview interview;
    Presses presses;
    for (auto _ : state)
        presses = pressTrigger(interview);
    awaitTask(interview.vm.stopInterview(), deadlineMs);
    if (presses.failure)
        state.SkipWithError(presses.failure);
    report(state, presses);
}
BENCHMARK(BM_TriggerKeyToFirstFrameWithTheAnswer)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// One HTTP/1.1 connection to the server, kept open between requests as a client's is. Blocking:
// the server is another process.
class KeepAliveConnection {
public:
    using Headers = QList<std::pair<QByteArray, QByteArray>>;
    struct Response {
        int status = 0;
        QHash<QByteArray, QByteArray> headers; // names in lower case
        QByteArray body;
    };

    explicit KeepAliveConnection(quint16 port)
        : m_port(port)
    {
    }

    // How many times a connection was opened: more than one means the server closed it.
    int connects = 0;

    // Opens the connection again when the server closed it.
    bool send(const QByteArray& method, const QByteArray& path, const QByteArray& body, const Headers& headers)
    {
        if (m_socket.state() != QAbstractSocket::ConnectedState) {
            m_socket.abort();
            m_socket.connectToHost(QHostAddress::LocalHost, m_port);
            if (!m_socket.waitForConnected(deadlineMs))
                return false;
            // As Qt's own HTTP client does.
            m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
            ++connects;
        }
        QByteArray request = method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: "
                             + QByteArray::number(body.size()) + "\r\n";
        for (const auto& [name, value] : headers)
            request += name + ": " + value + "\r\n";
        request += "\r\n" + body;
        m_socket.write(request);
        while (m_socket.bytesToWrite() > 0) {
            if (!m_socket.waitForBytesWritten(deadlineMs))
                return false;
        }
        return true;
    }

    std::optional<Response> readHead()
    {
        const auto statusLine = readLine();
        if (!statusLine)
            return std::nullopt;
        Response response;
        response.status = statusLine->split(' ').value(1).toInt();
        while (const auto line = readLine()) {
            if (line->isEmpty())
                return response;
            const auto colon = line->indexOf(':');
            response.headers.insert(line->left(colon).trimmed().toLower(), line->mid(colon + 1).trimmed());
        }
        return std::nullopt;
    }

    // One chunk of a chunked body; empty at its end.
    std::optional<QByteArray> readChunk()
    {
        const auto sizeLine = readLine();
        bool ok = false;
        const auto size = sizeLine ? sizeLine->split(';').value(0).toLongLong(&ok, 16) : 0;
        if (!ok)
            return std::nullopt;
        auto data = read(size + 2); // and its CRLF
        if (data)
            data->chop(2);
        return data;
    }

    std::optional<Response> request(const QByteArray& method, const QByteArray& path, const QByteArray& body = {},
                                    const Headers& headers = {})
    {
        if (!send(method, path, body, headers))
            return std::nullopt;
        auto response = readHead();
        if (!response)
            return std::nullopt;
        if (response->headers.value("transfer-encoding") == "chunked") {
            while (true) {
                const auto chunk = readChunk();
                if (!chunk)
                    return std::nullopt;
                if (chunk->isEmpty())
                    return response;
                response->body += *chunk;
            }
        }
        const auto whole = read(response->headers.value("content-length").toLongLong());
        if (!whole)
            return std::nullopt;
        response->body = *whole;
        return response;
    }

private:
    std::optional<QByteArray> readLine()
    {
        while (!m_socket.canReadLine()) {
            if (!m_socket.waitForReadyRead(deadlineMs))
                return std::nullopt;
        }
        auto line = m_socket.readLine();
        line.chop(line.endsWith("\r\n") ? 2 : 1);
        return line;
    }

    std::optional<QByteArray> read(qint64 size)
    {
        while (m_socket.bytesAvailable() < size) {
            if (!m_socket.waitForReadyRead(deadlineMs))
                return std::nullopt;
        }
        return m_socket.read(size);
    }

    quint16 m_port;
    QTcpSocket m_socket;
};

// Enough of a career for the offline engine to draft from.
const QString resumeText = uR"(Jordan Example
EXPERIENCE
Senior Backend Engineer, Northwind Payments (2019-2024)
- Led the rebuild of the billing service, cutting latency by 40% for six teams.
- Found and fixed a race in the ledger's retry queue that double-charged one order in 10,000.
- Migrated fraud detection to streaming, cutting incidents by a third.
Backend Engineer, Contoso Search (2015-2019)
- Designed the indexing pipeline that serves 2 billion queries a day.
EDUCATION
BSc Computer Science)"_s;

// The real ravlet-server as a child process on a free loopback port, with its database in a
// temporary folder and no language model, so that its offline engine answers; signed in through
// its own sign-in page ("Continue on this computer"), with a resume uploaded.
class RavletServer {
public:
    ~RavletServer()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.terminate();
            if (!m_process.waitForFinished(5'000))
                m_process.kill();
        }
    }

    // The reason when the server did not start or the sign-in failed.
    const char* start()
    {
        if (!m_dir.isValid())
            return "no temporary folder";
        {
            QTcpServer probe;
            if (!probe.listen(QHostAddress::LocalHost, 0))
                return "no free loopback port";
            port = probe.serverPort();
        }
        auto environment = QProcessEnvironment::systemEnvironment();
        // A language model or a database named by the caller's environment would not be this bench's.
        for (const auto& key : environment.keys()) {
            if (key.startsWith(u"RAVLET_"_s))
                environment.remove(key);
        }
        environment.insert(u"XDG_DATA_HOME"_s, m_dir.path());
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(RAVLET_SERVER_PATH), {u"--listen"_s, u"127.0.0.1:%1"_s.arg(port), u"--database"_s,
                                                           m_dir.filePath(u"server.sqlite"_s)});
        if (!m_process.waitForStarted(deadlineMs))
            return "ravlet-server did not start";
        const auto isUp = [this] {
            KeepAliveConnection probe(port);
            const auto health = probe.request("GET", "/health");
            return health && health->status == 200;
        };
        if (!QTest::qWaitFor([&] { return m_process.state() == QProcess::Running && isUp(); }, deadlineMs))
            return "ravlet-server did not answer /health";
        return signIn();
    }

    QString origin() const { return u"http://127.0.0.1:%1"_s.arg(port); }

    quint16 port = 0;
    QString accessToken;
    QString resumeId;

private:
    const char* signIn()
    {
        KeepAliveConnection http(port);
        const auto page = http.request("GET", "/auth/login?state=bench");
        static const QRegularExpression csrfField(uR"re(name="csrf" value="([^"]+)")re"_s);
        const auto csrf = page ? csrfField.match(QString::fromUtf8(page->body)).captured(1) : QString();
        if (csrf.isEmpty())
            return "the sign-in page has no form";
        const auto form = "action=local&state=bench&csrf=" + QUrl::toPercentEncoding(csrf);
        const auto redirect = http.request("POST", "/auth/login", form,
                                           {{"Content-Type", "application/x-www-form-urlencoded"},
                                            {"Cookie", page->headers.value("set-cookie").split(';').first()}});
        if (!redirect || redirect->status != 303)
            return "\"Continue on this computer\" was refused";
        const auto code = QUrlQuery(QUrl(QString::fromUtf8(redirect->headers.value("location"))))
                              .queryItemValue(u"code"_s, QUrl::FullyDecoded);
        const auto exchanged =
            http.request("POST", "/api/v1/auth/exchange", QJsonDocument(QJsonObject{{u"code"_s, code}}).toJson(),
                         {{"Content-Type", "application/json"}});
        accessToken = exchanged ? QJsonDocument::fromJson(exchanged->body)[u"accessToken"_s].toString() : QString();
        if (accessToken.isEmpty())
            return "the sign-in code was not exchanged";

        const auto boundary = u"benchboundary"_s;
        const auto uploaded = http.request(
            "POST", "/api/v1/resume/upload",
            APIClient::multipartBody(boundary, u"resume.txt"_s, u"text/plain"_s, resumeText.toUtf8(), std::nullopt),
            {{"Authorization", "Bearer " + accessToken.toLatin1()},
             {"Content-Type", "multipart/form-data; boundary=" + boundary.toLatin1()}});
        resumeId = uploaded ? QJsonDocument::fromJson(uploaded->body)[u"id"_s].toString() : QString();
        return resumeId.isEmpty() ? "the resume was not uploaded" : nullptr;
    }

    QTemporaryDir m_dir;
    QProcess m_process;
};

struct ServerAnswers {
    std::vector<qint64> toFirstLine;
    int connects = 0;
    const char* failure = nullptr;
};

// The server alone: `body` posted `pressCount` times over one kept-open connection, timed from
// the request written to the first answer line received.
ServerAnswers timeServerAnswers(const RavletServer& server, const QByteArray& body)
{
    ServerAnswers answers;
    KeepAliveConnection http(server.port);
    const KeepAliveConnection::Headers headers{{"Authorization", "Bearer " + server.accessToken.toLatin1()},
                                               {"Content-Type", "application/json"}};
    for (int k = 0; k < pressCount; ++k) {
        const qint64 sentNs = steadyNs();
        const auto head = http.send("POST", "/api/v1/chat/answer", body, headers) ? http.readHead() : std::nullopt;
        if (!head || head->status != 200) {
            answers.failure = "the server did not answer";
            break;
        }
        qint64 firstLineNs = 0;
        bool ended = false;
        while (const auto chunk = http.readChunk()) {
            if (chunk->isEmpty()) {
                ended = true;
                break;
            }
            if (firstLineNs == 0 && chunk->startsWith("data: {\"content\""))
                firstLineNs = steadyNs();
        }
        if (!ended || firstLineNs == 0) {
            answers.failure = "an answer from the server was cut short or empty";
            break;
        }
        answers.toFirstLine.push_back(firstLineNs - sentNs);
        // The server stores the answer after its last line; a person's next press comes much later.
        QThread::msleep(20);
    }
    answers.connects = http.connects;
    return answers;
}

void BM_TriggerKeyToFirstFrameFromTheServer(benchmark::State& state)
{
    RavletServer server;
    if (const char* failure = server.start()) {
        state.SkipWithError(failure);
        return;
    }
    LoopbackInterview interview(AnswerServer{server.origin(), server.accessToken, server.resumeId});
    Presses presses;
    for (auto _ : state)
        presses = pressTrigger(interview);
    if (presses.failure) {
        awaitTask(interview.vm.stopInterview(), deadlineMs);
        state.SkipWithError(presses.failure);
        report(state, presses);
        return;
    }
    // The very body the client sent last, with the interview still open.
    const auto alone = timeServerAnswers(server, interview.network.lastAnswerBody);
    awaitTask(interview.vm.stopInterview(), deadlineMs);
    if (alone.failure)
        state.SkipWithError(alone.failure);

    report(state, presses);
    const double serverP50 = percentileMs(alone.toFirstLine, 0.50);
    const double serverP95 = percentileMs(alone.toFirstLine, 0.95);
    state.counters["server_p50_ms"] = serverP50;
    state.counters["server_p95_ms"] = serverP95;
    state.counters["server_max_ms"] = percentileMs(alone.toFirstLine, 1.0);
    state.counters["server_connects"] = alone.connects;
    state.counters["client_p50_ms"] = percentileMs(presses.toFrame, 0.50) - serverP50;
    state.counters["client_p95_ms"] = percentileMs(presses.toFrame, 0.95) - serverP95;
}
BENCHMARK(BM_TriggerKeyToFirstFrameFromTheServer)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    // The renderer the program itself would pick on this machine, unless the caller picks one.
    std::fprintf(stderr, "renderer: %s\n", qPrintable(applyRendererChoice().reason));
    QmlShellWindows::prepareDrawing();
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
