#pragma once

#include "APIClient.h"

#include <QAbstractListModel>
#include <QCoroTask>
#include <QList>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QtQmlIntegration>

#include <optional>

class AppStrings;
class AuthViewModel;
class TelemetryClient;
class UserSettings;

// The resume page: the user's resumes on the backend, one row each, and which one is active
// (sent with every answer request). Uploading makes the new resume the active one; the active
// id never points at a resume the list no longer holds.
class ResumesViewModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(PageState pageState READ pageState NOTIFY pageStateChanged)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY pageStateChanged)
    Q_PROPERTY(bool isUploading READ isUploading NOTIFY isUploadingChanged)
    Q_PROPERTY(QString errorMessage READ errorText NOTIFY errorMessageChanged)
    Q_PROPERTY(QString uploadButtonText READ uploadButtonText NOTIFY isUploadingChanged)
    Q_PROPERTY(QString fileDialogTitle READ fileDialogTitle CONSTANT)
    Q_PROPERTY(QStringList fileNameFilters READ fileNameFilters CONSTANT)

public:
    // What the page shows, checked in this order.
    enum class PageState { signedOut, loading, empty, list };
    Q_ENUM(PageState)

    enum Role {
        IdRole = Qt::UserRole + 1,
        FilenameRole,
        IsActiveRole,
        // "checkmark.circle.fill" on the active row, "circle" on the others.
        SelectionSymbolRole,
        UploadedTextRole,
        // The delete button's name for screen readers: "Delete" and the row's name.
        DeleteNameRole,
    };
    Q_ENUM(Role)

    ResumesViewModel(AuthViewModel& auth, UserSettings& settings, AppStrings& strings,
                     TelemetryClient* telemetry, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    // The page's actions, for QML; each starts the task of the same name.
    Q_INVOKABLE void load();
    Q_INVOKABLE void uploadUrl(const QUrl& fileUrl);
    Q_INVOKABLE void select(int row);
    Q_INVOKABLE void remove(int row);

    QCoro::Task<> loadResumes();
    QCoro::Task<> upload(QString filePath);
    QCoro::Task<> deleteResume(QString id);

    const QList<APIClient::ResumeResponse>& resumes() const { return m_resumes; }
    PageState pageState() const;
    bool isLoading() const { return m_isLoading; }
    bool isUploading() const { return m_isUploading; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    QString uploadButtonText() const;
    QString fileDialogTitle() const;
    // The file types the backend reads, for the file dialog.
    static QStringList fileNameFilters();
    // Where the file dialog opens.
    Q_INVOKABLE QUrl fileDialogFolder() const;

Q_SIGNALS:
    void pageStateChanged();
    void isUploadingChanged();
    void errorMessageChanged();

private:
    QString errorText() const { return m_errorMessage.value_or(QString()); }
    void setLoading(bool loading);
    void setUploading(bool uploading);
    void setErrorMessage(std::optional<QString> message);
    void setResumes(QList<APIClient::ResumeResponse> resumes);
    // Points the active id at the first row when it names no row (or clears it for an empty list).
    void repairActiveId();
    int rowOf(const QString& id) const;
    void activeIdChanged();

    QPointer<AuthViewModel> m_auth;
    QPointer<UserSettings> m_settings;
    QPointer<AppStrings> m_strings;
    QPointer<TelemetryClient> m_telemetry;
    QList<APIClient::ResumeResponse> m_resumes;
    std::optional<QString> m_shownActiveId;
    bool m_isLoading = false;
    bool m_isUploading = false;
    std::optional<QString> m_errorMessage;
};
