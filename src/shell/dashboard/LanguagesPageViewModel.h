#pragma once

#include "AppStrings.h"
#include "UserSettings.h"

#include <QObject>
#include <QStringList>
#include <QtQmlIntegration>

// The languages page: two pickers over the languages of the settings, in their order.
class LanguagesPageViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(QStringList languageNames READ languageNames NOTIFY languageNamesChanged)
    // Rows of the list above; -1 for a stored code the list does not hold.
    Q_PROPERTY(int inputIndex READ inputIndex WRITE setInputIndex NOTIFY inputIndexChanged)
    Q_PROPERTY(int outputIndex READ outputIndex WRITE setOutputIndex NOTIFY outputIndexChanged)

public:
    LanguagesPageViewModel(UserSettings& settings, AppStrings& strings, QObject* parent = nullptr);

    QStringList languageNames() const;
    int inputIndex() const { return indexOf(m_settings.inputLanguage()); }
    int outputIndex() const { return indexOf(m_settings.outputLanguage()); }
    void setInputIndex(int index);
    void setOutputIndex(int index);

Q_SIGNALS:
    void languageNamesChanged();
    void inputIndexChanged();
    void outputIndexChanged();

private:
    static int indexOf(const QString& code);

    UserSettings& m_settings;
    AppStrings& m_strings;
};
