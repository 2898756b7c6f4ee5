#include "PreferencesStore.h"

#include "Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QStandardPaths>

#include <cmath>

using namespace Qt::StringLiterals;

namespace {
constexpr int fileVersion = 1;
const QString tag = u"Preferences"_s;
} // namespace

std::optional<PreferenceValue> PreferencesStore::value(const QString& key) const
{
    const auto it = m_values.find(key);
    if (it == m_values.end())
        return std::nullopt;
    return it->second;
}

QStringList PreferencesStore::keys() const
{
    QStringList result;
    for (const auto& [key, value] : m_values)
        result.append(key);
    return result;
}

std::optional<QString> PreferencesStore::string(const QString& key) const
{
    const auto it = m_values.find(key);
    if (it == m_values.end())
        return std::nullopt;
    if (const auto* text = std::get_if<QString>(&it->second))
        return *text;
    return std::nullopt;
}

std::optional<QByteArray> PreferencesStore::bytes(const QString& key) const
{
    const auto it = m_values.find(key);
    if (it == m_values.end())
        return std::nullopt;
    if (const auto* data = std::get_if<QByteArray>(&it->second))
        return *data;
    return std::nullopt;
}

std::optional<double> PreferencesStore::number(const QString& key) const
{
    const auto it = m_values.find(key);
    if (it == m_values.end())
        return std::nullopt;
    return std::visit(
        [](const auto& v) -> std::optional<double> {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, double>)
                return v;
            else if constexpr (std::is_same_v<T, qint64>)
                return static_cast<double>(v);
            else if constexpr (std::is_same_v<T, bool>)
                return v ? 1.0 : 0.0;
            else
                return std::nullopt;
        },
        it->second);
}

std::optional<bool> PreferencesStore::boolean(const QString& key) const
{
    const auto it = m_values.find(key);
    if (it == m_values.end())
        return std::nullopt;
    if (const auto* flag = std::get_if<bool>(&it->second))
        return *flag;
    if (const auto n = number(key); n && (*n == 0.0 || *n == 1.0))
        return *n == 1.0;
    return std::nullopt;
}

std::optional<qint64> PreferencesStore::integer(const QString& key) const
{
    const auto it = m_values.find(key);
    if (it == m_values.end())
        return std::nullopt;
    if (const auto* n = std::get_if<qint64>(&it->second))
        return *n;
    if (const auto* d = std::get_if<double>(&it->second);
        d && std::trunc(*d) == *d && std::abs(*d) < 9.2e18)
        return static_cast<qint64>(*d);
    return std::nullopt;
}

void PreferencesStore::set(const QString& key, PreferenceValue value)
{
    m_values.insert_or_assign(key, std::move(value));
    changed();
}

void PreferencesStore::remove(const QString& key)
{
    if (m_values.erase(key) > 0)
        changed();
}

JsonPreferencesStore::JsonPreferencesStore(QString path) : m_path(std::move(path))
{
    load();
}

QString JsonPreferencesStore::defaultPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
           + u"/RavletAI/preferences.json"_s;
}

QByteArray JsonPreferencesStore::serialize(const std::map<QString, PreferenceValue>& values)
{
    QJsonObject entries;
    for (const auto& [key, value] : values) {
        QJsonObject entry;
        std::visit(
            [&entry](const auto& v) {
                using T = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<T, QString>)
                    entry.insert(u"string"_s, v);
                else if constexpr (std::is_same_v<T, double>)
                    entry.insert(u"double"_s, v);
                else if constexpr (std::is_same_v<T, bool>)
                    entry.insert(u"bool"_s, v);
                else if constexpr (std::is_same_v<T, qint64>)
                    entry.insert(u"integer"_s, v);
                else
                    entry.insert(u"bytes"_s, QString::fromLatin1(v.toBase64()));
            },
            value);
        entries.insert(key, entry);
    }
    const QJsonObject root{{u"version"_s, fileVersion}, {u"values"_s, entries}};
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

std::optional<std::map<QString, PreferenceValue>>
JsonPreferencesStore::deserialize(const QByteArray& data)
{
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const auto root = document.object();
    if (root.value(u"version"_s).toInt() != fileVersion || !root.value(u"values"_s).isObject())
        return std::nullopt;

    std::map<QString, PreferenceValue> values;
    const auto entries = root.value(u"values"_s).toObject();
    for (auto it = entries.begin(); it != entries.end(); ++it) {
        const auto entry = it.value().toObject();
        if (entry.size() != 1)
            return std::nullopt;
        const auto kind = entry.begin().key();
        const auto v = entry.begin().value();
        if (kind == u"string" && v.isString()) {
            values.emplace(it.key(), v.toString());
        } else if (kind == u"double" && v.isDouble()) {
            values.emplace(it.key(), v.toDouble());
        } else if (kind == u"bool" && v.isBool()) {
            values.emplace(it.key(), v.toBool());
        } else if (kind == u"integer" && v.isDouble()) {
            values.emplace(it.key(), v.toInteger());
        } else if (kind == u"bytes" && v.isString()) {
            auto decoded = QByteArray::fromBase64Encoding(v.toString().toLatin1(),
                                                          QByteArray::AbortOnBase64DecodingErrors);
            if (!decoded)
                return std::nullopt;
            values.emplace(it.key(), *decoded);
        } else {
            return std::nullopt;
        }
    }
    return values;
}

void JsonPreferencesStore::load()
{
    QFile file(m_path);
    if (!file.exists())
        return;
    if (!file.open(QIODevice::ReadOnly)) {
        logLine(tag, u"cannot read "_s + m_path + u": "_s + file.errorString());
        return;
    }
    const auto data = file.readAll();
    file.close();

    if (auto values = deserialize(data)) {
        m_values = std::move(*values);
        return;
    }
    // Keep the unreadable file for inspection and start from defaults.
    const auto aside = m_path + u".corrupt"_s;
    QFile::remove(aside);
    QFile::rename(m_path, aside);
    logLine(tag, u"preferences file was unreadable; kept it as "_s + QFileInfo(aside).fileName()
                     + u" and started with defaults"_s);
}

void JsonPreferencesStore::changed()
{
    QDir().mkpath(QFileInfo(m_path).absolutePath());
    QSaveFile file(m_path);
    if (!file.open(QIODevice::WriteOnly) || file.write(serialize(m_values)) < 0
        || !file.commit()) {
        logLine(tag, u"could not save preferences: "_s + file.errorString());
    }
}
