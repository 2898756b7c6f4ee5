#include "DesktopIntegration.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

// The desktop's own openers hand a "ravlet" address to the program that our entry names, for a
// path that a shell would misread. Checked with the real xdg-open (its generic path, as outside
// GNOME, KDE and Xfce and inside Chromium) and with gio where it is installed: a test that
// started the program itself would prove nothing.
TEST(DesktopEntryTest, TheDesktopsOpenersHandTheAddressToTheProgram)
{
    if (QStandardPaths::findExecutable(u"xdg-open"_s).isEmpty())
        GTEST_SKIP() << "xdg-open (xdg-utils) is not installed";
    QTemporaryDir home;
    ASSERT_TRUE(home.isValid());
    const QString root = home.path();
    for (const char* folder : {"data", "config", "none"})
        QDir(root).mkpath(QString::fromLatin1(folder));
    qputenv("XDG_DATA_HOME", (root + u"/data"_s).toUtf8());
    qputenv("XDG_CONFIG_HOME", (root + u"/config"_s).toUtf8());
    qputenv("XDG_DATA_DIRS", (root + u"/none"_s).toUtf8());
    qputenv("XDG_CONFIG_DIRS", (root + u"/none"_s).toUtf8());
    qputenv("DISPLAY", ":99"); // xdg-open asks for a display before it reads scheme handlers
    for (const char* name :
         {"XDG_CURRENT_DESKTOP", "DESKTOP_SESSION", "KDE_FULL_SESSION", "BROWSER"})
        qunsetenv(name);

    const QString address = u"ravlet://auth-callback?code=a1b2&state=s%20t"_s;
    const QString received = root + u"/received"_s;
    QStringList openers{u"xdg-open"_s};
    if (!QStandardPaths::findExecutable(u"gio"_s).isEmpty())
        openers << u"gio"_s;

    // A path that a shell would misread in every way; the plain path is the whole-product test's.
    const QString folder = u"it's \"$(touch pwned)\" `touch pwned`"_s;
    QDir(root).mkpath(folder);
    const QString program = root + u'/' + folder + u"/ravletai"_s;
    QFile stub(program);
    ASSERT_TRUE(stub.open(QIODevice::WriteOnly));
    stub.write("#!/bin/sh\nprintf '%s\\n' \"$@\" >'" + received.toUtf8() + "'\n");
    stub.close();
    stub.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    DesktopIntegration desktop;
    QSignalSpy finished(&desktop, &DesktopIntegration::finished);
    desktop.registerSchemeHandler(program);
    ASSERT_TRUE(finished.size() == 1 || finished.wait(10000));
    EXPECT_TRUE(finished.first().first().toBool());
    EXPECT_TRUE(DesktopIntegration::isCurrent(DesktopIntegration::userEntryPath(), program));

    for (const QString& opener : openers) {
        SCOPED_TRACE(opener.toStdString());
        QFile::remove(received);
        QProcess open;
        open.setWorkingDirectory(root); // where an injected `touch pwned` would land
        open.start(opener,
                   opener == u"gio"_s ? QStringList{u"open"_s, address} : QStringList{address});
        ASSERT_TRUE(open.waitForFinished(20000));
        EXPECT_EQ(open.exitCode(), 0) << open.readAllStandardError().toStdString();
        // gio does not wait for the program it starts: the file may be there, still empty
        for (int tries = 0; tries < 100 && QFileInfo(received).size() == 0; ++tries)
            QThread::msleep(50);
        QFile got(received);
        ASSERT_TRUE(got.open(QIODevice::ReadOnly)) << "the program was never started";
        EXPECT_EQ(QString::fromUtf8(got.readAll()), address + u'\n');
    }
    EXPECT_FALSE(QFile::exists(root + u"/pwned"_s)) << "a path in the entry ran a command";
}

} // namespace
