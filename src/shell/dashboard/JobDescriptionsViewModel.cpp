#include "JobDescriptionsViewModel.h"

#include "AppStrings.h"
#include "AuthViewModel.h"
#include "InterviewCollaborators.h"
#include "Log.h"
#include "TelemetryClient.h"
#include "UserSettings.h"


using namespace Qt::StringLiterals;

JobDescriptionsViewModel::JobDescriptionsViewModel(AuthViewModel& auth, UserSettings& settings, AppStrings& strings,
                                   TelemetryClient* telemetry, QObject* parent)
    : QAbstractListModel(parent)
    , m_auth(&auth)
    , m_settings(&settings)
    , m_strings(&strings)
    , m_telemetry(telemetry)
    , m_shownActiveId(settings.activeJobDescriptionId())
{
    connect(&settings, &UserSettings::activeJobDescriptionIdChanged, this, &JobDescriptionsViewModel::activeIdChanged);
    connect(&auth, &AuthViewModel::isLoggedInChanged, this, [this] {
        // Another account's documents must not stay on screen.
        if (m_auth && !m_auth->isLoggedIn())
            setItems({});
        Q_EMIT pageStateChanged();
    });
    connect(&strings, &AppStrings::languageCodeChanged, this, [this] {
        if (!m_items.isEmpty())
            Q_EMIT dataChanged(index(0), index(rowCount() - 1), {DeleteNameRole});
        Q_EMIT isSavingChanged();
    });
}

int JobDescriptionsViewModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_items.size());
}

QVariant JobDescriptionsViewModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const auto& item = m_items.at(index.row());
    const bool active = m_shownActiveId == item.id;
    switch (role) {
    case Qt::DisplayRole:
    case TitleRole:
        return item.title;
    case IdRole:
        return item.id;
    case CompanyRole:
        return item.company;
    case IsActiveRole:
        return active;
    case SelectionSymbolRole:
        return active ? u"checkmark.circle.fill"_s : u"circle"_s;
    case DeleteNameRole:
        return m_strings ? m_strings->format(u"documents.delete"_s, {item.title}) : QString();
    default:
        return {};
    }
}

QHash<int, QByteArray> JobDescriptionsViewModel::roleNames() const
{
    return {{IdRole, "jobDescriptionId"},
            {TitleRole, "title"},
            {CompanyRole, "company"},
            {IsActiveRole, "isActive"},
            {SelectionSymbolRole, "selectionSymbol"},
            {DeleteNameRole, "deleteName"}};
}

JobDescriptionsViewModel::PageState JobDescriptionsViewModel::pageState() const
{
    if (!m_auth || !m_auth->isLoggedIn())
        return PageState::signedOut;
    if (m_isLoading)
        return PageState::loading;
    return m_items.isEmpty() ? PageState::empty : PageState::list;
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
    if (m_formTitle == value)
        return;
    m_formTitle = value;
    Q_EMIT formChanged();
}

void JobDescriptionsViewModel::setFormCompany(const QString& value)
{
    if (m_formCompany == value)
        return;
    m_formCompany = value;
    Q_EMIT formChanged();
}

void JobDescriptionsViewModel::setFormContent(const QString& value)
{
    if (m_formContent == value)
        return;
    m_formContent = value;
    Q_EMIT formChanged();
}

void JobDescriptionsViewModel::load()
{
    loadJobDescriptions();
}

void JobDescriptionsViewModel::select(int row)
{
    if (row >= 0 && row < m_items.size() && m_settings)
        m_settings->setActiveJobDescriptionId(m_items.at(row).id);
}

void JobDescriptionsViewModel::remove(int row)
{
    if (row >= 0 && row < m_items.size())
        deleteJobDescription(m_items.at(row).id);
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
        setItems(std::move(wrapper.jobDescriptions));
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
    APIClient* api = m_auth ? m_auth->apiClient() : nullptr;
    if (!api || !m_auth->isLoggedIn()) {
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
        beginInsertRows({}, 0, 0);
        m_items.prepend(item);
        endInsertRows();
        Q_EMIT pageStateChanged();
        if (m_settings)
            m_settings->setActiveJobDescriptionId(item.id);
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

QCoro::Task<> JobDescriptionsViewModel::deleteJobDescription(QString id)
{
    QPointer self(this);
    APIClient* api = m_auth ? m_auth->apiClient() : nullptr;
    if (!api)
        co_return;
    setErrorMessage(std::nullopt);
    try {
        co_await api->deleteJobDescription(id);
    } catch (...) {
        if (self)
            setErrorMessage(u"Delete failed: "_s + errorDescription(std::current_exception()));
        co_return;
    }
    if (!self)
        co_return;
    // Looked up again: the list may have changed while the request was out.
    const int row = rowOf(id);
    if (row >= 0) {
        beginRemoveRows({}, row, row);
        m_items.removeAt(row);
        endRemoveRows();
        Q_EMIT pageStateChanged();
    }
    if (m_settings && m_settings->activeJobDescriptionId() == id)
        repairActiveId();
}

void JobDescriptionsViewModel::setLoading(bool loading)
{
    if (m_isLoading == loading)
        return;
    m_isLoading = loading;
    Q_EMIT pageStateChanged();
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

void JobDescriptionsViewModel::setErrorMessage(std::optional<QString> message)
{
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    Q_EMIT errorMessageChanged();
}

void JobDescriptionsViewModel::setItems(QList<APIClient::JobDescriptionResponse> items)
{
    beginResetModel();
    m_items = std::move(items);
    endResetModel();
    Q_EMIT pageStateChanged();
}

void JobDescriptionsViewModel::repairActiveId()
{
    if (!m_settings)
        return;
    const auto active = m_settings->activeJobDescriptionId();
    if (active && rowOf(*active) >= 0)
        return;
    if (!m_items.isEmpty())
        m_settings->setActiveJobDescriptionId(m_items.first().id);
    else if (active)
        m_settings->setActiveJobDescriptionId(std::nullopt);
}

int JobDescriptionsViewModel::rowOf(const QString& id) const
{
    for (int row = 0; row < m_items.size(); ++row) {
        if (m_items.at(row).id == id)
            return row;
    }
    return -1;
}

void JobDescriptionsViewModel::activeIdChanged()
{
    if (!m_settings)
        return;
    const auto previous = std::exchange(m_shownActiveId, m_settings->activeJobDescriptionId());
    for (const auto& id : {previous, m_shownActiveId}) {
        const int row = id ? rowOf(*id) : -1;
        if (row >= 0)
            Q_EMIT dataChanged(index(row), index(row), {IsActiveRole, SelectionSymbolRole});
    }
}
