#include "LocalServer.h"

#include "Clock.h"
#include "Log.h"

#include <QCoroNetworkReply>
#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QProcess>

#include <chrono>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int probeTimeoutMs = 1000;
constexpr int stopTimeoutMs = 3000; // the server closes its database on SIGTERM

} // namespace

LocalServer::LocalServer(QUrl origin, QString programDir, Clock& clock, QNetworkAccessManager& network)
    : m_origin(std::move(origin)), m_programDir(std::move(programDir)), m_clock(clock), m_network(network)
{
}

LocalServer::~LocalServer()
{
    stop();
}

std::optional<QString> LocalServer::listenAddressFor(const QUrl& origin)
{
    // The server speaks plain HTTP; an https:// origin is a proxy that is not ours to start.
    if (!origin.isValid() || origin.scheme() != u"http"_s || origin.host().isEmpty())
        return std::nullopt;
    const QString host = origin.host();
    const int port = origin.port(80);
    if (host.compare(u"localhost"_s, Qt::CaseInsensitive) == 0)
        return u"127.0.0.1:"_s + QString::number(port);
    const QHostAddress address(host);
    if (address.isNull() || !address.isLoopback())
        return std::nullopt;
    if (address.protocol() == QAbstractSocket::IPv6Protocol)
        return u'[' + address.toString() + u"]:"_s + QString::number(port);
    return address.toString() + u':' + QString::number(port);
}

bool LocalServer::isRunning() const
{
    return m_process && m_process->state() != QProcess::NotRunning;
}

QCoro::Task<bool> LocalServer::answers()
{
    QPointer self(this);
    QNetworkRequest request(m_origin.resolved(QUrl(u"/health"_s)));
    request.setTransferTimeout(probeTimeoutMs);
    std::unique_ptr<QNetworkReply> reply(m_network.get(request));
    co_await reply.get();
    if (!self)
        co_return false;
    // Any HTTP answer counts: whatever holds the port, a second server could not take it.
    co_return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
}

QCoro::Task<bool> LocalServer::ensureRunning()
{
    QPointer self(this);
    const auto listen = listenAddressFor(m_origin);
    if (!listen)
        co_return false;
    if (co_await answers())
        co_return true;
    if (!self)
        co_return false;

    const QString program = m_programDir + u'/' + programName;
    if (!QFileInfo(program).isExecutable()) {
        logLine(u"App", u"nothing answers at "_s + m_origin.toString() + u" and there is no "_s + programName
                            + u" beside the program to start"_s);
        co_return false;
    }

    m_process = std::make_unique<QProcess>();
    m_process->setProcessChannelMode(QProcess::ForwardedChannels);
    // The server is ours alone: it ends with the program even when the program dies without
    // reaching its own clean-up (a crash, SIGKILL).
    const pid_t parent = ::getpid();
    m_process->setChildProcessModifier([parent] {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent)
            ::_exit(1);
    });
    m_process->start(program, {u"--listen"_s, *listen});
    logLine(u"App", u"started "_s + programName + u" for "_s + m_origin.toString());

    const qint64 deadline = m_clock.nowMs() + readyTimeoutMs;
    while (m_clock.nowMs() < deadline) {
        if (!isRunning()) {
            logLine(u"App", programName + u" ended at start"_s);
            co_return false;
        }
        if (co_await answers())
            co_return true;
        if (!self)
            co_return false;
        co_await m_clock.sleep(std::chrono::milliseconds(probeIntervalMs));
        if (!self)
            co_return false;
    }
    logLine(u"App", programName + u" did not answer at "_s + m_origin.toString() + u" within "_s
                        + QString::number(readyTimeoutMs / 1000) + u" s"_s);
    co_return false;
}

void LocalServer::stop()
{
    if (!isRunning())
        return;
    m_process->terminate();
    if (!m_process->waitForFinished(stopTimeoutMs)) {
        m_process->kill();
        m_process->waitForFinished(stopTimeoutMs);
    }
}
