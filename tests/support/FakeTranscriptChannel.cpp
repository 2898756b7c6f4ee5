#include "FakeTranscriptChannel.h"

#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QWebSocket>
#include <QWebSocketCorsAuthenticator>
#include <QWebSocketServer>

using namespace Qt::StringLiterals;

QJsonObject FakeTranscriptChannel::Frame::json() const
{
    return QJsonDocument::fromJson(data).object();
}

FakeTranscriptChannel::FakeTranscriptChannel(QObject* parent)
    : QObject(parent)
    , m_server(new QWebSocketServer(u"FakeTranscriptChannel"_s, QWebSocketServer::NonSecureMode,
                                    this))
{
    connect(m_server, &QWebSocketServer::originAuthenticationRequired, this,
            [this](QWebSocketCorsAuthenticator* authenticator) {
                ++m_handshakeAttempts;
                authenticator->setAllowed(!m_refusing);
            });
    connect(m_server, &QWebSocketServer::newConnection, this,
            &FakeTranscriptChannel::onNewConnection);
    if (!m_server->listen(QHostAddress::LocalHost, 0))
        qFatal("FakeTranscriptChannel cannot listen: %s", qPrintable(m_server->errorString()));
}

FakeTranscriptChannel::~FakeTranscriptChannel()
{
    for (const auto& peer : m_peers) {
        if (peer->socket) {
            peer->socket->disconnect(this);
            peer->socket->abort();
        }
    }
}

QString FakeTranscriptChannel::baseURL() const
{
    return u"http://127.0.0.1:"_s + QString::number(m_server->serverPort());
}

void FakeTranscriptChannel::setAckPolicy(AckPolicy policy, int k)
{
    m_policy = policy;
    m_dropAfter = k;
}

void FakeTranscriptChannel::setFrameRule(std::function<Reaction(const Frame&)> rule)
{
    m_rule = std::move(rule);
}

int FakeTranscriptChannel::openConnectionCount() const
{
    int open = 0;
    for (const auto& record : m_records)
        open += record.isOpen ? 1 : 0;
    return open;
}

QStringList FakeTranscriptChannel::receivedIds() const
{
    QStringList ids;
    for (const auto& frame : m_frames)
        ids.append(frame.id());
    return ids;
}

std::optional<QString> FakeTranscriptChannel::acknowledgedText(const QString& id) const
{
    const auto it = m_acknowledgedLines.constFind(id);
    if (it == m_acknowledgedLines.cend())
        return std::nullopt;
    return it->content;
}

bool FakeTranscriptChannel::sendAck(const QStringList& ids)
{
    auto* peer = newestOpen();
    if (!peer)
        return false;
    sendAckFrame(peer, ids);
    return true;
}

bool FakeTranscriptChannel::sendText(const QString& text)
{
    auto* peer = newestOpen();
    if (!peer)
        return false;
    peer->socket->sendTextMessage(text);
    return true;
}

bool FakeTranscriptChannel::sendBinary(const QByteArray& bytes)
{
    auto* peer = newestOpen();
    if (!peer)
        return false;
    peer->socket->sendBinaryMessage(bytes);
    return true;
}

void FakeTranscriptChannel::releaseHeld()
{
    for (const auto& peer : m_peers) {
        const auto held = std::exchange(peer->held, {});
        if (peer->socket && !held.isEmpty())
            ack(peer.get(), held);
    }
}

void FakeTranscriptChannel::closeAbruptly()
{
    for (const auto& peer : m_peers) {
        if (peer->socket)
            cut(peer.get());
    }
}

void FakeTranscriptChannel::onNewConnection()
{
    while (auto* socket = m_server->nextPendingConnection()) {
        socket->setParent(this);
        auto peer = std::make_unique<Peer>();
        peer->socket = socket;
        peer->index = int(m_records.size());
        const auto url = socket->requestUrl();
        m_records.append({url.path(QUrl::FullyEncoded), url.query(QUrl::FullyEncoded), true,
                          std::nullopt});
        auto* raw = peer.get();
        m_peers.push_back(std::move(peer));
        connect(socket, &QWebSocket::textMessageReceived, this,
                [this, raw](const QString& text) { onFrame(raw, false, text.toUtf8()); });
        connect(socket, &QWebSocket::binaryMessageReceived, this,
                [this, raw](const QByteArray& bytes) { onFrame(raw, true, bytes); });
        connect(socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), this,
                [raw](QAbstractSocket::SocketError) { raw->wasCut = true; });
        connect(socket, &QWebSocket::disconnected, this, [this, raw] {
            if (!raw->socket)
                return;
            auto& record = m_records[raw->index];
            record.isOpen = false;
            if (!raw->wasCut)
                record.closeCode = int(raw->socket->closeCode());
            std::exchange(raw->socket, nullptr)->deleteLater();
        });
        if (m_greeting)
            socket->sendTextMessage(uR"({"type":"connected"})"_s);
    }
}

void FakeTranscriptChannel::onFrame(Peer* peer, bool isBinary, const QByteArray& data)
{
    if (!peer->socket)
        return;
    const Frame frame{peer->index, isBinary, data};
    m_frames.append(frame);
    ++peer->framesReceived;
    auto& latest = m_latest[frame.id()];
    if (frame.revision() >= latest.revision)
        latest = {frame.revision(), frame.content()};

    if (m_rule) {
        switch (m_rule(frame)) {
        case Reaction::ack:
            ack(peer, {frame});
            break;
        case Reaction::hold:
            peer->held.append(frame);
            break;
        case Reaction::ignore:
            break;
        case Reaction::drop:
            cut(peer);
            break;
        case Reaction::ackThenDrop:
            ack(peer, {frame});
            cut(peer);
            break;
        }
        return;
    }

    switch (m_policy) {
    case AckPolicy::ackEverything:
        ack(peer, {frame});
        break;
    case AckPolicy::ackNothing:
        break;
    case AckPolicy::dropAfterFrames:
        if (peer->framesReceived >= m_dropAfter)
            cut(peer);
        else
            ack(peer, {frame});
        break;
    case AckPolicy::duplicateAndUnknown:
        ack(peer, {frame});
        ack(peer, {frame});
        sendAckFrame(peer, {unknownAckId});
        break;
    }
}

void FakeTranscriptChannel::ack(Peer* peer, const QList<Frame>& frames)
{
    if (!peer->socket)
        return;
    QStringList ids;
    for (const auto& frame : frames) {
        ids.append(frame.id());
        // Without revisions an ack covers the frame it answers; with them, what it names.
        const int revision = m_withRevisions ? m_latest.value(frame.id()).revision : frame.revision();
        const QString content = m_withRevisions ? m_latest.value(frame.id()).content : frame.content();
        auto& acknowledged = m_acknowledgedLines[frame.id()];
        if (revision >= acknowledged.revision)
            acknowledged = {revision, content};
    }
    sendAckFrame(peer, ids);
}

void FakeTranscriptChannel::sendAckFrame(Peer* peer, const QStringList& ids)
{
    if (!peer->socket)
        return;
    QJsonObject message{{u"type"_s, u"ack"_s}, {u"ids"_s, QJsonArray::fromStringList(ids)}};
    if (m_withRevisions) {
        QJsonObject revisions;
        for (const auto& id : ids)
            revisions.insert(id, m_latest.value(id).revision);
        message.insert(u"revisions"_s, revisions);
    }
    const auto text = QJsonDocument(message).toJson(QJsonDocument::Compact);
    peer->socket->sendTextMessage(QString::fromUtf8(text));
    for (const auto& id : ids)
        m_acknowledged.insert(id);
}

void FakeTranscriptChannel::cut(Peer* peer)
{
    auto* socket = std::exchange(peer->socket, nullptr);
    if (!socket)
        return;
    m_records[peer->index].isOpen = false;
    peer->held.clear();
    socket->disconnect(this);
    // What was written (an ack just before the cut) goes out first, as far as the kernel takes it.
    socket->flush();
    socket->abort();
    socket->deleteLater();
}

FakeTranscriptChannel::Peer* FakeTranscriptChannel::newestOpen()
{
    for (auto it = m_peers.rbegin(); it != m_peers.rend(); ++it) {
        if ((*it)->socket)
            return it->get();
    }
    return nullptr;
}
