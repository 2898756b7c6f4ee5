#pragma once

#include "AccountService.h"
#include "Stores.h"

#include <QJsonObject>
#include <QObject>

#include <memory>
#include <optional>

class HttpServer;
class QWebSocket;

// The transcript WebSocket: each final line is written, then acknowledged with its id and the
// revision now stored for it. Lines may come twice or out of order; the table keeps the
// newest revision of each and reads them back by time of speech.
class TranscriptSocket : public QObject {
    Q_OBJECT

public:
    static constexpr qint64 maxFrameBytes = 256 * 1024;
    // Frames that are not transcript lines are skipped; this many in a row ends the connection.
    static constexpr int maxBadFramesInARow = 100;

    static void attach(HttpServer& server, AccountService& accounts, InterviewStore& interviews,
                       QObject* owner);

    // A frame as a line to store; nothing when it is not a transcript line.
    static std::optional<TranscriptLine> lineOfFrame(const QByteArray& data);
    // The text of a binary frame; nothing unless it is UTF-8 throughout.
    static std::optional<QString> binaryFrameText(const QByteArray& data);
    // The acknowledgement of a stored line, naming the revision now stored for it.
    static QString ackFrame(const QString& id, qint64 storedRevision);

    TranscriptSocket(std::unique_ptr<QWebSocket> socket, QString userId, QString sessionId,
                      InterviewStore& interviews, QObject* parent);
    ~TranscriptSocket() override;

private:
    void onFrame(const QByteArray& data);

    std::unique_ptr<QWebSocket> m_socket;
    QString m_userId;
    QString m_sessionId;
    InterviewStore& m_interviews;
    int m_badFrames = 0;
};

// A transcript entry of the wire, checked; nothing when a key is missing or of another type.
std::optional<TranscriptLine> transcriptLineFrom(const QJsonObject& object);
