#pragma once

#include "TaskHandle.h"

#include <QCoroTask>
#include <QPointer>
#include <QString>

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

class TelemetryClient;

// Leaves one JSON file behind when the process dies of a fatal signal or an uncaught C++
// exception, and sends it through TelemetryClient at the next launch. The crashing process
// sends nothing: it only writes that file, with async-signal-safe calls into buffers prepared
// at install. There is at most one report; the last crash wins.
class CrashReporter {
public:
    static constexpr int maxMessageLength = 512;  // UTF-16 units, as the upload cuts again
    static constexpr int maxStackLength = 16384;
    // "2026-11-23T00:40:12.345Z"
    static constexpr std::size_t timestampLength = 24;

    // What the next launch sends of a report, with the defaults of missing keys filled in.
    struct PendingReport {
        QString exceptionType;
        QString exceptionMessage;
        QString stackTrace;
        QString lastState;
        friend bool operator==(const PendingReport&, const PendingReport&) = default;
    };

    explicit CrashReporter(QString reportPath = defaultReportPath());
    CrashReporter(const CrashReporter&) = delete;
    CrashReporter& operator=(const CrashReporter&) = delete;

    // The instance the application installs; its report lives at defaultReportPath().
    static CrashReporter& shared();
    // $XDG_DATA_HOME/Ravlet/pending_crash.json
    static QString defaultReportPath();

    QString reportPath() const { return m_reportPath; }

    // Stores the collaborators, sets the process-wide handlers (they write to this reporter's
    // path) and starts the upload of a report left by an earlier run. `lastStateProvider` is
    // kept but never called: a crashing process can't safely run it, so reports say "unknown".
    void install(TelemetryClient* telemetry, std::function<QString()> lastStateProvider);

    // The next-launch step: sends the pending report once, then deletes it whatever happened.
    QCoro::Task<> uploadPendingReport();
    // The upload that install started (tests wait for it).
    const TaskHandle& uploadTask() const { return m_upload; }

    // The report the handlers write, to an open descriptor; false when a write failed. Texts
    // are cut to the limits above, and bytes that are not UTF-8 become U+FFFD. Like the
    // handlers, it allocates nothing and is not reentrant.
    static bool writeReport(int fd, std::string_view type, std::string_view message,
                            std::string_view stack, std::int64_t seconds,
                            std::int64_t nanoseconds) noexcept;
    // A report file's bytes; nothing unless they are one JSON object of texts.
    static std::optional<PendingReport> readPendingReport(const QByteArray& bytes);

    // Formats a UTC moment as the report's clientTs without the C library, so that a signal
    // handler may call it. `out` gets timestampLength characters and no terminator.
    static void formatTimestamp(std::int64_t seconds, std::int64_t nanoseconds, char* out) noexcept;

private:
    QString m_reportPath;
    QPointer<TelemetryClient> m_telemetry;
    std::function<QString()> m_lastStateProvider;
    TaskHandle m_upload;
};
