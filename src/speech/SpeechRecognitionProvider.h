#pragma once

#include "AsyncQueue.h"
#include "AudioFraming.h"
#include "Records.h"

#include <QCoroTask>
#include <QObject>
#include <QString>

#include <memory>
#include <optional>

// The one way a recogniser reports trouble: it needs to be started again.
struct SpeechRecognitionRecoveryEvent {
    QString reason;
    bool countsTowardLimit = true;
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
    std::shared_ptr<SegmentStream> transcriptSegments() const { return m_segments; }
    std::shared_ptr<RecoveryStream> recoveryEvents() const { return m_recovery; }

    // The language setting as the vendors take it: its first two characters, lower-cased.
    static QString twoLetterLanguage(const QString& setting) { return setting.left(2).toLower(); }

protected:
    const std::shared_ptr<SegmentStream> m_segments = std::make_shared<SegmentStream>();
    const std::shared_ptr<RecoveryStream> m_recovery = std::make_shared<RecoveryStream>();

private:
    Speaker m_speaker;
};
