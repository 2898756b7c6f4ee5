// Latency of the answer stream: from the moment a line is written to the loopback socket by a
// server on its own thread to the moment the caller of streamAnswer holds the chunk.
#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "NotificationCenter.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace {

constexpr int chunkCount = 10'000;
// A line a millisecond: faster than any model writes an answer, slow enough that the figure
// is the latency of one line rather than the time a backlog takes to drain.
constexpr int lineIntervalMs = 1;

qint64 steadyNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Answers every request with `chunkCount` lines, `lineIntervalMs` apart, each stamped with
// the time it was written.
class StampingServer : public QObject {
public:
    StampingServer()
    {
        QObject::connect(&m_server, &QTcpServer::newConnection, this, [this] {
            auto* socket = m_server.nextPendingConnection();
            auto* request = new QByteArray;
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, request] {
                *request += socket->readAll();
                const auto end = request->indexOf("\r\n\r\n");
                if (end < 0)
                    return;
                const auto lengthAt = request->toLower().indexOf("content-length:");
                const auto length = lengthAt < 0 ? 0 : request->mid(lengthAt + 15, request->indexOf('\r', lengthAt) - lengthAt - 15).trimmed().toInt();
                if (request->size() < end + 4 + length)
                    return;
                delete request;
                QObject::disconnect(socket, &QTcpSocket::readyRead, nullptr, nullptr);
                socket->write("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n\r\n");
                writeLine(socket, 0);
            });
        });
        m_server.listen(QHostAddress::LocalHost, 0);
    }
    quint16 port() const { return m_server.serverPort(); }

private:
    void writeLine(QTcpSocket* socket, int index)
    {
        if (index == chunkCount) {
            socket->write("data: [DONE]\n");
            socket->disconnectFromHost();
            return;
        }
        socket->write("data: {\"content\":\"" + QByteArray::number(steadyNs()) + "\"}\n");
        socket->flush();
        QTimer::singleShot(lineIntervalMs, Qt::PreciseTimer, socket, [this, socket, index] { writeLine(socket, index + 1); });
    }

    QTcpServer m_server;
};

QCoro::Task<std::vector<qint64>> collect(APIClient& client)
{
    auto result = co_await client.streamAnswer({QStringLiteral("bench"), {}, {}, {}, {}, {}});
    std::vector<qint64> latencies;
    latencies.reserve(chunkCount);
    while (auto chunk = co_await result.stream->next())
        latencies.push_back(steadyNs() - chunk->toLongLong());
    co_return latencies;
}

void BM_StreamAnswerChunkLatency(benchmark::State& state)
{
    QThread serverThread;
    serverThread.start();
    // The server is made inside its thread, so its sockets live there.
    QObject anchor;
    anchor.moveToThread(&serverThread);
    StampingServer* server = nullptr;
    QMetaObject::invokeMethod(
        &anchor, [&] { server = new StampingServer; }, Qt::BlockingQueuedConnection);
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client(QStringLiteral("http://127.0.0.1:") + QString::number(server->port()), tokens, notifications);

    std::vector<qint64> all;
    for (auto _ : state) {
        auto latencies = awaitTask(collect(client));
        if (latencies.size() != chunkCount)
            state.SkipWithError("lost chunks");
        all.insert(all.end(), latencies.begin(), latencies.end());
    }
    std::sort(all.begin(), all.end());
    const auto percentile = [&](double p) { return all.empty() ? 0.0 : double(all[std::size_t(p * double(all.size() - 1))]) / 1000.0; };
    state.counters["chunks"] = double(all.size());
    state.counters["p50_us"] = percentile(0.50);
    state.counters["p99_us"] = percentile(0.99);

    QMetaObject::invokeMethod(&anchor, [server] { delete server; }, Qt::BlockingQueuedConnection);
    anchor.moveToThread(nullptr);
    serverThread.quit();
    serverThread.wait();
}
BENCHMARK(BM_StreamAnswerChunkLatency)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
