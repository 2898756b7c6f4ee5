#pragma once

#include "APIClient.h"

#include <QAbstractListModel>
#include <QCoroTask>
#include <QList>
#include <QPointer>
#include <QString>
#include <QtQmlIntegration>

#include <optional>

class AppStrings;
class AuthViewModel;
class TelemetryClient;
class UserSettings;

// The job description page: the user's job descriptions, one row each, the active one, and
// the form that adds one. There is no editing: a changed description is saved as a new one,
// which becomes the active one.
class JobDescriptionsViewModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(PageState pageState READ pageState NOTIFY pageStateChanged)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY pageStateChanged)
    Q_PROPERTY(bool isSaving READ isSaving NOTIFY isSavingChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorMessageChanged)
    Q_PROPERTY(bool isFormOpen READ isFormOpen NOTIFY isFormOpenChanged)
    Q_PROPERTY(QString formTitle READ formTitle WRITE setFormTitle NOTIFY formChanged)
    Q_PROPERTY(QString formCompany READ formCompany WRITE setFormCompany NOTIFY formChanged)
    Q_PROPERTY(QString formContent READ formContent WRITE setFormContent NOTIFY formChanged)
    Q_PROPERTY(bool canSave READ canSave NOTIFY formChanged)
    Q_PROPERTY(QString saveButtonText READ saveButtonText NOTIFY isSavingChanged)

public:
    enum class PageState { signedOut, loading, empty, list };
    Q_ENUM(PageState)

    enum Role {
        IdRole = Qt::UserRole + 1,
        TitleRole,
        CompanyRole,
        IsActiveRole,
        SelectionSymbolRole,
        // The delete button's name for screen readers: "Delete" and the row's name.
        DeleteNameRole,
    };
    Q_ENUM(Role)

    JobDescriptionsViewModel(AuthViewModel& auth, UserSettings& settings, AppStrings& strings,
                             TelemetryClient* telemetry, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    Q_INVOKABLE void load();
    Q_INVOKABLE void select(int row);
    Q_INVOKABLE void remove(int row);
    Q_INVOKABLE void openForm();
    Q_INVOKABLE void closeForm();
    Q_INVOKABLE void submitForm();

    QCoro::Task<> loadJobDescriptions();
    // Saves the form's fields; on success the form closes and is emptied.
    QCoro::Task<> save();
    QCoro::Task<> deleteJobDescription(QString id);

    const QList<APIClient::JobDescriptionResponse>& jobDescriptions() const { return m_items; }
    PageState pageState() const;
    bool isLoading() const { return m_isLoading; }
    bool isSaving() const { return m_isSaving; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    bool isFormOpen() const { return m_isFormOpen; }
    QString formTitle() const { return m_formTitle; }
    void setFormTitle(const QString& value);
    QString formCompany() const { return m_formCompany; }
    void setFormCompany(const QString& value);
    QString formContent() const { return m_formContent; }
    void setFormContent(const QString& value);
    // A title and some content are needed; the company may stay empty.
    bool canSave() const;
    QString saveButtonText() const;

Q_SIGNALS:
    void pageStateChanged();
    void isSavingChanged();
    void errorMessageChanged();
    void isFormOpenChanged();
    void formChanged();

private:
    QString errorText() const { return m_errorMessage.value_or(QString()); }
    void setLoading(bool loading);
    void setSaving(bool saving);
    void setFormOpen(bool open);
    void setErrorMessage(std::optional<QString> message);
    void setItems(QList<APIClient::JobDescriptionResponse> items);
    void repairActiveId();
    int rowOf(const QString& id) const;
    void activeIdChanged();

    QPointer<AuthViewModel> m_auth;
    QPointer<UserSettings> m_settings;
    QPointer<AppStrings> m_strings;
    QPointer<TelemetryClient> m_telemetry;
    QList<APIClient::JobDescriptionResponse> m_items;
    std::optional<QString> m_shownActiveId;
    bool m_isLoading = false;
    bool m_isSaving = false;
    bool m_isFormOpen = false;
    QString m_formTitle, m_formCompany, m_formContent;
    std::optional<QString> m_errorMessage;
};
