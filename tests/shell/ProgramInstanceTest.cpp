// The single running instance: a socket left behind by a killed run answers nobody, must not
// swallow the next start, and is replaced by one that listens. (A second start handing its
// address to the running program, a third start and Quit run in real processes in the
// whole-product test.)

#include "SingleInstance.h"

#include <QFile>
#include <QLocalSocket>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

using namespace Qt::StringLiterals;

namespace {

TEST(ProgramInstanceTest, SocketLeftByAKilledRunIsReplaced)
{
    QTemporaryDir folder;
    const QByteArray path = QFile::encodeName(folder.filePath(u"ravletai.socket"_s));
    // What a killed run leaves: the socket's file, bound once and listened on by nobody.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.constData(), sizeof(address.sun_path) - 1);
    const int left = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(left, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ::close(left);
    ASSERT_TRUE(QFile::exists(QFile::decodeName(path)));

    SingleInstance instance(QFile::decodeName(path));
    EXPECT_FALSE(instance.forwardToRunning({u"--quit"_s})) << "handed over to a dead socket";
    ASSERT_TRUE(instance.listen());
    QLocalSocket next;
    next.connectToServer(QFile::decodeName(path));
    EXPECT_TRUE(next.waitForConnected(1000)) << "the next start would find nobody";
}

} // namespace
