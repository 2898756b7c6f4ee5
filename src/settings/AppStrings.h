#pragma once

#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

// Every text on screen, by key, in 26 languages held in the program itself. The interface
// language follows the desktop's preferred languages; it has no setting of its own.
class AppStrings : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString languageCode READ languageCode WRITE setLanguageCode NOTIFY languageCodeChanged)
    Q_PROPERTY(bool isRightToLeft READ isRightToLeft NOTIFY languageCodeChanged)

public:
    using Table = QHash<QString, QString>;

    // The shared instance, made on first use from QLocale::uiLanguages().
    static AppStrings& shared();

    explicit AppStrings(const QStringList& preferredLanguages, QObject* parent = nullptr);

    static QString chooseLanguage(const QStringList& preferredLanguages);
    // In the order of the outer table.
    static const QStringList& languageCodes();
    // Keys added late; every language other than "en" and "zh" leaves them to English.
    static const QStringList& laterKeys();
    static const Table& table(const QString& languageCode);

    QString languageCode() const { return m_languageCode; }
    void setLanguageCode(const QString& code);
    bool isRightToLeft() const { return m_languageCode == u"ar"; }

    // The text for the language, else the English text, else the key itself; "{brand}" is
    // replaced in every case.
    Q_INVOKABLE QString text(const QString& key) const;
    // text(key) with its "%@" and "%d" filled in order.
    QString format(const QString& key, const QVariantList& arguments) const;
    static QString fill(const QString& pattern, const QVariantList& arguments);

Q_SIGNALS:
    void languageCodeChanged();

private:
    QString m_languageCode;
};
