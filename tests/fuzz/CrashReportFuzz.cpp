// The pending crash report. The first byte picks the side:
// - the next launch's reading of the file, which may hold any bytes (a crash while writing, a
//   disk error, another program): what it yields reaches the upload exactly as read, and what
//   it cannot use it refuses;
// - the crash handlers' writing of it from any exception type, reason and stack (bytes, not
//   necessarily UTF-8): every report written reads back, within the limits, as written.
#include "CrashReporter.h"
#include "FuzzSupport.h"
#include "Helpers.h"

#include <QFile>

#include <sys/mman.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// What the upload gets of `text` cut to `units` UTF-16 units, never half a character.
QString cut(const QString& text, qsizetype units)
{
    auto kept = text.left(units);
    if (kept.size() < text.size() && kept.back().isHighSurrogate())
        kept.chop(1);
    return kept;
}

void writeAndRead(QByteArray& rest)
{
    static const int fd = memfd_create("crash-report", MFD_CLOEXEC);
    const auto typeLength = qsizetype(Fuzz::takeByte(rest) % 64);
    const auto messageLength = qsizetype(Fuzz::takeByte(rest)) * 8;
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
    QFile file;
    Fuzz::check(::lseek(fd, 0, SEEK_SET) == 0 && file.open(fd, QIODevice::ReadOnly),
                "a written report that cannot be opened");
    const auto bytes = file.readAll();
    const auto report = CrashReporter::readPendingReport(bytes);
    Fuzz::check(report.has_value(), "a report the next launch cannot read",
                QString::fromUtf8(bytes));
    Fuzz::check(report->lastState == u"unknown"_s, "a crash report that claims a state");
    // The type is shorter than either limit.
    const std::tuple<QByteArray, QString, int> fields[] = {
        {type, report->exceptionType, CrashReporter::maxMessageLength},
        {message, report->exceptionMessage, CrashReporter::maxMessageLength},
        {stack, report->stackTrace, CrashReporter::maxStackLength}};
    for (const auto& [sent, read, limit] : fields) {
        Fuzz::check(read.size() <= limit, "a report text longer than the limit", read);
        Fuzz::checkText(read, "a report text that the upload cannot carry");
        const auto text = QString::fromUtf8(sent);
        Fuzz::check(text.toUtf8() != sent || read == withValidUnicode(cut(text, limit)),
                    "a report text changed", read);
    }
}

} // namespace

FUZZ_TARGET(bytes)
{
    if (Fuzz::takeByte(bytes) & 1) {
        writeAndRead(bytes);
        return;
    }
    const auto report = CrashReporter::readPendingReport(bytes);
    if (!report) {
        // Refused: then it is not a JSON object whose values are all texts.
        const auto document = QJsonDocument::fromJson(bytes);
        bool allTexts = document.isObject();
        for (const auto& value : document.object())
            allTexts = allTexts && value.isString();
        Fuzz::check(!allTexts, "a report of texts refused");
        return;
    }
    for (const auto& text :
         {report->exceptionType, report->exceptionMessage, report->stackTrace, report->lastState})
        Fuzz::checkText(text, "a report text that the upload cannot carry");

    // The upload's body, read back as the server reads it, and the report once more from it.
    const QJsonObject body{{u"exceptionType"_s, report->exceptionType},
                           {u"exceptionMessage"_s, report->exceptionMessage},
                           {u"stackTrace"_s, report->stackTrace},
                           {u"lastState"_s, report->lastState}};
    const auto again = CrashReporter::readPendingReport(QJsonDocument(body).toJson());
    Fuzz::check(again == report, "a report that does not read back as itself");
}
