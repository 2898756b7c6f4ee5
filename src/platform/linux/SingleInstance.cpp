#include "SingleInstance.h"

#include "Log.h"

#include <QDataStream>
#include <QDir>
#include <QLocalSocket>
#include <QPointer>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace {

// The forwarded arguments: one QDataStream QStringList; the answer is one byte.
constexpr char accepted = 'k';
constexpr qint64 maxMessageBytes = 1 << 20;

} // namespace

SingleInstance::SingleInstance(QString socketPath, QObject* parent)
    : QObject(parent)
    , m_socketPath(std::move(socketPath))
{
    connect(&m_server, &QLocalServer::newConnection, this, &SingleInstance::onNewConnection);
}

SingleInstance::~SingleInstance()
{
    m_server.close();
}

QString SingleInstance::defaultSocketPath()
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty())
        folder = QDir::tempPath();
    return folder + u"/ravletai.socket"_s;
}

bool SingleInstance::forwardToRunning(const QStringList& arguments) const
{
    QLocalSocket socket;
    socket.connectToServer(m_socketPath);
    const int waitMs = int(answerWithin.count());
    if (!socket.waitForConnected(waitMs))
        return false;
    QByteArray message;
    {
        QDataStream writer(&message, QIODevice::WriteOnly);
        writer << arguments;
    }
    QDataStream out(&socket);
    out << message;
    if (!socket.waitForBytesWritten(waitMs))
        return false;
    while (socket.bytesAvailable() < 1) {
        if (!socket.waitForReadyRead(waitMs))
            return false;
    }
    char answer = 0;
    return socket.getChar(&answer) && answer == accepted;
}

bool SingleInstance::listen()
{
    // Only reached when no instance answered, so whatever is there is left from a crash.
    QLocalServer::removeServer(m_socketPath);
    m_server.setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server.listen(m_socketPath)) {
        logLine(u"App", u"single-instance socket failed: "_s + m_server.errorString());
        return false;
    }
    return true;
}

void SingleInstance::onNewConnection()
{
    while (auto* socket = m_server.nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket = QPointer(socket)] {
            if (!socket)
                return;
            QDataStream stream(socket.data());
            stream.startTransaction();
            QByteArray message;
            stream >> message;
            if (!stream.commitTransaction()) {
                if (socket->bytesAvailable() > maxMessageBytes)
                    socket->abort();
                return;
            }
            QStringList arguments;
            QDataStream reader(message);
            reader >> arguments;
            socket->putChar(accepted);
            socket->flush();
            socket->disconnectFromServer();
            Q_EMIT argumentsReceived(arguments);
        });
    }
}
