#include "HelpCenterPageViewModel.h"

using namespace Qt::StringLiterals;

HelpCenterPageViewModel::HelpCenterPageViewModel(UpdateStatus& update, AppStrings& strings, QString version,
                                                 QString build, QObject* parent)
    : QObject(parent)
    , m_update(update)
    , m_strings(strings)
    , m_version(std::move(version))
    , m_build(std::move(build))
{
    connect(&update, &UpdateStatus::changed, this, &HelpCenterPageViewModel::updateTextChanged);
    connect(&strings, &AppStrings::languageCodeChanged, this, &HelpCenterPageViewModel::updateTextChanged);
}

QString HelpCenterPageViewModel::updateText() const
{
    switch (m_update.phase()) {
    case UpdateStatus::Phase::checking:
        return m_strings.text(u"update.checking"_s);
    case UpdateStatus::Phase::upToDate:
        return m_strings.text(u"update.up_to_date"_s);
    case UpdateStatus::Phase::newVersion:
        break;
    }
    return m_strings.format(u"update.new_version"_s, {m_update.version()});
}
