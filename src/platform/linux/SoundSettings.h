#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// The desktop's sound settings, where the user picks and unmutes the sources the program
// records from.
namespace SoundSettings {

// The first of GNOME's, KDE's and pavucontrol's settings that is installed.
struct Command {
    QString program;
    QStringList arguments;
};
std::optional<Command> find(const std::function<QString(const QString&)>& findExecutable);

// Starts it; false when none is installed or it would not start.
bool open();

} // namespace SoundSettings
