#pragma once

#include <QByteArray>
#include <QString>

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

} // namespace DisplayFixture
