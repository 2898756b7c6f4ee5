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
    : QAbstractListModel(parent)
    , m_auth(&auth)
    , m_settings(&settings)
    , m_strings(&strings)
    , m_telemetry(telemetry)
    , m_shownActiveId(settings.activeResumeId())
{
    connect(&settings, &UserSettings::activeResumeIdChanged, this, &ResumesViewModel::activeIdChanged);
    connect(&auth, &AuthViewModel::isLoggedInChanged, this, [this] {
        // Another account's documents must not stay on screen.
        if (m_auth && !m_auth->isLoggedIn())
            setResumes({});
        Q_EMIT pageStateChanged();
    });
    connect(&strings, &AppStrings::languageCodeChanged, this, [this] {
        if (!m_resumes.isEmpty())
            Q_EMIT dataChanged(index(0), index(rowCount() - 1), {UploadedTextRole, DeleteNameRole});
        Q_EMIT isUploadingChanged();
    });
}

int ResumesViewModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_resumes.size());
}

QVariant ResumesViewModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const auto& resume = m_resumes.at(index.row());
    const bool active = m_shownActiveId == resume.id;
    switch (role) {
    case Qt::DisplayRole:
    case FilenameRole:
        return resume.filename;
    case IdRole:
        return resume.id;
    case IsActiveRole:
        return active;
    case SelectionSymbolRole:
        return active ? u"checkmark.circle.fill"_s : u"circle"_s;
    case UploadedTextRole:
        return m_strings ? m_strings->format(u"resume.uploaded"_s,
                                             {displayDate(resume.createdAt, m_strings->languageCode())})
                         : resume.createdAt;
    case DeleteNameRole:
        return m_strings ? m_strings->format(u"documents.delete"_s, {resume.filename}) : QString();
    default:
        return {};
    }
}

QHash<int, QByteArray> ResumesViewModel::roleNames() const
{
    return {{IdRole, "resumeId"},
            {FilenameRole, "filename"},
            {IsActiveRole, "isActive"},
            {SelectionSymbolRole, "selectionSymbol"},
            {DeleteNameRole, "deleteName"},
            {UploadedTextRole, "uploadedText"}};
}

ResumesViewModel::PageState ResumesViewModel::pageState() const
{
    if (!m_auth || !m_auth->isLoggedIn())
        return PageState::signedOut;
    if (m_isLoading)
        return PageState::loading;
    return m_resumes.isEmpty() ? PageState::empty : PageState::list;
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

void ResumesViewModel::select(int row)
{
    if (row >= 0 && row < m_resumes.size() && m_settings)
        m_settings->setActiveResumeId(m_resumes.at(row).id);
}

void ResumesViewModel::remove(int row)
{
    if (row >= 0 && row < m_resumes.size())
        deleteResume(m_resumes.at(row).id);
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
        setResumes(std::move(wrapper.resumes));
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
    APIClient* api = m_auth ? m_auth->apiClient() : nullptr;
    if (!api || !m_auth->isLoggedIn()) {
        setErrorMessage(m_strings ? m_strings->text(u"resume.not_signed_in"_s) : QString());
        co_return;
    }
    setUploading(true);
    setErrorMessage(std::nullopt);
    try {
        auto resume = co_await api->uploadResume(filePath);
        if (!self)
            co_return;
        // Newest first, as the server lists them.
        beginInsertRows({}, 0, 0);
        m_resumes.prepend(resume);
        endInsertRows();
        Q_EMIT pageStateChanged();
        if (m_settings)
            m_settings->setActiveResumeId(resume.id);
        if (m_telemetry)
            m_telemetry->resumeUpload(true);
    } catch (...) {
        if (!self)
            co_return;
        setErrorMessage(u"Upload failed: "_s + errorDescription(std::current_exception()));
    }
    setUploading(false);
}

QCoro::Task<> ResumesViewModel::deleteResume(QString id)
{
    QPointer self(this);
    APIClient* api = m_auth ? m_auth->apiClient() : nullptr;
    if (!api)
        co_return;
    setErrorMessage(std::nullopt);
    try {
        co_await api->deleteResume(id);
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
        m_resumes.removeAt(row);
        endRemoveRows();
        Q_EMIT pageStateChanged();
    }
    if (m_settings && m_settings->activeResumeId() == id)
        repairActiveId();
}

void ResumesViewModel::setLoading(bool loading)
{
    if (m_isLoading == loading)
        return;
    m_isLoading = loading;
    Q_EMIT pageStateChanged();
}

void ResumesViewModel::setUploading(bool uploading)
{
    if (m_isUploading == uploading)
        return;
    m_isUploading = uploading;
    Q_EMIT isUploadingChanged();
}

void ResumesViewModel::setErrorMessage(std::optional<QString> message)
{
    if (m_errorMessage == message)
        return;
    m_errorMessage = std::move(message);
    Q_EMIT errorMessageChanged();
}

void ResumesViewModel::setResumes(QList<APIClient::ResumeResponse> resumes)
{
    beginResetModel();
    m_resumes = std::move(resumes);
    endResetModel();
    Q_EMIT pageStateChanged();
}

void ResumesViewModel::repairActiveId()
{
    if (!m_settings)
        return;
    const auto active = m_settings->activeResumeId();
    if (active && rowOf(*active) >= 0)
        return;
    if (!m_resumes.isEmpty())
        m_settings->setActiveResumeId(m_resumes.first().id);
    else if (active)
        m_settings->setActiveResumeId(std::nullopt);
}

int ResumesViewModel::rowOf(const QString& id) const
{
    for (int row = 0; row < m_resumes.size(); ++row) {
        if (m_resumes.at(row).id == id)
            return row;
    }
    return -1;
}

void ResumesViewModel::activeIdChanged()
{
    if (!m_settings)
        return;
    const auto previous = std::exchange(m_shownActiveId, m_settings->activeResumeId());
    for (const auto& id : {previous, m_shownActiveId}) {
        const int row = id ? rowOf(*id) : -1;
        if (row >= 0)
            Q_EMIT dataChanged(index(row), index(row), {IsActiveRole, SelectionSymbolRole});
    }
}
