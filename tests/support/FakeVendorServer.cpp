#include "FakeVendorServer.h"

#include <QHostAddress>
#include <QTcpSocket>
#include <QTest>
#include <QUrlQuery>
#include <QWebSocket>
#include <QWebSocketServer>

using namespace Qt::StringLiterals;

QByteArray FakeVendorServer::Connection::header(const QByteArray& name) const
{
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

QStringList FakeVendorServer::Connection::textFrames() const
{
    QStringList texts;
    for (const auto& frame : frames) {
        if (frame.isText)
            texts.append(frame.text());
    }
    return texts;
}

QList<QByteArray> FakeVendorServer::Connection::binaryFrames() const
{
    QList<QByteArray> binaries;
    for (const auto& frame : frames) {
        if (!frame.isText)
            binaries.append(frame.payload);
    }
    return binaries;
}

FakeVendorServer::FakeVendorServer(QStringList subprotocols, QObject* parent)
    : QObject(parent), m_server(new QWebSocketServer(u"fake vendor"_s, QWebSocketServer::NonSecureMode, this))
{
    m_server->setSupportedSubprotocols(subprotocols);
    connect(m_server, &QWebSocketServer::newConnection, this, &FakeVendorServer::onNewConnection);
    if (!m_server->listen(QHostAddress::LocalHost, 0))
        qFatal("FakeVendorServer cannot listen");
}

FakeVendorServer::~FakeVendorServer() = default;

QString FakeVendorServer::origin() const
{
    return u"ws://127.0.0.1:"_s + QString::number(m_server->serverPort());
}

int FakeVendorServer::openConnectionCount() const
{
    int open = 0;
    for (const auto& connection : m_connections) {
        if (connection.socket && connection.socket->state() == QAbstractSocket::ConnectedState)
            ++open;
    }
    return open;
}

void FakeVendorServer::onNewConnection()
{
    while (auto* socket = m_server->nextPendingConnection()) {
        socket->setParent(this);
        Connection connection;
        const auto request = socket->request();
        connection.url = request.url();
        for (const auto& [key, value] : QUrlQuery(connection.url).queryItems(QUrl::FullyDecoded))
            connection.queryItems.append({key, value});
        for (const auto& name : request.rawHeaderList())
            connection.headers.append({name, request.rawHeader(name)});
        for (const auto& protocol : connection.header("Sec-WebSocket-Protocol").split(','))
            if (!protocol.trimmed().isEmpty())
                connection.requestedSubprotocols.append(QString::fromUtf8(protocol.trimmed()));
        connection.socket = socket;
        const auto index = m_connections.size();
        m_connections.append(connection);
        connect(socket, &QWebSocket::textMessageReceived, this, [this, index](const QString& text) {
            m_connections[index].frames.append({true, text.toUtf8()});
            judge(index, text);
            Q_EMIT frameReceived();
        });
        connect(socket, &QWebSocket::binaryMessageReceived, this, [this, index](const QByteArray& bytes) {
            if (m_keepsBinaryFrames)
                m_connections[index].frames.append({false, bytes});
            Q_EMIT binaryFrameReceived(int(index), bytes);
            Q_EMIT frameReceived();
        });
        greet(index);
    }
}

void FakeVendorServer::greet(qsizetype index)
{
    auto& connection = m_connections[index];
    const auto refuse = [&](const QString& reason) {
        connection.socket->close(QWebSocketProtocol::CloseCodePolicyViolated, reason);
    };
    switch (m_behaviour) {
    case Behaviour::scripted:
        return;
    case Behaviour::deepgramToday:
        if (connection.url.path() == u"/v2/listen") {
            const QStringList accepted{u"model"_s, u"encoding"_s, u"sample_rate"_s, u"eot_threshold"_s, u"eot_timeout_ms"_s};
            for (const auto& [key, value] : connection.queryItems) {
                if (!accepted.contains(key))
                    return refuse(u"Unsupported query parameter: "_s + key);
            }
        }
        connection.socket->sendTextMessage(u"{\"type\":\"Connected\",\"request_id\":\"r-1\"}"_s);
        return;
    case Behaviour::openAIToday:
        if (!connection.queryItems.contains(std::pair(u"intent"_s, u"transcription"_s)))
            return refuse(u"Transcription sessions require intent=transcription"_s);
        connection.socket->sendTextMessage(u"{\"type\":\"session.created\"}"_s);
        return;
    case Behaviour::elevenLabsToday:
        for (const auto& [key, value] : connection.queryItems) {
            if (key == u"token" && value == u"expired")
                connection.socket->sendTextMessage(u"{\"message_type\":\"auth_error\",\"error\":\"Token expired\"}"_s);
        }
        if (connection.socket->state() == QAbstractSocket::ConnectedState)
            connection.socket->sendTextMessage(u"{\"message_type\":\"session_started\",\"session_id\":\"s-1\"}"_s);
        return;
    }
}

void FakeVendorServer::judge(qsizetype index, const QString& text)
{
    auto& connection = m_connections[index];
    if (!connection.socket)
        return;
    if (m_behaviour == Behaviour::deepgramToday && connection.url.path() == u"/v2/listen"
        && text.contains(u"KeepAlive"_s)) {
        connection.socket->close(QWebSocketProtocol::CloseCodePolicyViolated, u"KeepAlive is not supported"_s);
    }
    if (m_behaviour == Behaviour::openAIToday && connection.frames.size() == 1) {
        // The first frame must configure a transcription session.
        if (!text.contains(u"\"type\":\"session.update\""_s) || !text.contains(u"\"type\":\"transcription\""_s))
            connection.socket->sendTextMessage(u"{\"type\":\"error\",\"error\":{\"message\":\"Invalid session\"}}"_s);
        else
            connection.socket->sendTextMessage(u"{\"type\":\"session.updated\"}"_s);
    }
}

void FakeVendorServer::sendText(const QString& text)
{
    if (!m_connections.isEmpty() && m_connections.last().socket)
        m_connections.last().socket->sendTextMessage(text);
}

void FakeVendorServer::sendBinary(const QByteArray& bytes)
{
    if (!m_connections.isEmpty() && m_connections.last().socket)
        m_connections.last().socket->sendBinaryMessage(bytes);
}

void FakeVendorServer::sendRawText(const QByteArray& payload)
{
    if (m_connections.isEmpty() || !m_connections.last().socket)
        return;
    // The server's TCP sockets are not the WebSocket's children: find this one by its peer.
    const auto peerPort = m_connections.last().socket->peerPort();
    QTcpSocket* tcp = nullptr;
    for (auto* candidate : findChildren<QTcpSocket*>()) {
        if (candidate->peerPort() == peerPort)
            tcp = candidate;
    }
    if (!tcp || payload.size() >= 126)
        qFatal("sendRawText: no socket, or a payload too long for a one-byte length");
    // FIN and the text opcode, unmasked as a server's frames are, with a one-byte length.
    tcp->write(QByteArray("\x81", 1) + char(payload.size()) + payload);
}

void FakeVendorServer::close(int code, const QString& reason)
{
    if (!m_connections.isEmpty() && m_connections.last().socket)
        m_connections.last().socket->close(QWebSocketProtocol::CloseCode(code), reason);
}

void FakeVendorServer::abort()
{
    if (!m_connections.isEmpty() && m_connections.last().socket)
        m_connections.last().socket->abort();
}

bool FakeVendorServer::waitForFrames(int count, int deadlineMs) const
{
    return QTest::qWaitFor(
        [&] { return !m_connections.isEmpty() && m_connections.last().frames.size() >= count; }, deadlineMs);
}

bool FakeVendorServer::waitForConnections(int count, int deadlineMs) const
{
    return QTest::qWaitFor([&] { return m_connections.size() >= count; }, deadlineMs);
}
