#include "JobDescriptionsViewModel.h"

#include "AppStrings.h"
#include "AuthViewModel.h"
#include "InterviewCollaborators.h"
#include "Log.h"
#include "TelemetryClient.h"
#include "UserSettings.h"

using namespace Qt::StringLiterals;

JobDescriptionsViewModel::JobDescriptionsViewModel(AuthViewModel& auth, UserSettings& settings,
                                                   AppStrings& strings, TelemetryClient* telemetry,
                                                   QObject* parent)
    : DocumentListViewModel(auth, settings, strings, telemetry,
                            {&UserSettings::activeJobDescriptionId,
                             &UserSettings::setActiveJobDescriptionId,
                             &UserSettings::activeJobDescriptionIdChanged},
                            parent)
{
}

QVariant JobDescriptionsViewModel::ownData(int row, int role) const
{
    const auto& item = m_items.at(row);
    switch (role) {
    case TitleRole:
        return item.title;
    case CompanyRole:
        return item.company;
    default:
        return {};
    }
}

QHash<int, QByteArray> JobDescriptionsViewModel::ownRoleNames() const
{
    return {{IdRole, "jobDescriptionId"}, {TitleRole, "title"}, {CompanyRole, "company"}};
}

QString JobDescriptionsViewModel::saveButtonText() const
{
    if (!m_strings)
        return {};
    return m_strings->text(m_isSaving ? u"jd.saving"_s : u"jd.save"_s);
}

bool JobDescriptionsViewModel::canSave() const
{
    return !m_isSaving && !m_formTitle.trimmed().isEmpty() && !m_formContent.trimmed().isEmpty();
}

void JobDescriptionsViewModel::setFormTitle(const QString& value)
{
    setFormField(m_formTitle, value);
}

void JobDescriptionsViewModel::setFormCompany(const QString& value)
{
    setFormField(m_formCompany, value);
}

void JobDescriptionsViewModel::setFormContent(const QString& value)
{
    setFormField(m_formContent, value);
}

void JobDescriptionsViewModel::setFormField(QString& field, const QString& value)
{
    if (field == value)
        return;
    field = value;
    Q_EMIT formChanged();
}

void JobDescriptionsViewModel::load()
{
    loadJobDescriptions();
}

void JobDescriptionsViewModel::openForm()
{
    setFormOpen(true);
}

void JobDescriptionsViewModel::closeForm()
{
    setFormOpen(false);
}

void JobDescriptionsViewModel::submitForm()
{
    save();
}

QCoro::Task<> JobDescriptionsViewModel::loadJobDescriptions()
{
    QPointer self(this);
    APIClient* api = m_auth ? m_auth->apiClient() : nullptr;
    if (!api) {
        const bool loggedIn = m_auth && m_auth->isLoggedIn();
        logLine(u"JobDescriptionView", u"loadJobDescriptions: apiClient is nil, isLoggedIn="_s
                                           + (loggedIn ? u"true"_s : u"false"_s));
        co_return;
    }
    setLoading(true);
    setErrorMessage(std::nullopt);
    try {
        auto wrapper = co_await api->fetchJobDescriptions();
        if (!self)
            co_return;
        const auto count = wrapper.jobDescriptions.size();
        beginReplace();
        m_items = std::move(wrapper.jobDescriptions);
        endReplace();
        repairActiveId();
        logLine(u"JobDescriptionView",
                u"loaded "_s + QString::number(count) + u" job descriptions"_s);
    } catch (...) {
        if (!self)
            co_return;
        const auto text = errorDescription(std::current_exception());
        setErrorMessage(u"Load failed: "_s + text);
        logLine(u"JobDescriptionView", u"loadJobDescriptions error: "_s + text);
    }
    setLoading(false);
}

QCoro::Task<> JobDescriptionsViewModel::save()
{
    QPointer self(this);
    APIClient* api = this->api();
    if (!api) {
        setErrorMessage(m_strings ? m_strings->text(u"jd.not_signed_in"_s) : QString());
        co_return;
    }
    if (!canSave())
        co_return;
    // Made here rather than in the call below: GCC 12 destroys a temporary of a conditional
    // expression inside co_await twice, which freed the typed company name under the form.
    std::optional<QString> company = m_formCompany.trimmed();
    if (company->isEmpty())
        company.reset();
    setSaving(true);
    setErrorMessage(std::nullopt);
    try {
        auto item = co_await api->createJobDescription(
            m_formTitle.trimmed(), m_formContent.trimmed(), company);
        if (!self)
            co_return;
        beginInsertFirst();
        m_items.prepend(item);
        endInsertFirst(item.id);
        if (m_telemetry)
            m_telemetry->jdUpload(true);
        m_formTitle.clear();
        m_formCompany.clear();
        m_formContent.clear();
        Q_EMIT formChanged();
        setFormOpen(false);
    } catch (...) {
        if (!self)
            co_return;
        // The form stays open with what was typed, so nothing is lost.
        setErrorMessage(u"Save failed: "_s + errorDescription(std::current_exception()));
    }
    setSaving(false);
}

void JobDescriptionsViewModel::setSaving(bool saving)
{
    if (m_isSaving == saving)
        return;
    m_isSaving = saving;
    Q_EMIT isSavingChanged();
    Q_EMIT formChanged(); // canSave depends on it
}

void JobDescriptionsViewModel::setFormOpen(bool open)
{
    if (m_isFormOpen == open)
        return;
    m_isFormOpen = open;
    Q_EMIT isFormOpenChanged();
}
