#include "HelpCenterPageViewModel.h"

using namespace Qt::StringLiterals;

HelpCenterPageViewModel::HelpCenterPageViewModel(UpdateService& update, AppStrings& strings, QString version,
                                                 QString build, QObject* parent)
    : QObject(parent)
    , m_update(update)
    , m_strings(strings)
    , m_version(std::move(version))
    , m_build(std::move(build))
{
    for (const auto signal : {&UpdateService::availableUpdateChanged, &UpdateService::isCheckingChanged,
                              &UpdateService::isDownloadingChanged})
        connect(&update, signal, this, &HelpCenterPageViewModel::updateTextChanged);
    connect(&strings, &AppStrings::languageCodeChanged, this, &HelpCenterPageViewModel::updateTextChanged);
}

QString HelpCenterPageViewModel::updateText() const
{
    if (isChecking())
        return m_strings.text(u"update.checking"_s);
    if (hasNewVersion())
        return m_strings.format(u"update.new_version"_s, {m_update.availableVersion()});
    return m_strings.text(u"update.up_to_date"_s);
}
