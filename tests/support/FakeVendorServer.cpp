#include "FakeVendorServer.h"

#include <QHostAddress>
#include <QTest>
#include <QUrlQuery>
#include <QWebSocket>
#include <QWebSocketServer>

#include <algorithm>

using namespace Qt::StringLiterals;

QByteArray FakeVendorServer::Connection::header(const QByteArray& name) const
{
    for (const auto& [key, value] : headers)
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    return {};
}

QList<QByteArray> FakeVendorServer::Connection::binaryFrames() const
{
    QList<QByteArray> binaries;
    for (const auto& frame : frames)
        if (!frame.isText)
            binaries.append(frame.payload);
    return binaries;
}

FakeVendorServer::FakeVendorServer(QStringList subprotocols, QObject* parent)
    : QObject(parent)
    , m_server(new QWebSocketServer(u"fake vendor"_s, QWebSocketServer::NonSecureMode, this))
{
    m_server->setSupportedSubprotocols(subprotocols);
    connect(m_server, &QWebSocketServer::newConnection, this, &FakeVendorServer::onNewConnection);
    if (!m_server->listen(QHostAddress::LocalHost, 0))
        qFatal("FakeVendorServer cannot listen");
}

int FakeVendorServer::openConnectionCount() const
{
    return int(
        std::count_if(m_connections.begin(), m_connections.end(), [](const Connection& connection) {
            return connection.socket
                   && connection.socket->state() == QAbstractSocket::ConnectedState;
        }));
}

void FakeVendorServer::onNewConnection()
{
    while (auto* socket = m_server->nextPendingConnection()) {
        socket->setParent(this);
        Connection connection;
        const auto request = socket->request();
        connection.url = request.url();
        for (const auto& name : request.rawHeaderList())
            connection.headers.append({name, request.rawHeader(name)});
        for (const auto& protocol : connection.header("Sec-WebSocket-Protocol").split(','))
            if (!protocol.trimmed().isEmpty())
                connection.requestedSubprotocols.append(QString::fromUtf8(protocol.trimmed()));
        connection.socket = socket;
        const auto index = m_connections.size();
        m_connections.append(connection);
        const bool isV2 =
            m_behaviour == Behaviour::deepgramToday && connection.url.path() == u"/v2/listen";
        connect(socket, &QWebSocket::textMessageReceived, this,
                [this, index, isV2, socket](const QString& text) {
                    m_connections[index].frames.append({true, text.toUtf8()});
                    if (isV2 && text.contains(u"KeepAlive"_s))
                        socket->close(QWebSocketProtocol::CloseCodePolicyViolated,
                                      u"KeepAlive is not supported"_s);
                });
        connect(socket, &QWebSocket::binaryMessageReceived, this,
                [this, index](const QByteArray& bytes) {
                    if (m_keepsBinaryFrames)
                        m_connections[index].frames.append({false, bytes});
                    Q_EMIT binaryFrameReceived(int(index), bytes);
                });
        if (m_behaviour == Behaviour::scripted)
            continue;
        const QStringList v2Keys{u"model"_s, u"encoding"_s, u"sample_rate"_s, u"eot_threshold"_s,
                                 u"eot_timeout_ms"_s};
        const auto items = QUrlQuery(connection.url).queryItems();
        const auto unsupported = std::find_if(items.begin(), items.end(), [&](const auto& item) {
            return isV2 && !v2Keys.contains(item.first);
        });
        if (unsupported != items.end())
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated,
                          u"Unsupported query parameter: "_s + unsupported->first);
        else
            socket->sendTextMessage(u"{\"type\":\"Connected\",\"request_id\":\"r-1\"}"_s);
    }
}

QWebSocket& FakeVendorServer::latest() const
{
    if (m_connections.isEmpty() || !m_connections.last().socket)
        qFatal("FakeVendorServer: no connection to speak on");
    return *m_connections.last().socket;
}

bool FakeVendorServer::waitForFrames(int count, int deadlineMs) const
{
    return QTest::qWaitFor(
        [&] { return !m_connections.isEmpty() && m_connections.last().frames.size() >= count; },
        deadlineMs);
}

bool FakeVendorServer::waitForConnections(int count, int deadlineMs) const
{
    return QTest::qWaitFor([&] { return m_connections.size() >= count; }, deadlineMs);
}
