#include "DisplayFixture.h"

#include <QDir>
#include <QFileInfo>
#include <QFile>
#include <QProcess>
#include <QQmlContext>
#include <QQmlProperty>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

std::optional<std::string> g_skipReason;

// A value of the KEY=VALUE state file that scripts/test-display.sh writes.
QByteArray stateValue(const QString& stateFile, const QByteArray& key)
{
    QFile file(stateFile);
    for (const auto& line :
         file.open(QIODevice::ReadOnly) ? file.readAll().split('\n') : QByteArrayList()) {
        if (line.startsWith(key + '='))
            return line.mid(key.size() + 1);
    }
    return {};
}

} // namespace

void DisplayFixture::attach()
{
    // Without the display the application still has to start, to list and skip the tests.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    const QString state = qEnvironmentVariable("RAVLET_DISPLAY_STATE");
    const auto missing = stateValue(state, "MISSING");
    const auto display = stateValue(state, "DISPLAY");
    if (!missing.isEmpty() || display.isEmpty()) {
        g_skipReason =
            state.isEmpty() ? "RAVLET_DISPLAY_STATE is not set: run through CTest"
            : !missing.isEmpty()
                ? missing.toStdString() + " is not installed (scripts/install-deps.sh installs it)"
                : "the display fixture did not start";
        return;
    }
    qputenv("DISPLAY", display);
    qputenv("QT_QPA_PLATFORM", "xcb");
    qputenv("QT_QUICK_BACKEND", "software");
}

std::optional<std::string> DisplayFixture::skipReason() { return g_skipReason; }

std::optional<QString> DisplayFixture::tool(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 10000)) {
        process.kill();
        process.waitForFinished();
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return std::nullopt;
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

QQuickItem* DisplayFixture::findByAccessibleName(QQuickWindow* window, const QString& name)
{
    QList<QQuickItem*> pending{window->contentItem()};
    while (!pending.isEmpty()) {
        QQuickItem* item = pending.takeFirst();
        if (!item->isVisible())
            continue;
        const QQmlProperty property(item, QStringLiteral("Accessible.name"), qmlContext(item));
        if (property.isValid() && property.read().toString() == name)
            return item;
        pending.append(item->childItems());
    }
    return nullptr;
}

void DisplayFixture::saveScreenshot(QQuickWindow* window, const QString& name)
{
    QTest::qWait(100); // the frame after the last change
    const QString path = QStringLiteral(RAVLET_SCREENSHOT_DIR "/") + name + QStringLiteral(".png");
    QDir().mkpath(QFileInfo(path).absolutePath());
    window->grabWindow().save(path);
}
