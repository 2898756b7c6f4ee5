#pragma once

#include <QAbstractListModel>
#include <QCoroTask>
#include <QPointer>
#include <QString>
#include <QtQmlIntegration>

#include <optional>

class APIClient;
class AppStrings;
class AuthViewModel;
class TelemetryClient;
class UserSettings;

// What the resume and job description pages share: a list of the user's documents on the
// backend, which one is active (a setting, sent with every answer request), the page's state,
// its error line, and deleting. The active id never points at a document the list no longer
// holds: the first row takes its place, or it is cleared when none is left.
class DocumentListViewModel : public QAbstractListModel {
    Q_OBJECT
    QML_ANONYMOUS
    Q_PROPERTY(PageState pageState READ pageState NOTIFY pageStateChanged)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY pageStateChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorMessageChanged)

public:
    // What the page shows, checked in this order.
    enum class PageState { signedOut, loading, empty, list };
    Q_ENUM(PageState)

    enum Role {
        IdRole = Qt::UserRole + 1,
        IsActiveRole,
        // "checkmark.circle.fill" on the active row, "circle" on the others.
        SelectionSymbolRole,
        // The delete button's name for screen readers: "Delete" and the row's name.
        DeleteNameRole,
        FirstOwnRole,
    };
    Q_ENUM(Role)

    // The setting that holds this kind's active id.
    struct ActiveSetting {
        std::optional<QString> (UserSettings::*get)() const;
        void (UserSettings::*set)(const std::optional<QString>&);
        void (UserSettings::*changed)();
    };

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    Q_INVOKABLE virtual void load() = 0;
    Q_INVOKABLE void select(int row);
    Q_INVOKABLE void remove(int row);

    QCoro::Task<> deleteDocument(QString id);

    PageState pageState() const;
    bool isLoading() const { return m_isLoading; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }

Q_SIGNALS:
    void pageStateChanged();
    void errorMessageChanged();

protected:
    DocumentListViewModel(AuthViewModel& auth, UserSettings& settings, AppStrings& strings,
                          TelemetryClient* telemetry, ActiveSetting active, QObject* parent);

    // The list itself, which the kinds hold with their own record type.
    virtual qsizetype documentCount() const = 0;
    virtual QString documentId(int row) const = 0;
    // What a row is called: its file name or its title.
    virtual QString documentName(int row) const = 0;
    virtual QVariant ownData(int row, int role) const = 0;
    virtual QHash<int, QByteArray> ownRoleNames() const = 0;
    // Roles whose text depends on the interface language, besides the delete button's name.
    virtual QList<int> languageRoles() const { return {}; }
    virtual void languageChanged() {}
    virtual void eraseDocument(int row) = 0;
    virtual void clearDocuments() = 0;
    // The request that deletes one document.
    virtual QCoro::Task<> deleteOnServer(APIClient& api, const QString& id) const = 0;

    // The client while the user is signed in, else nothing.
    APIClient* api() const;
    bool isSignedIn() const;
    void setLoading(bool loading);
    void setErrorMessage(std::optional<QString> message);
    // Around a change of the whole list.
    void beginReplace() { beginResetModel(); }
    void endReplace();
    // A new document at the top (newest first, as the server lists them), made the active one.
    void beginInsertFirst() { beginInsertRows({}, 0, 0); }
    void endInsertFirst(const QString& id);
    void repairActiveId();
    int rowOf(const QString& id) const;

    QPointer<AuthViewModel> m_auth;
    QPointer<UserSettings> m_settings;
    QPointer<AppStrings> m_strings;
    QPointer<TelemetryClient> m_telemetry;

private:
    QString errorText() const { return m_errorMessage.value_or(QString()); }
    std::optional<QString> activeId() const;
    void setActiveId(const std::optional<QString>& id);
    void activeIdChanged();

    ActiveSetting m_active;
    std::optional<QString> m_shownActiveId;
    bool m_isLoading = false;
    std::optional<QString> m_errorMessage;
};
