#include "DocumentListViewModel.h"

#include "AppStrings.h"
#include "AuthViewModel.h"
#include "InterviewCollaborators.h"
#include "TelemetryClient.h"
#include "UserSettings.h"

using namespace Qt::StringLiterals;

DocumentListViewModel::DocumentListViewModel(AuthViewModel& auth, UserSettings& settings,
                                             AppStrings& strings, TelemetryClient* telemetry,
                                             ActiveSetting active, QObject* parent)
    : QAbstractListModel(parent)
    , m_auth(&auth)
    , m_settings(&settings)
    , m_strings(&strings)
    , m_telemetry(telemetry)
    , m_active(active)
    , m_shownActiveId((settings.*active.get)())
{
    connect(&settings, active.changed, this, &DocumentListViewModel::activeIdChanged);
    connect(&auth, &AuthViewModel::isLoggedInChanged, this, [this] {
        // Another account's documents must not stay on screen.
        if (!isSignedIn() && documentCount() > 0) {
            beginReplace();
            clearDocuments();
            endReplace();
        }
        Q_EMIT pageStateChanged();
    });
    connect(&strings, &AppStrings::languageCodeChanged, this, [this] {
        if (documentCount() > 0)
            Q_EMIT dataChanged(index(0), index(rowCount() - 1), languageRoles() << DeleteNameRole);
        languageChanged();
    });
}

int DocumentListViewModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(documentCount());
}

QVariant DocumentListViewModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const int row = index.row();
    const bool active = m_shownActiveId == documentId(row);
    switch (role) {
    case Qt::DisplayRole:
        return documentName(row);
    case IdRole:
        return documentId(row);
    case IsActiveRole:
        return active;
    case SelectionSymbolRole:
        return active ? u"checkmark.circle.fill"_s : u"circle"_s;
    case DeleteNameRole:
        return m_strings ? m_strings->format(u"documents.delete"_s, {documentName(row)}) : QString();
    default:
        return ownData(row, role);
    }
}

QHash<int, QByteArray> DocumentListViewModel::roleNames() const
{
    auto names = ownRoleNames();
    names.insert(IsActiveRole, "isActive");
    names.insert(SelectionSymbolRole, "selectionSymbol");
    names.insert(DeleteNameRole, "deleteName");
    return names;
}

DocumentListViewModel::PageState DocumentListViewModel::pageState() const
{
    if (!isSignedIn())
        return PageState::signedOut;
    if (m_isLoading)
        return PageState::loading;
    return documentCount() == 0 ? PageState::empty : PageState::list;
}

void DocumentListViewModel::select(int row)
{
    if (row >= 0 && row < documentCount())
        setActiveId(documentId(row));
}

void DocumentListViewModel::remove(int row)
{
    if (row >= 0 && row < documentCount())
        deleteDocument(documentId(row));
}

QCoro::Task<> DocumentListViewModel::deleteDocument(QString id)
{
    QPointer self(this);
    APIClient* client = m_auth ? m_auth->apiClient() : nullptr;
    if (!client)
        co_return;
    setErrorMessage(std::nullopt);
    try {
        co_await deleteOnServer(*client, id);
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
        eraseDocument(row);
        endRemoveRows();
        Q_EMIT pageStateChanged();
    }
    if (activeId() == id)
        repairActiveId();
}

APIClient* DocumentListViewModel::api() const
{
    return isSignedIn() ? m_auth->apiClient() : nullptr;
}

bool DocumentListViewModel::isSignedIn() const
{
    return m_auth && m_auth->isLoggedIn();
}

void DocumentListViewModel::setLoading(bool loading)
{
    if (m_isLoading == loading)
        return;
    m_isLoading = loading;
    Q_EMIT pageStateChanged();
}

void DocumentListViewModel::setErrorMessage(std::optional<QString> message)
{
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    Q_EMIT errorMessageChanged();
}

void DocumentListViewModel::endReplace()
{
    endResetModel();
    Q_EMIT pageStateChanged();
}

void DocumentListViewModel::endInsertFirst(const QString& id)
{
    endInsertRows();
    Q_EMIT pageStateChanged();
    setActiveId(id);
}

void DocumentListViewModel::repairActiveId()
{
    const auto active = activeId();
    if (active && rowOf(*active) >= 0)
        return;
    if (documentCount() > 0)
        setActiveId(documentId(0));
    else if (active)
        setActiveId(std::nullopt);
}

int DocumentListViewModel::rowOf(const QString& id) const
{
    for (int row = 0; row < documentCount(); ++row) {
        if (documentId(row) == id)
            return row;
    }
    return -1;
}

std::optional<QString> DocumentListViewModel::activeId() const
{
    return m_settings ? (m_settings->*m_active.get)() : std::nullopt;
}

void DocumentListViewModel::setActiveId(const std::optional<QString>& id)
{
    if (m_settings)
        (m_settings->*m_active.set)(id);
}

void DocumentListViewModel::activeIdChanged()
{
    const auto previous = std::exchange(m_shownActiveId, activeId());
    for (const auto& id : {previous, m_shownActiveId}) {
        const int row = id ? rowOf(*id) : -1;
        if (row >= 0)
            Q_EMIT dataChanged(index(row), index(row), {IsActiveRole, SelectionSymbolRole});
    }
}
