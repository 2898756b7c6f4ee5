#pragma once

#include "Log.h"

#include <QStringList>

// Collects the program's log lines for the lifetime of the object.
class LogCapture {
public:
    LogCapture()
    {
        m_previous = setLogSink([this](const QString& line) { m_lines.append(line); });
    }
    ~LogCapture() { setLogSink(std::move(m_previous)); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const QStringList& lines() const { return m_lines; }

private:
    QStringList m_lines;
    LogSink m_previous;
};
