#pragma once

#include <QByteArray>
#include <QStringList>

#include <optional>
#include <string>

class QQuickItem;
class QQuickWindow;

// The private X display that scripts/test-display.sh starts for CTest (fixture "Display");
// RAVLET_DISPLAY_STATE names its state file.
namespace DisplayFixture {

// Points this process at the display; call before the application object exists. Sets the
// reason to skip when Xvfb is not installed.
void attach();
std::optional<std::string> skipReason();

// Runs an X tool (xdotool, xprop) to its end while this program goes on handling its events;
// its output, or nothing when it failed.
std::optional<QString> tool(const QString& program, const QStringList& arguments);

// The visible item of `window` whose accessible name is `name`, if any.
QQuickItem* findByAccessibleName(QQuickWindow* window, const QString& name);
// What the window shows, as build/screenshots/<name>.png, for a person to look at.
void saveScreenshot(QQuickWindow* window, const QString& name);

} // namespace DisplayFixture
