#pragma once

#include "AsyncQueue.h"
#include "AudioFraming.h"
#include "Records.h"

#include <QCoroTask>
#include <QObject>
#include <QString>

#include <memory>
#include <optional>
#include <stdexcept>

// The one way a recogniser reports trouble: it needs to be started again.
struct SpeechRecognitionRecoveryEvent {
    QString reason;
    bool countsTowardLimit = true;
    // The connection it came from (see currentConnection); 0 for none in particular. Both ends
    // of one broken socket report, and the second report must not tear down its successor.
    quint64 connection = 0;
};

// A recogniser was given an origin that makes no address; shown to the user as it stands.
class InvalidSpeechEndpointError : public std::runtime_error {
public:
    InvalidSpeechEndpointError() : std::runtime_error("Invalid speech endpoint") {}
};

// A streaming recogniser for one channel of one interview. Everything that goes wrong after
// start() arrives on recoveryEvents(); the streams outlive restarts (start again on the same
// object) and end with stop().
class SpeechRecognitionProvider : public QObject {
    Q_OBJECT

public:
    using Speaker = TranscriptEntry::Speaker;
    using SegmentStream = AsyncQueue<TranscriptSegment>;
    using RecoveryStream = AsyncQueue<SpeechRecognitionRecoveryEvent>;

    explicit SpeechRecognitionProvider(Speaker speaker, QObject* parent = nullptr)
        : QObject(parent), m_speaker(speaker)
    {
    }

    virtual QCoro::Task<> start(QString token, QString language, std::shared_ptr<AudioStream> audio,
                                std::optional<QString> model) = 0;
    virtual QCoro::Task<> stop() = 0;
    // The vendor origin for the next start, when a speech token names one.
    virtual void setOrigin(QString origin) { Q_UNUSED(origin) }

    Speaker speaker() const { return m_speaker; }
    // Numbers the connections of the successive starts; 0 before the first.
    quint64 currentConnection() const { return m_connection; }
    std::shared_ptr<SegmentStream> transcriptSegments() const { return m_segments; }
    std::shared_ptr<RecoveryStream> recoveryEvents() const { return m_recovery; }

    // The language setting as the vendors take it: its first two characters, lower-cased.
    static QString twoLetterLanguage(const QString& setting) { return setting.left(2).toLower(); }

protected:
    const std::shared_ptr<SegmentStream> m_segments = std::make_shared<SegmentStream>();
    const std::shared_ptr<RecoveryStream> m_recovery = std::make_shared<RecoveryStream>();
    quint64 m_connection = 0;

private:
    Speaker m_speaker;
};
