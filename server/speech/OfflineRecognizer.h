#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <memory>
#include <vector>

// What the recogniser heard: a changing guess while a phrase is under way, then the final
// text when the speaker pauses. Times are seconds of audio since the stream began.
struct RecognitionEvent {
    enum class Kind { partial, final };
    Kind kind = Kind::partial;
    QString text;
    double start = 0;
    double duration = 0;
    double confidence = 0;
    // False when a long phrase was cut without a pause, so the speaker is still talking.
    bool atPause = true;
};

// Continuous English recognition of 16 kHz, 16-bit little-endian mono PCM with PocketSphinx.
// One object is one decoder: not thread-safe, but independent of every other object, so each
// stream gets its own and runs on its own thread.
class OfflineRecognizer {
public:
    // Where Debian's pocketsphinx-en-us puts the English model.
    static QString defaultModelDirectory() { return QStringLiteral("/usr/share/pocketsphinx/model/en-us"); }

    struct Options {
        QString modelDirectory = defaultModelDirectory();
        // Share of the interview model in the mix with the general one; 0 turns it off.
        float interviewWeight = 0.3f;
        // Silence that ends a phrase, in 10 ms frames.
        int pauseFrames = 60;
    };

    OfflineRecognizer();
    explicit OfflineRecognizer(const Options& options);
    ~OfflineRecognizer();
    OfflineRecognizer(const OfflineRecognizer&) = delete;
    OfflineRecognizer& operator=(const OfflineRecognizer&) = delete;

    static bool isModelInstalled(const QString& modelDirectory = defaultModelDirectory());

    // False when the acoustic model, dictionary or language model could not be loaded.
    bool isValid() const;
    QString errorString() const;

    // Takes bytes of any count; a trailing odd byte waits for the next call.
    std::vector<RecognitionEvent> feed(QByteArrayView pcm);
    // Ends the phrase under way as if the speaker had paused.
    std::vector<RecognitionEvent> finish();

    double processedSeconds() const;

private:
    struct Decoder;
    std::unique_ptr<Decoder> d;
};
