#include "Helpers.h"

#include <QRegularExpression>
#include <QTimeZone>
#include <QUuid>

using namespace Qt::StringLiterals;

qint64 wallClockMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

QString uuidUpper()
{
    return uuidLower().toUpper();
}

QString uuidLower()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QString formatIso8601(const QDateTime& time, Iso8601 form)
{
    const auto utc = time.toUTC();
    return utc.toString(form == Iso8601::withFractionalSeconds ? u"yyyy-MM-ddTHH:mm:ss.zzzZ"_s
                                                               : u"yyyy-MM-ddTHH:mm:ssZ"_s);
}

QString formatIso8601(qint64 msSinceEpoch, Iso8601 form)
{
    return formatIso8601(QDateTime::fromMSecsSinceEpoch(msSinceEpoch, QTimeZone::utc()), form);
}

std::optional<QDateTime> parseIso8601(const QString& text, Iso8601 form)
{
    static const QRegularExpression pattern(
        uR"(^(\d{4})-(\d{2})-(\d{2})[Tt](\d{2}):(\d{2}):(\d{2})(?:\.(\d{1,9}))?(?:([Zz])|([+-])(\d{2}):?(\d{2}))$)"_s);
    const auto match = pattern.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    const auto fraction = match.captured(7);
    if (fraction.isEmpty() == (form == Iso8601::withFractionalSeconds))
        return std::nullopt;

    const auto number = [&](int group) { return match.capturedView(group).toInt(); };
    const QDate date(number(1), number(2), number(3));
    const QTime time(number(4), number(5), number(6));
    if (!date.isValid() || !time.isValid())
        return std::nullopt;

    int offsetSeconds = 0;
    if (match.capturedView(8).isEmpty()) {
        const int hours = number(10);
        const int minutes = number(11);
        if (hours > 23 || minutes > 59)
            return std::nullopt;
        offsetSeconds = (hours * 60 + minutes) * 60 * (match.capturedView(9) == u"-" ? -1 : 1);
    }

    // Millisecond precision, as the wall clock everywhere else.
    const int ms = fraction.isEmpty() ? 0 : fraction.left(3).leftJustified(3, u'0').toInt();
    QDateTime result(date, time.addMSecs(ms), QTimeZone(offsetSeconds));
    return result.toUTC();
}

std::optional<QDateTime> parseBackendDate(const QString& text)
{
    if (auto date = parseIso8601(text, Iso8601::withFractionalSeconds))
        return date;
    return parseIso8601(text, Iso8601::withoutFractionalSeconds);
}

QString withValidUnicode(QString text)
{
    const auto size = text.size();
    for (qsizetype i = 0; i < size; ++i) {
        const QChar c = text.at(i);
        // U+FFFE and U+FFFF are no characters; SQLite reads them back as U+FFFD.
        if (c.unicode() >= 0xfffe) {
            text[i] = QChar::ReplacementCharacter;
            continue;
        }
        if (!c.isSurrogate())
            continue;
        if (c.isHighSurrogate() && i + 1 < size && text.at(i + 1).isLowSurrogate()) {
            ++i; // a whole pair
            continue;
        }
        text[i] = QChar::ReplacementCharacter;
    }
    return text;
}
