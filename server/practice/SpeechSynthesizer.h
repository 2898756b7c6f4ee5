#pragma once

#include "Clock.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>
#include <variant>

// Speaks a text as a WAV file through espeak-ng, run as a child process with the text on its
// standard input (never a shell, never the command line).
class SpeechSynthesizer : public QObject {
    Q_OBJECT

public:
    // About two minutes of speech: more is not one interview question.
    static constexpr qsizetype maxTextLength = 2'000;
    // Children at once; a burst beyond that is refused rather than queued.
    static constexpr int maxRunning = 4;

    struct Failure {
        int status = 500;
        QString message;
    };
    using Result = std::variant<QByteArray, Failure>;

    // espeak-ng speaks a question in well under a second; a child still busy after this, on
    // `clock`, is stuck and is killed.
    static constexpr qint64 processLimitMs = 20'000;

    SpeechSynthesizer(QString program, Clock& clock, QObject* parent = nullptr);

    // `done` runs once, later; never if this object is destroyed first.
    void speak(const QString& text, const QString& language,
               std::function<void(const Result&)> done);

    // The espeak-ng voice for a language such as "de" or "en-GB"; English when unknown.
    static QString voiceFor(const QString& language);
    // espeak-ng writing to a pipe cannot go back to fill in the sizes of its header: the same
    // audio with a header whose sizes are right, or nothing when it is not a PCM WAV stream.
    static std::optional<QByteArray> completeWav(const QByteArray& streamed);

private:
    QString program() const;

    QString m_program;
    Clock& m_clock;
    int m_running = 0;
};
