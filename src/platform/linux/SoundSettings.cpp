#include "SoundSettings.h"

#include <QProcess>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

std::optional<SoundSettings::Command> SoundSettings::find(const std::function<QString(const QString&)>& findExecutable)
{
    const QList<Command> candidates{
        {u"gnome-control-center"_s, {u"sound"_s}},
        {u"systemsettings"_s, {u"kcm_pulseaudio"_s}},
        {u"pavucontrol"_s, {}},
    };
    for (const auto& candidate : candidates) {
        const QString path = findExecutable(candidate.program);
        if (!path.isEmpty())
            return Command{path, candidate.arguments};
    }
    return std::nullopt;
}

bool SoundSettings::open()
{
    const auto command = find([](const QString& name) { return QStandardPaths::findExecutable(name); });
    return command && QProcess::startDetached(command->program, command->arguments);
}
