#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <map>
#include <optional>
#include <variant>

using PreferenceValue = std::variant<QString, double, bool, qint64, QByteArray>;

// Typed key-value store for the user's preferences. A missing key stays distinct from false
// and zero, and a stored text stays distinct from a number. This class keeps the values in
// memory only (tests); JsonPreferencesStore also keeps them on disk.
class PreferencesStore {
public:
    PreferencesStore() = default;
    PreferencesStore(const PreferencesStore&) = delete;
    PreferencesStore& operator=(const PreferencesStore&) = delete;
    virtual ~PreferencesStore() = default;

    std::optional<PreferenceValue> value(const QString& key) const;
    bool contains(const QString& key) const { return m_values.contains(key); }
    QStringList keys() const;

    // Typed reads give nothing for a missing key and for a value of another kind, except the
    // numeric casts: number() also takes integers and booleans, boolean() also takes the
    // numbers 0 and 1, integer() also takes a double with no fraction.
    std::optional<QString> string(const QString& key) const;
    std::optional<QByteArray> bytes(const QString& key) const;
    std::optional<double> number(const QString& key) const;
    std::optional<bool> boolean(const QString& key) const;
    std::optional<qint64> integer(const QString& key) const;

    void setString(const QString& key, const QString& value) { set(key, value); }
    void setDouble(const QString& key, double value) { set(key, value); }
    void setBool(const QString& key, bool value) { set(key, value); }
    void setInteger(const QString& key, qint64 value) { set(key, value); }
    void setBytes(const QString& key, const QByteArray& value) { set(key, value); }
    void setValue(const QString& key, PreferenceValue value) { set(key, std::move(value)); }
    void remove(const QString& key);

protected:
    // Called after every change; persistent stores write here.
    virtual void changed() {}

    std::map<QString, PreferenceValue> m_values;

private:
    void set(const QString& key, PreferenceValue value);
};

// $XDG_CONFIG_HOME/RavletAI/preferences.json, rewritten atomically after each change, so a
// crash in the middle of a write leaves the previous file whole.
class JsonPreferencesStore final : public PreferencesStore {
public:
    explicit JsonPreferencesStore(QString path = defaultPath());

    static QString defaultPath();
    QString path() const { return m_path; }

    // The file form, exposed for tests of its round trip.
    static QByteArray serialize(const std::map<QString, PreferenceValue>& values);
    static std::optional<std::map<QString, PreferenceValue>> deserialize(const QByteArray& data);

protected:
    void changed() override;

private:
    void load();

    QString m_path;
};
