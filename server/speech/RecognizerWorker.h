#pragma once

#include "DeepgramWire.h"
#include "ListenSession.h"
#include "OfflineRecognizer.h"

#include <QObject>

#include <memory>

// One listen socket's recogniser. It lives on a thread of its own (moveToThread), so a slow
// decoder holds up only its own socket; the socket's side calls its slots through queued
// connections and forwards the messages it emits. Interrupting the thread stops the decoding.
class RecognizerWorker : public QObject {
    Q_OBJECT
public:
    // Half a second of audio: a long frame is decoded in slices of this size.
    static constexpr qsizetype sliceBytes = 16'000;

    explicit RecognizerWorker(DeepgramWire::ListenRequest request, QString requestId,
                              OfflineRecognizer::Options options = {}, QObject* parent = nullptr);
    ~RecognizerWorker() override;

public Q_SLOTS:
    // Loads the decoder (a fraction of a second) on the worker's own thread.
    void start();
    // Binary frames: 16-bit PCM of any length.
    void pushAudio(const QByteArray& pcm);
    // Text frames: the client's control messages.
    void pushText(const QString& text);

Q_SIGNALS:
    void message(const QString& text);
    // Everything has been said after "CloseStream": the socket may close.
    void closeRequested();
    void failed(const QString& reason);

private:
    bool ensureStarted();
    void send(const QStringList& messages);

    OfflineRecognizer::Options m_options;
    ListenSession m_session;
    std::unique_ptr<OfflineRecognizer> m_recognizer;
    bool m_isClosed = false;
};
