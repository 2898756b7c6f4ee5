#include "ResumesViewModel.h"

#include "AppStrings.h"
#include "AuthViewModel.h"
#include "InterviewCollaborators.h"
#include "Log.h"
#include "TelemetryClient.h"
#include "UserSettings.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace {

// The record keeps the server's text; a date that reads as ISO 8601 is shown in the
// interface language, anything else as it came.
QString displayDate(const QString& createdAt, const QString& languageCode)
{
    auto when = QDateTime::fromString(createdAt, Qt::ISODateWithMs);
    if (!when.isValid())
        return createdAt;
    return QLocale(languageCode).toString(when.toLocalTime().date(), QLocale::ShortFormat);
}

} // namespace

ResumesViewModel::ResumesViewModel(AuthViewModel& auth, UserSettings& settings, AppStrings& strings,
                                   TelemetryClient* telemetry, QObject* parent)
    : DocumentListViewModel(auth, settings, strings, telemetry,
                            {&UserSettings::activeResumeId, &UserSettings::setActiveResumeId,
                             &UserSettings::activeResumeIdChanged},
                            parent)
{
}

QVariant ResumesViewModel::ownData(int row, int role) const
{
    const auto& resume = m_resumes.at(row);
    switch (role) {
    case FilenameRole:
        return resume.filename;
    case UploadedTextRole:
        return m_strings ? m_strings->format(u"resume.uploaded"_s,
                                             {displayDate(resume.createdAt, m_strings->languageCode())})
                         : resume.createdAt;
    default:
        return {};
    }
}

QHash<int, QByteArray> ResumesViewModel::ownRoleNames() const
{
    return {{IdRole, "resumeId"}, {FilenameRole, "filename"}, {UploadedTextRole, "uploadedText"}};
}

QString ResumesViewModel::uploadButtonText() const
{
    if (!m_strings)
        return {};
    return m_strings->text(m_isUploading ? u"resume.uploading"_s : u"resume.upload_pdf"_s);
}

QString ResumesViewModel::fileDialogTitle() const
{
    return m_strings ? m_strings->text(u"resume.select_pdf"_s) : QString();
}

QStringList ResumesViewModel::fileNameFilters()
{
    // Both cases: the dialog matches names case-sensitively on Linux, and "CV.PDF" is common.
    static const QStringList extensions{u"pdf"_s, u"txt"_s, u"md"_s, u"rtf"_s, u"doc"_s,
                                        u"docx"_s, u"png"_s, u"jpg"_s, u"jpeg"_s};
    QStringList patterns;
    for (const auto& ext : extensions)
        patterns << u"*."_s + ext << u"*."_s + ext.toUpper();
    return {u"Resumes ("_s + patterns.join(u' ') + u')'};
}

QUrl ResumesViewModel::fileDialogFolder() const
{
    // Left to itself the dialog opens in the working folder, which for a program the desktop
    // started is anything from / to a build tree; a resume is kept in Documents or at home.
    const auto documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    return QUrl::fromLocalFile(QFileInfo(documents).isDir() ? documents : QDir::homePath());
}

void ResumesViewModel::load()
{
    loadResumes();
}

void ResumesViewModel::uploadUrl(const QUrl& fileUrl)
{
    upload(fileUrl.isLocalFile() ? fileUrl.toLocalFile() : fileUrl.toString());
}

QCoro::Task<> ResumesViewModel::loadResumes()
{
    QPointer self(this);
    APIClient* api = m_auth ? m_auth->apiClient() : nullptr;
    if (!api) {
        const bool loggedIn = m_auth && m_auth->isLoggedIn();
        logLine(u"ResumeView", u"loadResumes: apiClient is nil, isLoggedIn="_s
                                   + (loggedIn ? u"true"_s : u"false"_s));
        co_return;
    }
    setLoading(true);
    setErrorMessage(std::nullopt);
    try {
        auto wrapper = co_await api->fetchResumes();
        if (!self)
            co_return;
        const auto count = wrapper.resumes.size();
        beginReplace();
        m_resumes = std::move(wrapper.resumes);
        endReplace();
        repairActiveId();
        logLine(u"ResumeView", u"loaded "_s + QString::number(count) + u" resumes"_s);
    } catch (...) {
        if (!self)
            co_return;
        const auto text = errorDescription(std::current_exception());
        setErrorMessage(u"Load failed: "_s + text);
        logLine(u"ResumeView", u"loadResumes error: "_s + text);
    }
    setLoading(false);
}

QCoro::Task<> ResumesViewModel::upload(QString filePath)
{
    QPointer self(this);
    APIClient* api = this->api();
    if (!api) {
        setErrorMessage(m_strings ? m_strings->text(u"resume.not_signed_in"_s) : QString());
        co_return;
    }
    setUploading(true);
    setErrorMessage(std::nullopt);
    try {
        auto resume = co_await api->uploadResume(filePath);
        if (!self)
            co_return;
        beginInsertFirst();
        m_resumes.prepend(resume);
        endInsertFirst(resume.id);
        if (m_telemetry)
            m_telemetry->resumeUpload(true);
    } catch (...) {
        if (!self)
            co_return;
        setErrorMessage(u"Upload failed: "_s + errorDescription(std::current_exception()));
    }
    setUploading(false);
}

void ResumesViewModel::setUploading(bool uploading)
{
    if (m_isUploading == uploading)
        return;
    m_isUploading = uploading;
    Q_EMIT isUploadingChanged();
}
