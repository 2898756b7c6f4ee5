// Word error rate of the built-in recogniser on interview questions spoken by espeak-ng, clean
// and at 10 dB signal-to-noise, with and without the interview language model; the CPU share of
// one recogniser fed in real time; and, through a running ravlet-server, the CPU share and memory
// of one listen socket. Prints its figures; it asserts nothing.
#include "OfflineRecognizer.h"
#include "SpokenAudio.h"
#include "TokenSigner.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QNetworkRequest>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QWebSocket>

#include <cstdio>
#include <ctime>
#include <functional>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Not in the interview model's own sentences, so the model has to generalise.
const QStringList questions{
    u"Tell me about the hardest bug you have fixed"_s,
    u"What did you enjoy most in your last role"_s,
    u"How do you handle feedback from your manager"_s,
    u"Describe a time you worked with a difficult colleague"_s,
    u"Why are you looking for a new position"_s,
    u"What is your biggest strength as an engineer"_s,
    u"How would you explain your project to a customer"_s,
    u"Tell me about a decision you made without enough information"_s,
    u"What would you do in your first month here"_s,
    u"How do you keep your skills up to date"_s,
    u"Give me an example of a goal you did not reach"_s,
    u"What kind of team do you like to work in"_s,
    u"How do you decide what to work on first"_s,
    u"Tell me about a time you had to learn something quickly"_s,
    u"What are you looking for in this company"_s,
    u"How do you make sure your work is tested"_s,
    u"Describe a project that did not go as planned"_s,
    u"What questions do you have about the role"_s,
    u"How would your last team describe you"_s,
    u"Where do you want to be in three years"_s,
};

QStringList words(const QString& text)
{
    static const QRegularExpression nonWord(u"[^a-z' ]"_s);
    return text.toLower().replace(nonWord, u" "_s).split(u' ', Qt::SkipEmptyParts);
}

int editDistance(const QStringList& reference, const QStringList& hypothesis)
{
    std::vector<int> row(std::size_t(hypothesis.size() + 1));
    for (std::size_t j = 0; j < row.size(); ++j)
        row[j] = int(j);
    for (qsizetype i = 1; i <= reference.size(); ++i) {
        int diagonal = row[0];
        row[0] = int(i);
        for (qsizetype j = 1; j <= hypothesis.size(); ++j) {
            const int above = row[std::size_t(j)];
            row[std::size_t(j)] = std::min({above + 1, row[std::size_t(j - 1)] + 1,
                                            diagonal + (reference[i - 1] == hypothesis[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row.back();
}

QString recognise(OfflineRecognizer& recognizer, const QByteArray& pcm)
{
    QStringList heard;
    auto events = recognizer.feed(pcm);
    const auto rest = recognizer.finish();
    events.insert(events.end(), rest.begin(), rest.end());
    for (const auto& event : events) {
        if (event.kind == RecognitionEvent::Kind::final)
            heard << event.text;
    }
    return heard.join(u' ');
}

double threadCpuSeconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

// The server's own CPU seconds (user and system) and resident memory, from /proc.
struct ProcessUsage {
    double cpuSeconds = 0;
    double rssMb = 0;
};
ProcessUsage usageOf(qint64 pid)
{
    ProcessUsage usage;
    QFile stat(u"/proc/%1/stat"_s.arg(pid));
    if (stat.open(QIODevice::ReadOnly)) {
        const auto fields = stat.readAll().split(')').value(1).split(' ');
        // After the name: state is field 3, utime 14 and stime 15 of the whole line.
        usage.cpuSeconds = double(fields.value(12).toLongLong() + fields.value(13).toLongLong())
                           / double(sysconf(_SC_CLK_TCK));
    }
    QFile status(u"/proc/%1/status"_s.arg(pid));
    if (status.open(QIODevice::ReadOnly)) {
        for (const auto& line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:"))
                usage.rssMb = line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
        }
    }
    return usage;
}

void turnEventLoop(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

bool waitFor(const std::function<bool()>& condition, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        turnEventLoop(10);
    }
    return true;
}

// Sockets of the built-in recogniser on a real ravlet-server: one fed in real time for its CPU
// share, then more opened for the memory each takes.
void measureListenSockets(const QByteArray& stream)
{
    QTemporaryDir dir;
    const QByteArray key(32, 'b');
    QFile keyFile(dir.filePath(u"key"_s));
    if (!keyFile.open(QIODevice::WriteOnly))
        return;
    keyFile.write(key.toHex() + '\n');
    keyFile.close();
    quint16 port = 0;
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        port = probe.serverPort();
    }
    QProcess server;
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(QStringLiteral(RAVLET_SERVER_PATH),
                 {u"--listen"_s, u"127.0.0.1:%1"_s.arg(port), u"--database"_s, dir.filePath(u"db.sqlite"_s),
                  u"--signing-key-file"_s, keyFile.fileName()});
    const auto isUp = [&] {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        return probe.waitForConnected(200);
    };
    if (!server.waitForStarted() || !waitFor(isUp, 10'000)) {
        std::printf("listen sockets: ravlet-server did not start\n");
        return;
    }
    const auto now = QDateTime::currentSecsSinceEpoch();
    const auto token = TokenSigner(key).sign(
        {{u"sub"_s, u"bench"_s}, {u"typ"_s, u"speech"_s}, {u"iat"_s, now}, {u"exp"_s, now + 600}});
    QUrl url(u"ws://127.0.0.1:%1/v1/listen?encoding=linear16&sample_rate=16000&channels=1"
             u"&interim_results=true&utterance_end_ms=1500&language=au"_s.arg(port));
    QNetworkRequest request(url);
    request.setRawHeader("Authorization", "Bearer " + token.toLatin1());

    struct Socket {
        QWebSocket socket;
        int finals = 0;
        bool isOpen = false;
    };
    std::vector<std::unique_ptr<Socket>> sockets;
    const auto openSocket = [&] {
        auto socket = std::make_unique<Socket>();
        auto* raw = socket.get();
        QObject::connect(&raw->socket, &QWebSocket::connected, [raw] { raw->isOpen = true; });
        QObject::connect(&raw->socket, &QWebSocket::textMessageReceived, [raw](const QString& text) {
            if (text.contains(u"\"is_final\":true"_s))
                ++raw->finals;
        });
        raw->socket.open(request);
        waitFor([raw] { return raw->isOpen; }, 10'000);
        sockets.push_back(std::move(socket));
        return raw;
    };

    const auto idle = usageOf(server.processId());
    auto* first = openSocket();
    // The decoder loads with the first frame; a second of speech shows what one socket holds.
    first->socket.sendBinaryMessage(stream.left(32'000));
    turnEventLoop(2'000);
    const auto oneLoaded = usageOf(server.processId());

    QElapsedTimer wall;
    wall.start();
    constexpr qsizetype chunk = 3200; // 100 ms, as the capture sends it
    for (qsizetype offset = 32'000; offset < stream.size(); offset += chunk) {
        first->socket.sendBinaryMessage(stream.mid(offset, chunk));
        const qint64 due = (offset - 32'000 + chunk) * 1000 / 32000;
        if (const auto wait = due - wall.elapsed(); wait > 0)
            turnEventLoop(int(wait));
    }
    turnEventLoop(500); // the last frames' decoding
    const auto fed = usageOf(server.processId());
    const double seconds = double(wall.elapsed()) / 1000.0;
    std::printf("one listen socket through ravlet-server: %.1f s of audio in real time, %d final results, "
                "%.2f s of server CPU: %.1f %% of one core (goal under 50 %%)\n",
                seconds, first->finals, fed.cpuSeconds - oneLoaded.cpuSeconds,
                100.0 * (fed.cpuSeconds - oneLoaded.cpuSeconds) / seconds);

    constexpr int more = 4;
    for (int i = 0; i < more; ++i)
        openSocket()->socket.sendBinaryMessage(stream.left(32'000));
    turnEventLoop(4'000);
    const auto allLoaded = usageOf(server.processId());
    std::printf("memory: server idle %.0f MB; first socket +%.1f MB; %d more sockets +%.1f MB each\n",
                idle.rssMb, oneLoaded.rssMb - idle.rssMb, more, (allLoaded.rssMb - oneLoaded.rssMb) / more);
    sockets.clear();
    server.terminate();
    server.waitForFinished(5'000);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (const auto tool = SpokenAudio::missingTool(); !tool.isEmpty() || !OfflineRecognizer::isModelInstalled()) {
        std::printf("skipped: %s\n", tool.isEmpty() ? "no PocketSphinx English model" : qPrintable(tool + u" is missing"_s));
        return 0;
    }
    struct Condition {
        QString voice;
        int speed;
    };
    const std::vector<Condition> conditions{{u"en-us"_s, 150}, {u"en-us"_s, 190}, {u"en"_s, 150}, {u"en"_s, 190}};
    std::vector<std::pair<QString, QByteArray>> clean;
    for (const auto& condition : conditions) {
        for (const auto& question : questions) {
            if (const auto pcm = SpokenAudio::speak(question, {condition.voice, condition.speed}))
                clean.emplace_back(question, *pcm);
        }
    }
    std::printf("%zu utterances: 20 questions x voices en-us, en x %d and %d words a minute\n", clean.size(),
                conditions[0].speed, conditions[1].speed);

    for (const float weight : {0.0f, 0.3f}) {
        OfflineRecognizer::Options options;
        options.interviewWeight = weight;
        for (const double snr : {1000.0, 10.0}) {
            OfflineRecognizer recognizer(options);
            int errors = 0;
            int total = 0;
            std::vector<int> errorsBySpeed(2, 0), totalBySpeed(2, 0);
            for (std::size_t i = 0; i < clean.size(); ++i) {
                const auto& [question, pcm] = clean[i];
                const auto input = snr < 100 ? SpokenAudio::withNoise(pcm, snr, unsigned(i)) : pcm;
                const auto reference = words(question);
                const int e = editDistance(reference, words(recognise(recognizer, input)));
                errors += e;
                total += int(reference.size());
                const auto speed = (i / std::size_t(questions.size())) % 2;
                errorsBySpeed[speed] += e;
                totalBySpeed[speed] += int(reference.size());
            }
            std::printf("interview model %.1f, %s: WER %.1f %% (%d/%d words; %.1f %% at %d wpm, %.1f %% at %d wpm)\n",
                        double(weight), snr < 100 ? "10 dB SNR" : "clean    ", 100.0 * errors / total, errors, total,
                        100.0 * errorsBySpeed[0] / totalBySpeed[0], conditions[0].speed,
                        100.0 * errorsBySpeed[1] / totalBySpeed[1], conditions[1].speed);
            std::fflush(stdout);
        }
    }

    // Real time: 100 ms of audio every 100 ms, as a client's capture sends it.
    QByteArray stream;
    for (std::size_t i = 0; i < 8; ++i)
        stream += clean[i].second;
    OfflineRecognizer recognizer;
    const double cpuBefore = threadCpuSeconds();
    QElapsedTimer wall;
    wall.start();
    constexpr qsizetype chunk = 3200;
    for (qsizetype offset = 0; offset < stream.size(); offset += chunk) {
        recognizer.feed(QByteArrayView(stream).sliced(offset, std::min(chunk, stream.size() - offset)));
        const qint64 due = (offset + chunk) * 1000 / 32000;
        if (const auto wait = due - wall.elapsed(); wait > 0)
            QThread::msleep(quint64(wait));
    }
    const double cpu = threadCpuSeconds() - cpuBefore;
    const double seconds = double(wall.elapsed()) / 1000.0;
    std::printf("real-time feed: %.1f s of audio, %.2f s of CPU: %.1f %% of one core (goal under 50 %%)\n", seconds,
                cpu, 100.0 * cpu / seconds);
    std::fflush(stdout);
    measureListenSockets(stream);
    return 0;
}
