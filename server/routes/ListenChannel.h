#pragma once

#include "DeepgramWire.h"

#include <QObject>

#include <memory>

class AccountService;
class Clock;
class HttpServer;
class QThread;
class QWebSocket;

// One socket of the built-in recogniser. The socket stays on the main thread; its decoder runs
// on a thread of its own, so a slow decode holds up this socket's results and no other's.
class ListenChannel : public QObject {
    Q_OBJECT

public:
    // Each socket holds a decoder of its own (about 100 MB) and a thread, and takes a fifth of
    // a core in real time: sixteen interviews of two channels; more sockets are refused.
    static constexpr int maxOpenChannels = 32;
    // A second of audio is 32 KB: a frame of half a minute is no capture's.
    static constexpr qint64 maxFrameBytes = 1024 * 1024;
    // The program sends audio or a keep-alive at least every 5 s: a socket quiet for this long
    // has lost its client without a close, and its decoder is let go.
    static constexpr qint64 idleLimitMs = 30'000;
    // Audio is 16 kHz 16-bit mono. A client may send ahead of time by this much at the start
    // and then at most this many times real time; past that it is closed, so that what waits
    // for a decoder stays bounded.
    static constexpr qint64 audioBytesPerSecond = 32'000;
    static constexpr qint64 headStartSeconds = 30;
    static constexpr qint64 maxSpeedUp = 20;

    // The listen paths of both protocol versions; a handshake without a valid speech token,
    // or asking for what the recogniser cannot do, is refused before any decoder loads.
    // A user may have `socketsPerUser` open at once; more are refused with 429.
    static void attach(HttpServer& server, AccountService& accounts, Clock& clock, QObject* owner,
                       int socketsPerUser);
    // Channels whose decoder thread has not ended yet.
    static int openCount();

    ListenChannel(std::unique_ptr<QWebSocket> socket, DeepgramWire::ListenRequest request,
                  QString userId, Clock& clock, QObject* parent);
    ~ListenChannel() override;

private:
    void end();
    void checkIdle();
    void countAudio(const QByteArray& frame);

    std::unique_ptr<QWebSocket> m_socket;
    // Runs the socket's RecognizerWorker, which is deleted when the thread ends.
    std::unique_ptr<QThread> m_thread;
    Clock& m_clock;
    QString m_userId;
    qint64 m_openedMs = 0;
    qint64 m_audioBytes = 0;
    qint64 m_lastFrameMs = 0;
    quint64 m_idleTimer = 0;
};
