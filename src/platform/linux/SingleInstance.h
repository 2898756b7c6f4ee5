#pragma once

#include <QLocalServer>
#include <QObject>
#include <QStringList>

#include <chrono>

// One running program per user session. The first process listens on a local socket in
// $XDG_RUNTIME_DIR; a later process hands its arguments to it and exits. A socket left by a
// crashed run answers nobody and is removed, never trusted.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    // A running instance that does not take the arguments this fast counts as gone.
    static constexpr std::chrono::milliseconds answerWithin{1500};

    explicit SingleInstance(QString socketPath = defaultSocketPath(), QObject* parent = nullptr);
    ~SingleInstance() override;

    static QString defaultSocketPath();

    // Gives `arguments` to a running instance; true once it has taken them.
    bool forwardToRunning(const QStringList& arguments) const;
    // Becomes the running instance; false when the socket can't be made.
    bool listen();
    QString socketPath() const { return m_socketPath; }

Q_SIGNALS:
    // The arguments of a later start, in order.
    void argumentsReceived(const QStringList& arguments);

private:
    void onNewConnection();

    QString m_socketPath;
    QLocalServer m_server;
};
