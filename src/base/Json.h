#pragma once

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <optional>
#include <stdexcept>

// A document that does not have the shape a record needs. Records decode strictly: a required
// key must be present with the right type, an optional key is read only when present and not
// null, and keys a record does not name are ignored.
class DecodingError : public std::runtime_error {
public:
    explicit DecodingError(const QString& message);
    QString message() const { return m_message; }

private:
    QString m_message;
};

namespace Json {

// The whole text must be one JSON object.
QJsonObject parseObject(const QByteArray& text);

QString requireString(const QJsonObject& object, const QString& key);
std::optional<QString> optionalString(const QJsonObject& object, const QString& key);
qint64 requireInt64(const QJsonObject& object, const QString& key);
std::optional<qint64> optionalInt64(const QJsonObject& object, const QString& key);
double requireDouble(const QJsonObject& object, const QString& key);
std::optional<double> optionalDouble(const QJsonObject& object, const QString& key);
bool requireBool(const QJsonObject& object, const QString& key);
std::optional<bool> optionalBool(const QJsonObject& object, const QString& key);
QJsonObject requireObject(const QJsonObject& object, const QString& key);
QJsonArray requireArray(const QJsonObject& object, const QString& key);

// Dates follow the backend's rule (with fractional seconds, then without); any other text
// fails with "Invalid date: " followed by the text.
QDateTime requireDate(const QJsonObject& object, const QString& key);
std::optional<QDateTime> optionalDate(const QJsonObject& object, const QString& key);

// Integral JSON number to qint64, or nothing for a fraction, a non-number or out of range.
std::optional<qint64> toInt64(const QJsonValue& value);

} // namespace Json
