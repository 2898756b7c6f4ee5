#include "LanguagesPageViewModel.h"

LanguagesPageViewModel::LanguagesPageViewModel(UserSettings& settings, AppStrings& strings, QObject* parent)
    : QObject(parent)
    , m_settings(settings)
    , m_strings(strings)
{
    connect(&settings, &UserSettings::inputLanguageChanged, this, &LanguagesPageViewModel::inputIndexChanged);
    connect(&settings, &UserSettings::outputLanguageChanged, this, &LanguagesPageViewModel::outputIndexChanged);
    connect(&strings, &AppStrings::languageCodeChanged, this, &LanguagesPageViewModel::languageNamesChanged);
}

QStringList LanguagesPageViewModel::languageNames() const
{
    QStringList names;
    for (const auto& language : UserSettings::languages())
        names.append(m_strings.text(language.nameKey));
    return names;
}

int LanguagesPageViewModel::indexOf(const QString& code)
{
    const auto& languages = UserSettings::languages();
    for (qsizetype k = 0; k < languages.size(); ++k) {
        if (languages.at(k).code == code)
            return static_cast<int>(k);
    }
    return -1;
}

void LanguagesPageViewModel::setInputIndex(int index)
{
    const auto& languages = UserSettings::languages();
    if (index >= 0 && index < languages.size())
        m_settings.setInputLanguage(languages.at(index).code);
}

void LanguagesPageViewModel::setOutputIndex(int index)
{
    const auto& languages = UserSettings::languages();
    if (index >= 0 && index < languages.size())
        m_settings.setOutputLanguage(languages.at(index).code);
}
