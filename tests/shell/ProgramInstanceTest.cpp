// The single running instance: a socket left behind by a killed run answers nobody, must not
// swallow the next start, and is replaced by one that listens. (A second start handing its
// address to the running program, a third start and Quit run in real processes in the
// whole-product test.)

#include "SingleInstance.h"

#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

TEST(ProgramInstanceTest, SocketLeftByAKilledRunIsReplaced)
{
    QTemporaryDir folder;
    const QString path = folder.filePath(u"ravletai.socket"_s);
    // What a killed run leaves: the socket's file, listened on by nobody. (A server that closes
    // takes its file with it, so this one's is moved away first.)
    QLocalServer killed;
    ASSERT_TRUE(killed.listen(path + u".old"_s));
    ASSERT_TRUE(QFile::rename(path + u".old"_s, path));
    killed.close();
    ASSERT_TRUE(QFileInfo(path).exists());

    SingleInstance instance(path);
    EXPECT_FALSE(instance.forwardToRunning({u"--quit"_s})) << "handed over to a dead socket";
    ASSERT_TRUE(instance.listen());
    QLocalSocket next;
    next.connectToServer(path);
    EXPECT_TRUE(next.waitForConnected(1000)) << "the next start would find nobody";
}

} // namespace
