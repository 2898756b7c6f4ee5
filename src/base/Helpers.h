#pragma once

#include <QDateTime>
#include <QString>

#include <memory>
#include <optional>

class QNetworkReply;

// Owns a QObject that must go through the event loop to die, such as a network reply whose
// signals may still be queued.
struct DeleteLater {
    template<typename T>
    void operator()(T* object) const
    {
        object->deleteLater();
    }
};
using ReplyPtr = std::unique_ptr<QNetworkReply, DeleteLater>;

// Wall-clock milliseconds since 1970, read anew at each call. Rules that tests must control
// read Clock::nowMs() instead.
qint64 wallClockMs();

// A fresh random UUID in canonical text form, without braces.
QString uuidUpper();
QString uuidLower();

enum class Iso8601 { withFractionalSeconds, withoutFractionalSeconds };

// Internet date-time in UTC: "2024-05-01T12:30:00.250Z" or "2024-05-01T12:30:00Z".
QString formatIso8601(const QDateTime& time, Iso8601 form);
QString formatIso8601(qint64 msSinceEpoch, Iso8601 form);

// Accepts exactly one of the two forms: fractional seconds are required by the first and
// refused by the second, and a zone ("Z" or "+hh:mm") is required by both.
std::optional<QDateTime> parseIso8601(const QString& text, Iso8601 form);

// The backend's date rule: with fractional seconds first, then without.
std::optional<QDateTime> parseBackendDate(const QString& text);

// The text with every unpaired surrogate, and U+FFFE and U+FFFF, replaced by U+FFFD. A "\ud800"
// escape in a vendor's JSON gives such a half character, which has no UTF-8 form, and the
// database keeps neither of the two noncharacters: a line holding one would not be stored as
// it stands on screen.
QString withValidUnicode(QString text);
