#include "Log.h"

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {
LogSink& currentSink()
{
    static LogSink sink;
    return sink;
}
} // namespace

QString formatLogLine(QStringView tag, QStringView message)
{
    QString line;
    line.reserve(tag.size() + message.size() + 3);
    line.append(u'[').append(tag).append(u"] ").append(message);
    return line;
}

void logLine(QStringView tag, QStringView message)
{
    const auto line = formatLogLine(tag, message);
    if (const auto& sink = currentSink()) {
        sink(line);
        return;
    }
    const auto bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stderr);
}

LogSink setLogSink(LogSink sink)
{
    return std::exchange(currentSink(), std::move(sink));
}
