#include "CrashReporter.h"

#include "Helpers.h"
#include "TelemetryClient.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

#include <cxxabi.h>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>

using namespace Qt::StringLiterals;

namespace {

// From here to onFatalSignal the code runs in a signal handler, possibly after the heap or the
// stack broke: no allocation, no locks, no stdio; only a few system calls and formatting into
// static buffers that install prepared.

constexpr int fatalSignals[] = {SIGABRT, SIGILL, SIGSEGV, SIGFPE, SIGBUS, SIGPIPE, SIGTRAP};
// A symbol line is 50 to 150 bytes, so this many frames fill the stack-trace limit.
constexpr int maxFrames = 512;
constexpr std::size_t maxPathBytes = 4096;
// The limit is in UTF-16 units; a unit takes at most three bytes of UTF-8.
constexpr std::size_t maxStackBytes = 3 * CrashReporter::maxStackLength;
constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

static_assert(std::atomic<bool>::is_always_lock_free, "the crash flags are read in handlers");

char reportPath[maxPathBytes];
char tempPath[maxPathBytes];
std::atomic<bool> pathsReady{false};
// Taken by the first fatal path that writes. Any later one (a fault inside the writer, another
// thread, the abort() that follows an exception's report) leaves the file as it is.
std::atomic<bool> crashHandled{false};
void* frames[maxFrames];
char stackText[maxStackBytes];
char outBuffer[4096];
// Large enough for the unwinder, which runs here after a stack overflow.
alignas(16) char alternateStack[128 * 1024];

struct Text {
    const char* data = nullptr;
    std::size_t size = 0;
};

Text textOf(const char* data)
{
    return {data, std::strlen(data)};
}

char* appendText(char* out, const char* text)
{
    while (*text)
        *out++ = *text++;
    return out;
}

char* appendNumber(char* out, unsigned value)
{
    char digits[10];
    int count = 0;
    do {
        digits[count++] = char('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count > 0)
        *out++ = digits[--count];
    return out;
}

void putDigits(char* out, std::int64_t value, int width)
{
    for (int i = width - 1; i >= 0; --i) {
        out[i] = char('0' + value % 10);
        value /= 10;
    }
}

// Length of the well-formed UTF-8 sequence at `p`, or 0 if the bytes there are not one.
std::size_t utf8SequenceLength(const unsigned char* p, std::size_t available)
{
    const unsigned char lead = p[0];
    if (lead < 0x80)
        return 1;
    std::size_t length = 0;
    std::uint32_t codePoint = 0;
    std::uint32_t smallest = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, codePoint = lead & 0x1F, smallest = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, codePoint = lead & 0x0F, smallest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, codePoint = lead & 0x07, smallest = 0x10000;
    } else {
        return 0;
    }
    if (length > available)
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        codePoint = (codePoint << 6) | (p[i] & 0x3F);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    return codePoint < smallest || codePoint > 0x10FFFF || surrogate ? 0 : length;
}

// Buffered writes to one descriptor. A failure is remembered, not reported at each call.
class ReportStream {
public:
    explicit ReportStream(int fd) : m_fd(fd) {}

    void put(char c)
    {
        if (m_used == sizeof outBuffer)
            flush();
        outBuffer[m_used++] = c;
    }

    void put(Text text)
    {
        for (std::size_t i = 0; i < text.size; ++i)
            put(text.data[i]);
    }

    // A JSON string of at most `maxUnits` UTF-16 units of `text`, never splitting a character.
    // Malformed UTF-8 (a path's bytes, an exception's reason) becomes U+FFFD, so the file always
    // parses.
    void putJsonString(Text text, std::size_t maxUnits)
    {
        static constexpr char hex[] = "0123456789abcdef";
        const auto* bytes = reinterpret_cast<const unsigned char*>(text.data);
        std::size_t units = 0;
        put('"');
        for (std::size_t i = 0; i < text.size;) {
            const std::size_t length = utf8SequenceLength(bytes + i, text.size - i);
            const std::size_t width = length == 4 ? 2 : 1;
            if (units + width > maxUnits)
                break;
            units += width;
            if (length == 0) {
                put(textOf("\\ufffd"));
                ++i;
                continue;
            }
            const unsigned char c = bytes[i];
            if (length > 1) {
                put(Text{text.data + i, length});
            } else if (c == '"' || c == '\\') {
                put('\\');
                put(char(c));
            } else if (c == '\n') {
                put(textOf("\\n"));
            } else if (c == '\t') {
                put(textOf("\\t"));
            } else if (c < 0x20) {
                put(textOf("\\u00"));
                put(hex[c >> 4]);
                put(hex[c & 0xF]);
            } else {
                put(char(c));
            }
            i += length;
        }
        put('"');
    }

    bool flush()
    {
        std::size_t done = 0;
        while (m_ok && done < m_used) {
            const ssize_t written = ::write(m_fd, outBuffer + done, m_used - done);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                m_ok = false;
            else
                done += std::size_t(written);
        }
        m_used = 0;
        return m_ok;
    }

private:
    int m_fd;
    std::size_t m_used = 0;
    bool m_ok = true;
};

// Each symbol line starts with the path of its object ("/home/<name>/.../ravlet(+0x1a)[0x..]"):
// only the file name stays, so that a report names a device and never a person. In place, and
// without a call that a signal handler may not make.
std::size_t withoutFolders(char* text, std::size_t size)
{
    std::size_t out = 0;
    std::size_t lineStart = 0;
    for (std::size_t k = 0; k <= size; ++k) {
        if (k < size && text[k] != '\n')
            continue;
        std::size_t nameStart = lineStart;
        for (std::size_t j = lineStart; j < k && text[j] != '(' && text[j] != '['; ++j) {
            if (text[j] == '/')
                nameStart = j + 1;
        }
        for (std::size_t j = nameStart; j < k; ++j)
            text[out++] = text[j];
        if (k < size)
            text[out++] = '\n';
        lineStart = k + 1;
    }
    return out;
}

// The calling thread's stack as symbol lines joined by line feeds. backtrace_symbols_fd is the
// one way to get symbols without allocating, and it only writes to a descriptor: the lines go
// through the temporary file, which the report then overwrites.
Text captureStack()
{
    const int count = backtrace(frames, maxFrames);
    const int fd = ::open(tempPath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return {};
    std::size_t size = 0;
    if (count > 0) {
        backtrace_symbols_fd(frames, count, fd);
        if (::lseek(fd, 0, SEEK_SET) == 0) {
            while (size < maxStackBytes) {
                const ssize_t got = ::read(fd, stackText + size, maxStackBytes - size);
                if (got < 0 && errno == EINTR)
                    continue;
                if (got <= 0)
                    break;
                size += std::size_t(got);
            }
        }
    }
    ::close(fd);
    size = withoutFolders(stackText, size);
    if (size > 0 && stackText[size - 1] == '\n')
        --size;
    return {stackText, size};
}

// The report's one JSON object; false when a write failed.
bool writeReportTo(int fd, Text type, Text message, Text stack,
                   const char (&timestamp)[CrashReporter::timestampLength])
{
    ReportStream out(fd);
    out.put(textOf("{\"exceptionType\":"));
    out.putJsonString(type, unlimited);
    out.put(textOf(",\"exceptionMessage\":"));
    out.putJsonString(message, CrashReporter::maxMessageLength);
    out.put(textOf(",\"stackTrace\":"));
    out.putJsonString(stack, CrashReporter::maxStackLength);
    // The state at the crash is not asked for: the provider is ordinary code.
    out.put(textOf(",\"lastState\":\"unknown\",\"clientTs\":\""));
    out.put(Text{timestamp, sizeof timestamp});
    out.put(textOf("\"}"));
    return out.flush();
}

// Replaces the report as a whole: a crash in the middle leaves the earlier file, or none.
void writeReport(Text type, Text message, Text stack, const timespec& moment)
{
    char timestamp[CrashReporter::timestampLength];
    CrashReporter::formatTimestamp(moment.tv_sec, moment.tv_nsec, timestamp);

    const int fd = ::open(tempPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        ::unlink(tempPath);
        return;
    }
    const bool written = writeReportTo(fd, type, message, stack, timestamp);
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || ::rename(tempPath, reportPath) != 0)
        ::unlink(tempPath);
}

void restoreDefaultAndRaise(int signalNumber)
{
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    ::sigaction(signalNumber, &action, nullptr);
    // The signal is blocked while its handler runs, so it arrives, with the default action,
    // as soon as the handler returns: the system sees the real crash and makes its own report.
    ::raise(signalNumber);
}

void onFatalSignal(int signalNumber, siginfo_t*, void*)
{
    if (!crashHandled.exchange(true) && pathsReady.load()) {
        timespec moment{};
        ::clock_gettime(CLOCK_REALTIME, &moment);
        char type[32];
        char message[48];
        const unsigned number = unsigned(signalNumber);
        char* end = appendText(appendNumber(appendText(type, "Signal("), number), ")");
        const Text typeText{type, std::size_t(end - type)};
        end = appendNumber(appendText(message, "Process received signal "), number);
        const Text messageText{message, std::size_t(end - message)};
        const Text stack = captureStack();
        writeReport(typeText, messageText, stack, moment);
    }
    restoreDefaultAndRaise(signalNumber);
}

// Not a signal context, so ordinary code is allowed here; the file still goes through the same
// writer. Without an exception (a bare std::terminate) the SIGABRT handler reports instead.
[[noreturn]] void onTerminate()
{
    const std::type_info* type = abi::__cxa_current_exception_type();
    if (type && !crashHandled.exchange(true) && pathsReady.load()) {
        timespec moment{};
        ::clock_gettime(CLOCK_REALTIME, &moment);
        int status = 0;
        const std::unique_ptr<char, decltype(&std::free)> demangled(
            abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), &std::free);
        const char* name = status == 0 && demangled ? demangled.get() : type->name();
        std::string reason;
        try {
            std::rethrow_exception(std::current_exception());
        } catch (const std::exception& exception) {
            reason = exception.what();
        } catch (...) {
            // Not a std::exception: it has no reason.
        }
        const Text stack = captureStack();
        writeReport(textOf(name), Text{reason.data(), reason.size()}, stack, moment);
    }
    std::abort();
}

void prepareCrashPaths(const QString& path)
{
    const QByteArray finalPath = QFile::encodeName(path);
    const QByteArray temporaryPath = finalPath + ".tmp";
    pathsReady = false;
    if (temporaryPath.size() >= qsizetype(maxPathBytes))
        return;
    std::memcpy(reportPath, finalPath.constData(), std::size_t(finalPath.size()) + 1);
    std::memcpy(tempPath, temporaryPath.constData(), std::size_t(temporaryPath.size()) + 1);
    pathsReady = true;
}

void installSignalHandlers()
{
    // Only for this (the main) thread: a stack overflow elsewhere is not reported.
    stack_t stack{};
    stack.ss_sp = alternateStack;
    stack.ss_size = sizeof alternateStack;
    ::sigaltstack(&stack, nullptr);

    struct sigaction action {};
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (const int signalNumber : fatalSignals)
        ::sigaction(signalNumber, &action, nullptr);
}

} // namespace

bool CrashReporter::writeReport(int fd, std::string_view type, std::string_view message,
                                std::string_view stack, std::int64_t seconds,
                                std::int64_t nanoseconds) noexcept
{
    char timestamp[timestampLength];
    formatTimestamp(seconds, nanoseconds, timestamp);
    return writeReportTo(fd, Text{type.data(), type.size()}, Text{message.data(), message.size()},
                         Text{stack.data(), stack.size()}, timestamp);
}

std::optional<CrashReporter::PendingReport> CrashReporter::readPendingReport(const QByteArray& bytes)
{
    QJsonParseError error{};
    const auto document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    // Nothing but text values: anything else is not a report of ours.
    const auto object = document.object();
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (!it.value().isString())
            return std::nullopt;
    }
    // A "\ud800" escape alone is half a character, which the server refuses in a body: the
    // report goes with U+FFFD in its place.
    return PendingReport{withValidUnicode(object.value(u"exceptionType"_s).toString(u"unknown"_s)),
                         withValidUnicode(object.value(u"exceptionMessage"_s).toString()),
                         withValidUnicode(object.value(u"stackTrace"_s).toString()),
                         withValidUnicode(object.value(u"lastState"_s).toString(u"unknown"_s))};
}

void CrashReporter::formatTimestamp(std::int64_t seconds, std::int64_t nanoseconds,
                                    char* out) noexcept
{
    std::int64_t days = seconds / 86'400;
    std::int64_t secondOfDay = seconds % 86'400;
    if (secondOfDay < 0) {
        secondOfDay += 86'400;
        --days;
    }
    // Days since 1970 to a civil date in integers only (Howard Hinnant's civil_from_days):
    // shift to eras of 400 years that start on 1 March 0000.
    days += 719'468;
    const std::int64_t era = (days >= 0 ? days : days - 146'096) / 146'097;
    const std::int64_t dayOfEra = days - era * 146'097;
    const std::int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1'460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const std::int64_t day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    const std::int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    const std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);

    putDigits(out, year, 4);
    out[4] = '-';
    putDigits(out + 5, month, 2);
    out[7] = '-';
    putDigits(out + 8, day, 2);
    out[10] = 'T';
    putDigits(out + 11, secondOfDay / 3'600, 2);
    out[13] = ':';
    putDigits(out + 14, secondOfDay / 60 % 60, 2);
    out[16] = ':';
    putDigits(out + 17, secondOfDay % 60, 2);
    out[19] = '.';
    putDigits(out + 20, nanoseconds / 1'000'000, 3);
    out[23] = 'Z';
}

CrashReporter::CrashReporter(QString reportPath) : m_reportPath(std::move(reportPath)) {}

CrashReporter& CrashReporter::shared()
{
    static CrashReporter instance;
    return instance;
}

QString CrashReporter::defaultReportPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
         + u"/Ravlet/pending_crash.json"_s;
}

void CrashReporter::install(TelemetryClient* telemetry, std::function<QString()> lastStateProvider)
{
    m_telemetry = telemetry;
    m_lastStateProvider = std::move(lastStateProvider);

    // A folder that can't be made shows up as a report that can't be written: ignored.
    QDir().mkpath(QFileInfo(m_reportPath).absolutePath());
    prepareCrashPaths(m_reportPath);
    // The first backtrace() loads libgcc, which allocates: do it now, not in a crash.
    backtrace(frames, 1);

    std::set_terminate(onTerminate);
    installSignalHandlers();

    m_upload = TaskHandle::run([this](const CancellationToken&) { return uploadPendingReport(); });
}

// Touches nothing of this object after its first suspension, so the reporter may go first.
QCoro::Task<> CrashReporter::uploadPendingReport()
{
    const QString path = m_reportPath;
    const QPointer<TelemetryClient> telemetry = m_telemetry;
    if (!QFileInfo::exists(path))
        co_return;
    if (!telemetry) {
        QFile::remove(path);
        co_return;
    }
    QFile file(path);
    auto report = file.open(QIODevice::ReadOnly) ? readPendingReport(file.readAll()) : std::nullopt;
    file.close();
    if (!report) {
        QFile::remove(path);
        co_return;
    }
    try {
        co_await telemetry->reportCrash(std::move(report->exceptionType),
                                        std::move(report->exceptionMessage),
                                        std::move(report->stackTrace), std::move(report->lastState));
    } catch (...) {
        // Telemetry raises nothing by design; should it, the report still gets only one try.
    }
    QFile::remove(path);
}
