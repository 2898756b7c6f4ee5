// The pending crash report. The first byte picks the side:
// - the next launch's reading of the file, which may hold any bytes (a crash while writing, a
//   disk error, another program): what it yields reaches the upload exactly as read, and what
//   it cannot use it refuses;
// - the crash handlers' writing of it from any exception type, reason and stack (bytes, not
//   necessarily UTF-8): every report written reads back, within the limits, as written.
#include "CrashReporter.h"
#include "FuzzSupport.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <sys/mman.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

QJsonObject asJson(const CrashReporter::PendingReport& report)
{
    return {{u"exceptionType"_s, report.exceptionType},
            {u"exceptionMessage"_s, report.exceptionMessage},
            {u"stackTrace"_s, report.stackTrace},
            {u"lastState"_s, report.lastState}};
}

bool isUtf8(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes).toUtf8() == bytes;
}

// What the upload gets of `text` cut to `units` UTF-16 units, never half a character.
QString cut(const QString& text, qsizetype units)
{
    auto kept = text.left(units);
    if (!kept.isEmpty() && kept.back().isHighSurrogate() && kept.size() < text.size())
        kept.chop(1);
    return kept;
}

void writeAndRead(Fuzz::Input& input)
{
    static const int fd = memfd_create("crash-report", MFD_CLOEXEC);
    const auto typeLength = qsizetype(input.takeByte() % 64);
    const auto messageLength = qsizetype(input.takeByte()) * 8;
    const auto rest = input.rest();
    const auto type = rest.left(typeLength);
    const auto message = rest.mid(typeLength, messageLength);
    const auto stack = rest.mid(typeLength + messageLength);

    Fuzz::check(fd >= 0 && ::ftruncate(fd, 0) == 0 && ::lseek(fd, 0, SEEK_SET) == 0,
                "no file to write the report to");
    Fuzz::check(CrashReporter::writeReport(fd, {type.constData(), size_t(type.size())},
                                           {message.constData(), size_t(message.size())},
                                           {stack.constData(), size_t(stack.size())}, 1'795'000'000,
                                           123'456'789),
                "a report that could not be written");
    QByteArray file;
    ::lseek(fd, 0, SEEK_SET);
    char buffer[65536];
    for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;)
        file.append(buffer, got);

    const auto report = CrashReporter::readPendingReport(file);
    Fuzz::check(report.has_value(), "a report the next launch cannot read",
                QString::fromUtf8(file));
    Fuzz::check(report->lastState == u"unknown"_s, "a crash report that claims a state");
    Fuzz::check(report->exceptionMessage.size() <= CrashReporter::maxMessageLength,
                "a message longer than the limit");
    Fuzz::check(report->stackTrace.size() <= CrashReporter::maxStackLength,
                "a stack trace longer than the limit");
    for (const auto& text : {report->exceptionType, report->exceptionMessage, report->stackTrace})
        Fuzz::check(Fuzz::isValidUnicode(text), "a report text that the upload cannot carry", text);
    if (isUtf8(type))
        Fuzz::check(report->exceptionType == QString::fromUtf8(type), "an exception type changed");
    if (isUtf8(message))
        Fuzz::check(report->exceptionMessage
                        == cut(QString::fromUtf8(message), CrashReporter::maxMessageLength),
                    "an exception message changed");
    if (isUtf8(stack))
        Fuzz::check(report->stackTrace
                        == cut(QString::fromUtf8(stack), CrashReporter::maxStackLength),
                    "a stack trace changed");
}

} // namespace

FUZZ_TARGET(input)
{
    if (input.takeByte() & 1) {
        writeAndRead(input);
        return;
    }
    const auto bytes = input.rest();
    const auto report = CrashReporter::readPendingReport(bytes);
    if (!report) {
        // Refused: then it is not a JSON object whose values are all texts.
        const auto document = QJsonDocument::fromJson(bytes);
        if (document.isObject()) {
            bool allTexts = true;
            for (const auto& value : document.object())
                allTexts = allTexts && value.isString();
            Fuzz::check(!allTexts, "a report of texts refused");
        }
        return;
    }
    for (const auto& text :
         {report->exceptionType, report->exceptionMessage, report->stackTrace, report->lastState})
        Fuzz::check(Fuzz::isValidUnicode(text), "a report text that the upload cannot carry", text);

    // The upload's body, read back as the server reads it, and the report once more from it.
    const auto body = QJsonDocument(asJson(*report)).toJson(QJsonDocument::Compact);
    const auto again = CrashReporter::readPendingReport(body);
    Fuzz::check(again && *again == *report, "a report that does not read back as itself");
}
