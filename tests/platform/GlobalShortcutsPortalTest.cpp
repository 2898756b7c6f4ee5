// Global shortcuts through the desktop portal, against a stand-in portal on a private bus (a
// small Python service implementing the documented interface): what the real portal under KWin
// never does in the Wayland runs, which bind the chords and press them: a trigger key that
// changes, a refused shortcut, and a press meant for another program's session.

#include "GlobalShortcutsPortal.h"
#include "DesktopShortcuts.h"
#include "UserSettings.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryFile>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const QString portalName = u"org.freedesktop.portal.Desktop"_s;

class GlobalShortcutsPortalTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A bus of our own that activates nothing: with the session defaults, an installed
        // desktop portal would be started on it and answer in the fake's place.
        ASSERT_TRUE(m_config.open());
        m_config.write(
            "<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>"
            "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
            "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>");
        m_config.close();
        m_daemon.start(u"dbus-daemon"_s, {u"--config-file="_s + m_config.fileName(), u"--nofork"_s,
                                          u"--print-address"_s});
        ASSERT_TRUE(m_daemon.waitForStarted(5000)) << "no dbus-daemon";
        ASSERT_TRUE(QTest::qWaitFor([&] { return m_daemon.canReadLine(); }, 5000));
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        m_busName = u"private-%1"_s.arg(++s_buses);
        m_bus =
            std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(m_address, m_busName));
        ASSERT_TRUE(m_bus->isConnected());
    }

    void TearDown() override
    {
        m_fake.kill();
        m_fake.waitForFinished();
        m_bus.reset();
        QDBusConnection::disconnectFromBus(m_busName);
        m_daemon.kill();
        m_daemon.waitForFinished();
    }

    void startFake(const QStringList& arguments = {})
    {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, m_address);
        m_fake.setProcessEnvironment(environment);
        m_fake.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_fake.start(u"/usr/bin/python3"_s,
                     QStringList{QStringLiteral(RAVLET_FAKE_PORTAL)} + arguments);
        ASSERT_TRUE(QTest::qWaitFor(
            [&] { return m_bus->interface()->isServiceRegistered(portalName).value(); }, 10000))
            << "the stand-in portal did not come up";
    }

    QJsonArray calls() const
    {
        const auto reply = m_bus->call(
            QDBusMessage::createMethodCall(portalName, u"/org/freedesktop/portal/desktop"_s,
                                           u"org.ravlet.test.FakePortal"_s, u"Calls"_s));
        return QJsonDocument::fromJson(reply.arguments().value(0).toString().toUtf8()).array();
    }

    void fire(const QString& session, const QString& shortcut) const
    {
        auto call = QDBusMessage::createMethodCall(portalName, u"/org/freedesktop/portal/desktop"_s,
                                                   u"org.ravlet.test.FakePortal"_s, u"Fire"_s);
        call << QVariant::fromValue(QDBusObjectPath(session)) << shortcut;
        m_bus->call(call);
    }

    static bool bindAndWait(GlobalShortcutsPortal& portal, const AITriggerKey& key)
    {
        QSignalSpy changed(&portal, &GlobalShortcutsPortal::stateChanged);
        portal.bind(DesktopShortcuts::forTriggerKey(key));
        return changed.wait(10000);
    }

    QTemporaryFile m_config;
    QProcess m_daemon, m_fake;
    QString m_address, m_busName;
    std::unique_ptr<QDBusConnection> m_bus;
    static inline int s_buses = 0;
};

const AITriggerKey f5{96, false, std::nullopt, u"F5"_s};
const AITriggerKey letterA{0, false, std::nullopt, u"A"_s};

// A key that types nothing is asked for as it is; a letter gets our chord, in a new session
// after the old one is closed. A refused shortcut is reported and left out; a press for another
// program's session is not ours.
TEST_F(GlobalShortcutsPortalTest, ANewSessionForEachTriggerKeyRefusalsAndOnlyOurPresses)
{
    EXPECT_FALSE(GlobalShortcutsPortal::isAvailable(*m_bus)) << "a portal where none runs";
    ASSERT_NO_FATAL_FAILURE(startFake({u"--refuse"_s, u"select-down"_s}));
    EXPECT_TRUE(GlobalShortcutsPortal::isAvailable(*m_bus));
    GlobalShortcutsPortal portal(*m_bus);

    for (const auto& [key, trigger, firstCall] : {std::tuple(f5, u"F5"_s, u"CreateSession"_s),
                                                  {letterA, u"CTRL+ALT+backslash"_s, u"Close"_s}}) {
        const qsizetype before = calls().size();
        ASSERT_TRUE(bindAndWait(portal, key)) << key.displayName.toStdString();
        EXPECT_EQ(calls()[before][0].toString(), firstCall);
        EXPECT_EQ(portal.boundTriggers().value(u"trigger"_s), trigger);
        EXPECT_FALSE(portal.boundTriggers().contains(u"select-down"_s));
        EXPECT_EQ(portal.refused(), QStringList{u"select-down"_s});
    }

    const QString session = calls().last()[1].toString();
    QSignalSpy activated(&portal, &GlobalShortcutsPortal::activated);
    // Signals arrive in order, so the second press shows the first one was dropped.
    fire(u"/org/freedesktop/portal/desktop/session/other/ravletai"_s, u"trigger"_s);
    fire(session, u"next-answer"_s);
    ASSERT_TRUE(activated.wait(5000));
    ASSERT_EQ(activated.size(), 1);
    EXPECT_EQ(activated[0][0].toString(), u"next-answer"_s);
}

} // namespace
