#pragma once

#include <QCoroTask>
#include <QObject>
#include <QString>
#include <QUrl>

#include <memory>
#include <optional>

class Clock;
class QNetworkAccessManager;
class QProcess;

// The program's own backend when its origin is on this computer: if nothing answers there, the
// ravlet-server installed beside the program is started for this user (its data under
// $XDG_DATA_HOME/RavletAI, as it chooses itself), and stopped when this object goes, that is
// when the program quits. An origin elsewhere, or a program without a server beside it (one run
// from its build folder), starts nothing.
class LocalServer : public QObject {
public:
    static inline const QString programName = QStringLiteral("ravlet-server");

    LocalServer(QUrl origin, QString programDir, Clock& clock, QNetworkAccessManager& network);
    ~LocalServer() override;

    // Starts the server when it should, then waits for its /health, at most `readyTimeoutMs`.
    // True when the origin answers at the end; false also when nothing was to be started.
    QCoro::Task<bool> ensureRunning();

    // The server's --listen value for an origin it can serve here (http:// on a loopback
    // address); none for any other origin.
    static std::optional<QString> listenAddressFor(const QUrl& origin);

    // Whether a server this object started is still running.
    bool isRunning() const;

    static constexpr qint64 readyTimeoutMs = 15'000; // a first start creates the database
    static constexpr qint64 probeIntervalMs = 100;

private:
    QCoro::Task<bool> answers();
    void stop();

    QUrl m_origin;
    QString m_programDir;
    Clock& m_clock;
    QNetworkAccessManager& m_network;
    std::unique_ptr<QProcess> m_process;
};
