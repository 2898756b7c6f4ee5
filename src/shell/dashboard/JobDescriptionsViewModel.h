#pragma once

#include "APIClient.h"
#include "DocumentListViewModel.h"

#include <QCoroTask>
#include <QList>
#include <QString>
#include <QtQmlIntegration>

// The job description page: the user's job descriptions, one row each, the active one, and
// the form that adds one. There is no editing: a changed description is saved as a new one,
// which becomes the active one.
class JobDescriptionsViewModel : public DocumentListViewModel {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(bool isSaving READ isSaving NOTIFY isSavingChanged)
    Q_PROPERTY(bool isFormOpen READ isFormOpen NOTIFY isFormOpenChanged)
    Q_PROPERTY(QString formTitle READ formTitle WRITE setFormTitle NOTIFY formChanged)
    Q_PROPERTY(QString formCompany READ formCompany WRITE setFormCompany NOTIFY formChanged)
    Q_PROPERTY(QString formContent READ formContent WRITE setFormContent NOTIFY formChanged)
    Q_PROPERTY(bool canSave READ canSave NOTIFY formChanged)
    Q_PROPERTY(QString saveButtonText READ saveButtonText NOTIFY isSavingChanged)

public:
    enum OwnRole {
        TitleRole = FirstOwnRole,
        CompanyRole,
    };
    Q_ENUM(OwnRole)

    JobDescriptionsViewModel(AuthViewModel& auth, UserSettings& settings, AppStrings& strings,
                             TelemetryClient* telemetry, QObject* parent = nullptr);

    void load() override;
    Q_INVOKABLE void openForm();
    Q_INVOKABLE void closeForm();
    Q_INVOKABLE void submitForm();

    QCoro::Task<> loadJobDescriptions();
    // Saves the form's fields; on success the form closes and is emptied.
    QCoro::Task<> save();
    QCoro::Task<> deleteJobDescription(QString id) { return deleteDocument(std::move(id)); }

    const QList<APIClient::JobDescriptionResponse>& jobDescriptions() const { return m_items; }
    bool isSaving() const { return m_isSaving; }
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
    void isSavingChanged();
    void isFormOpenChanged();
    void formChanged();

private:
    qsizetype documentCount() const override { return m_items.size(); }
    QString documentId(int row) const override { return m_items.at(row).id; }
    QString documentName(int row) const override { return m_items.at(row).title; }
    QVariant ownData(int row, int role) const override;
    QHash<int, QByteArray> ownRoleNames() const override;
    void languageChanged() override { Q_EMIT isSavingChanged(); }
    void eraseDocument(int row) override { m_items.removeAt(row); }
    void clearDocuments() override { m_items.clear(); }
    QCoro::Task<> deleteOnServer(APIClient& api, const QString& id) const override
    {
        return api.deleteJobDescription(id);
    }
    void setSaving(bool saving);
    void setFormOpen(bool open);
    void setFormField(QString& field, const QString& value);

    QList<APIClient::JobDescriptionResponse> m_items;
    bool m_isSaving = false;
    bool m_isFormOpen = false;
    QString m_formTitle, m_formCompany, m_formContent;
};
