#include "AppDelegate.h"
#include "RavletApplication.h"

#include <QCoreApplication>
#include <QFile>
#include <QSystemTrayIcon>

#include <cstdio>

// The program with a probe at the end of its start: once the launch is done, the tray icon is
// up and the event loop is idle, it prints "idle <resident kB> <tray available>" and quits.
int main(int argc, char* argv[])
{
    return runRavletApplication(argc, argv, {qEnvironmentVariable("RAVLET_TEST_BACKEND_ORIGIN"), [](AppDelegate&) {
        QFile status(QStringLiteral("/proc/self/status"));
        qint64 residentKb = -1;
        if (status.open(QIODevice::ReadOnly)) {
            for (const auto& line : status.readAll().split('\n')) {
                if (line.startsWith("VmRSS:"))
                    residentKb = line.mid(6).trimmed().split(' ').first().toLongLong();
            }
        }
        std::printf("idle %lld %d\n", static_cast<long long>(residentKb),
                    QSystemTrayIcon::isSystemTrayAvailable() ? 1 : 0);
        std::fflush(stdout);
        QCoreApplication::quit();
    }});
}
