#pragma once

#include <QByteArray>
#include <QString>

class QQuickItem;
class QQuickWindow;

#include <optional>
#include <string>

// The private X display that scripts/test-display.sh starts for CTest (fixture "Display");
// RAVLET_DISPLAY_STATE names its state file.
namespace DisplayFixture {

// Points this process at the display; call before the application object exists. Sets the
// reason to skip when Xvfb is not installed.
void attach();
std::optional<std::string> skipReason();

// A value of a KEY=VALUE state file written by one of the test scripts.
QByteArray stateValue(const QString& stateFile, const QByteArray& key);

// Top-level windows of the display by title: whether one is mapped and viewable.
bool isWindowViewable(const QString& title);

// The visible item of `window` whose accessible name is `name`, if any.
QQuickItem* findByAccessibleName(QQuickWindow* window, const QString& name);
// What the window shows, as build/screenshots/<name>.png.
bool saveScreenshot(QQuickWindow* window, const QString& name);

} // namespace DisplayFixture
