#pragma once

#include "APIClient.h"
#include "DocumentListViewModel.h"

#include <QCoroTask>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QtQmlIntegration>

// The resume page: the user's resumes on the backend, one row each, and which one is active.
// Uploading makes the new resume the active one.
class ResumesViewModel : public DocumentListViewModel {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(bool isUploading READ isUploading NOTIFY isUploadingChanged)
    Q_PROPERTY(QString uploadButtonText READ uploadButtonText NOTIFY isUploadingChanged)
    Q_PROPERTY(QString fileDialogTitle READ fileDialogTitle CONSTANT)
    Q_PROPERTY(QStringList fileNameFilters READ fileNameFilters CONSTANT)

public:
    enum OwnRole {
        FilenameRole = FirstOwnRole,
        UploadedTextRole,
    };
    Q_ENUM(OwnRole)

    ResumesViewModel(AuthViewModel& auth, UserSettings& settings, AppStrings& strings,
                     TelemetryClient* telemetry, QObject* parent = nullptr);

    // The page's actions, for QML; each starts the task of the same name.
    void load() override;
    Q_INVOKABLE void uploadUrl(const QUrl& fileUrl);

    QCoro::Task<> loadResumes();
    QCoro::Task<> upload(QString filePath);
    QCoro::Task<> deleteResume(QString id) { return deleteDocument(std::move(id)); }

    const QList<APIClient::ResumeResponse>& resumes() const { return m_resumes; }
    bool isUploading() const { return m_isUploading; }
    QString uploadButtonText() const;
    QString fileDialogTitle() const;
    // The file types the backend reads, for the file dialog.
    static QStringList fileNameFilters();
    // Where the file dialog opens.
    Q_INVOKABLE QUrl fileDialogFolder() const;

Q_SIGNALS:
    void isUploadingChanged();

private:
    qsizetype documentCount() const override { return m_resumes.size(); }
    QString documentId(int row) const override { return m_resumes.at(row).id; }
    QString documentName(int row) const override { return m_resumes.at(row).filename; }
    QVariant ownData(int row, int role) const override;
    QHash<int, QByteArray> ownRoleNames() const override;
    QList<int> languageRoles() const override { return {UploadedTextRole}; }
    void languageChanged() override { Q_EMIT isUploadingChanged(); }
    void eraseDocument(int row) override { m_resumes.removeAt(row); }
    void clearDocuments() override { m_resumes.clear(); }
    QCoro::Task<> deleteOnServer(APIClient& api, const QString& id) const override
    {
        return api.deleteResume(id);
    }
    void setUploading(bool uploading);

    QList<APIClient::ResumeResponse> m_resumes;
    bool m_isUploading = false;
};
