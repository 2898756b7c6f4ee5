#pragma once

#include <QString>
#include <QStringView>

#include <functional>

// The program's log lines are plain "[Tag] message" lines on standard error. Several of them
// are part of the behaviour, so they are printed exactly as written and never with levels.
// Never log tokens, request bodies, transcript text or answers.
void logLine(QStringView tag, QStringView message);

QString formatLogLine(QStringView tag, QStringView message);

// Replaces where lines go (tests capture them); returns the previous sink. An empty sink
// restores standard error.
using LogSink = std::function<void(const QString& line)>;
LogSink setLogSink(LogSink sink);
