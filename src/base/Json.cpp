#include "Json.h"

#include "Helpers.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <cmath>

using namespace Qt::StringLiterals;

DecodingError::DecodingError(const QString& message)
    : std::runtime_error(message.toStdString()), m_message(message)
{
}

namespace Json {
namespace {

QJsonValue present(const QJsonObject& object, const QString& key)
{
    const auto value = object.value(key);
    if (value.isUndefined() || value.isNull())
        throw DecodingError(u"Missing key: "_s + key);
    return value;
}

[[noreturn]] void wrongType(const QString& key, QStringView expected)
{
    throw DecodingError(u"Expected "_s + expected.toString() + u" for key: "_s + key);
}

template<typename Read>
auto optionalOf(const QJsonObject& object, const QString& key, Read read)
    -> std::optional<decltype(read(object, key))>
{
    const auto value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    return read(object, key);
}

} // namespace

QJsonObject parseObject(const QByteArray& text)
{
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(text, &error);
    if (error.error != QJsonParseError::NoError)
        throw DecodingError(u"Invalid JSON: "_s + error.errorString());
    if (!document.isObject())
        throw DecodingError(u"Expected a JSON object"_s);
    return document.object();
}

QString requireString(const QJsonObject& object, const QString& key)
{
    const auto value = present(object, key);
    if (!value.isString())
        wrongType(key, u"text");
    return value.toString();
}

std::optional<QString> optionalString(const QJsonObject& object, const QString& key)
{
    return optionalOf(object, key, requireString);
}

std::optional<qint64> toInt64(const QJsonValue& value)
{
    if (!value.isDouble())
        return std::nullopt;
    // Qt keeps integers that fit in 64 bits exactly; a double is accepted only when integral.
    const auto asInteger = value.toInteger(std::numeric_limits<qint64>::min());
    if (asInteger != std::numeric_limits<qint64>::min())
        return asInteger;
    const double d = value.toDouble();
    if (std::trunc(d) != d || d < -9.2e18 || d > 9.2e18)
        return std::nullopt;
    return static_cast<qint64>(d);
}

qint64 requireInt64(const QJsonObject& object, const QString& key)
{
    const auto value = toInt64(present(object, key));
    if (!value)
        wrongType(key, u"an integer");
    return *value;
}

std::optional<qint64> optionalInt64(const QJsonObject& object, const QString& key)
{
    return optionalOf(object, key, requireInt64);
}

double requireDouble(const QJsonObject& object, const QString& key)
{
    const auto value = present(object, key);
    if (!value.isDouble())
        wrongType(key, u"a number");
    return value.toDouble();
}

std::optional<double> optionalDouble(const QJsonObject& object, const QString& key)
{
    return optionalOf(object, key, requireDouble);
}

bool requireBool(const QJsonObject& object, const QString& key)
{
    const auto value = present(object, key);
    if (!value.isBool())
        wrongType(key, u"a boolean");
    return value.toBool();
}

std::optional<bool> optionalBool(const QJsonObject& object, const QString& key)
{
    return optionalOf(object, key, requireBool);
}

QJsonObject requireObject(const QJsonObject& object, const QString& key)
{
    const auto value = present(object, key);
    if (!value.isObject())
        wrongType(key, u"an object");
    return value.toObject();
}

QJsonArray requireArray(const QJsonObject& object, const QString& key)
{
    const auto value = present(object, key);
    if (!value.isArray())
        wrongType(key, u"an array");
    return value.toArray();
}

QDateTime requireDate(const QJsonObject& object, const QString& key)
{
    const auto text = requireString(object, key);
    auto date = parseBackendDate(text);
    if (!date)
        throw DecodingError(u"Invalid date: "_s + text);
    return *date;
}

std::optional<QDateTime> optionalDate(const QJsonObject& object, const QString& key)
{
    return optionalOf(object, key, requireDate);
}

} // namespace Json
