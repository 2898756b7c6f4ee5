// Start-up of the program under Xvfb: from the moment the process is started to the tray icon
// shown and the event loop idle, and resident memory at that point. Each run is a fresh
// process with its own empty folders, signed out (the welcome panel comes up), against a
// keyring and a display of its own. Goals: at most 300 ms and 80 MB.

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

QByteArray stateValue(const QString& file, const QByteArray& key)
{
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    for (const auto& line : f.readAll().split('\n')) {
        if (line.startsWith(key + '='))
            return line.mid(key.size() + 1);
    }
    return {};
}

bool startFixture(const QString& script, const QString& dir)
{
    return QProcess::execute(QStringLiteral("bash"), {script, QStringLiteral("start"), dir}) == 0;
}

void stopFixture(const QString& script, const QString& dir)
{
    QProcess::execute(QStringLiteral("bash"), {script, QStringLiteral("stop"), dir});
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, QByteArray(argv[1]).toInt()) : 10;
    const QString scripts = QStringLiteral(RAVLET_SCRIPTS_DIR);
    QTemporaryDir displayDir, keyringDir;
    if (!startFixture(scripts + QStringLiteral("/test-display.sh"), displayDir.path())
        || !startFixture(scripts + QStringLiteral("/test-keyring.sh"), keyringDir.path())) {
        std::fprintf(stderr, "could not start the private display and keyring\n");
        return 1;
    }
    const auto display = stateValue(displayDir.filePath(QStringLiteral("state")), "DISPLAY");
    const auto bus = stateValue(keyringDir.filePath(QStringLiteral("state")), "DBUS_SESSION_BUS_ADDRESS");

    QList<qint64> times;
    QList<qint64> residents;
    bool trayAvailable = false;
    for (int run = 0; run < runs; ++run) {
        QTemporaryDir home;
        for (const auto* folder : {"runtime", "config", "data", "cache"})
            QDir(home.path()).mkpath(QString::fromLatin1(folder));
        QFile::setPermissions(home.filePath(QStringLiteral("runtime")), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DISPLAY"), QString::fromUtf8(display));
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QString::fromUtf8(bus));
        environment.insert(QStringLiteral("HOME"), home.path());
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.filePath(QStringLiteral("runtime")));
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        environment.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        environment.insert(QStringLiteral("XDG_CACHE_HOME"), home.filePath(QStringLiteral("cache")));
        environment.insert(QStringLiteral("RAVLET_TEST_BACKEND_ORIGIN"), QStringLiteral("http://127.0.0.1:9"));

        QProcess probe;
        probe.setProcessEnvironment(environment);
        probe.setProcessChannelMode(QProcess::SeparateChannels);
        QElapsedTimer timer;
        timer.start();
        probe.start(QStringLiteral(RAVLET_STARTUP_PROBE), {});
        QByteArray line;
        while (!line.contains('\n') && probe.waitForReadyRead(30'000))
            line += probe.readAllStandardOutput();
        const qint64 elapsed = timer.elapsed();
        probe.waitForFinished(10'000);
        const auto fields = line.trimmed().split(' ');
        if (fields.size() != 3 || fields.at(0) != "idle") {
            std::fprintf(stderr, "run %d: no idle report: %s\n%s\n", run, line.constData(),
                         probe.readAllStandardError().constData());
            continue;
        }
        times.append(elapsed);
        residents.append(fields.at(1).toLongLong());
        trayAvailable = fields.at(2) == "1";
    }
    stopFixture(scripts + QStringLiteral("/test-keyring.sh"), keyringDir.path());
    stopFixture(scripts + QStringLiteral("/test-display.sh"), displayDir.path());
    if (times.isEmpty())
        return 1;

    std::sort(times.begin(), times.end());
    std::sort(residents.begin(), residents.end());
    const auto median = [](const QList<qint64>& values) { return values.at(values.size() / 2); };
    std::printf("start-up to tray icon and idle event loop, %lld runs (tray %s):\n",
                static_cast<long long>(times.size()), trayAvailable ? "present" : "absent");
    std::printf("  time     median %lld ms, min %lld ms, max %lld ms   (goal <= 300 ms)\n",
                static_cast<long long>(median(times)), static_cast<long long>(times.first()),
                static_cast<long long>(times.last()));
    std::printf("  resident median %.1f MB, max %.1f MB                 (goal <= 80 MB)\n",
                median(residents) / 1024.0, residents.last() / 1024.0);
    return 0;
}
