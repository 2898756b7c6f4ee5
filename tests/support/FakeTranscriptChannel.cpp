#include "FakeTranscriptChannel.h"

#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QWebSocket>
#include <QWebSocketCorsAuthenticator>
#include <QWebSocketServer>

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

FakeTranscriptChannel::FakeTranscriptChannel(QObject* parent)
    : QObject(parent)
    , m_server(
          new QWebSocketServer(u"FakeTranscriptChannel"_s, QWebSocketServer::NonSecureMode, this))
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

// Cut, so that a client still running sees the server vanish rather than say goodbye.
FakeTranscriptChannel::~FakeTranscriptChannel()
{
    closeAbruptly();
}

int FakeTranscriptChannel::openConnectionCount() const
{
    return int(std::count_if(m_records.begin(), m_records.end(),
                             [](const auto& record) { return record.isOpen; }));
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
    return it == m_acknowledgedLines.cend() ? std::nullopt : std::optional(it->content);
}

bool FakeTranscriptChannel::sendAck(const QStringList& ids)
{
    auto* peer = newestOpen();
    if (peer)
        sendAckFrame(peer, ids);
    return peer != nullptr;
}

bool FakeTranscriptChannel::send(const QByteArray& data, bool isBinary)
{
    auto* peer = newestOpen();
    if (peer)
        isBinary ? peer->socket->sendBinaryMessage(data)
                 : peer->socket->sendTextMessage(QString::fromUtf8(data));
    return peer != nullptr;
}

void FakeTranscriptChannel::closeAbruptly()
{
    for (const auto& peer : m_peers)
        cut(peer.get());
}

void FakeTranscriptChannel::onNewConnection()
{
    while (auto* socket = m_server->nextPendingConnection()) {
        socket->setParent(this);
        auto* peer = m_peers.emplace_back(std::make_unique<Peer>()).get();
        peer->socket = socket;
        peer->index = int(m_records.size());
        m_records.append({socket->requestUrl().query(QUrl::FullyEncoded), true});
        connect(socket, &QWebSocket::textMessageReceived, this, [this, peer](const QString& text) {
            onFrame(peer, {false, text.toUtf8()});
        });
        connect(socket, &QWebSocket::binaryMessageReceived, this,
                [this, peer](const QByteArray& bytes) {
                    onFrame(peer, {true, bytes});
                });
        connect(socket, &QWebSocket::disconnected, this, [this, peer] {
            if (peer->socket) {
                m_records[peer->index].isOpen = false;
                std::exchange(peer->socket, nullptr)->deleteLater();
            }
        });
        socket->sendTextMessage(uR"({"type":"connected"})"_s);
    }
}

void FakeTranscriptChannel::onFrame(Peer* peer, const Frame& frame)
{
    if (!peer->socket)
        return;
    m_frames.append(frame);
    auto& latest = m_latest[frame.id()];
    if (frame.revision() >= latest.revision)
        latest = {frame.revision(), frame.content()};

    const auto reaction = m_rule ? m_rule(frame) : Reaction::ack;
    if (reaction == Reaction::ack || reaction == Reaction::ackThenDrop)
        ack(peer, frame);
    if (reaction == Reaction::drop || reaction == Reaction::ackThenDrop)
        cut(peer);
}

void FakeTranscriptChannel::ack(Peer* peer, const Frame& frame)
{
    // Without revisions an ack covers the frame it answers; with them, what it names.
    const Line line =
        m_withRevisions ? m_latest.value(frame.id()) : Line{frame.revision(), frame.content()};
    auto& acknowledged = m_acknowledgedLines[frame.id()];
    if (line.revision >= acknowledged.revision)
        acknowledged = line;
    sendAckFrame(peer, {frame.id()});
}

void FakeTranscriptChannel::sendAckFrame(Peer* peer, const QStringList& ids)
{
    QJsonObject message{{u"type"_s, u"ack"_s}, {u"ids"_s, QJsonArray::fromStringList(ids)}};
    if (m_withRevisions) {
        QJsonObject revisions;
        for (const auto& id : ids)
            revisions.insert(id, m_latest.value(id).revision);
        message.insert(u"revisions"_s, revisions);
    }
    peer->socket->sendTextMessage(
        QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void FakeTranscriptChannel::cut(Peer* peer)
{
    auto* socket = std::exchange(peer->socket, nullptr);
    if (!socket)
        return;
    m_records[peer->index].isOpen = false;
    socket->disconnect(this);
    // What was written (an ack just before the cut) goes out first, as far as the kernel takes it.
    socket->flush();
    socket->abort();
    socket->deleteLater();
}

FakeTranscriptChannel::Peer* FakeTranscriptChannel::newestOpen()
{
    for (auto it = m_peers.rbegin(); it != m_peers.rend(); ++it)
        if ((*it)->socket)
            return it->get();
    return nullptr;
}
