#include "MockInterviewPageViewModel.h"

#include "DocumentListViewModel.h"
#include "NotificationCenter.h"

using namespace Qt::StringLiterals;

namespace {

QString idAt(const DocumentListViewModel& list, int row)
{
    return list.data(list.index(row), DocumentListViewModel::IdRole).toString();
}

int validRow(const DocumentListViewModel& list, int row)
{
    if (row >= 0 && row < list.rowCount())
        return row;
    for (int i = 0; i < list.rowCount(); ++i) {
        if (list.data(list.index(i), DocumentListViewModel::IsActiveRole).toBool())
            return i;
    }
    return list.rowCount() > 0 ? 0 : -1;
}

} // namespace

MockInterviewPageViewModel::MockInterviewPageViewModel(DocumentListViewModel& resumes,
                                                       DocumentListViewModel& jobs,
                                                       NotificationCenter& notifications,
                                                       QObject* parent)
    : QObject(parent)
    , m_resumes(&resumes)
    , m_jobs(&jobs)
    , m_notifications(notifications)
{
    for (auto* list : {&resumes, &jobs}) {
        connect(list, &QAbstractItemModel::modelReset, this, &MockInterviewPageViewModel::listChanged);
        connect(list, &QAbstractItemModel::rowsInserted, this, &MockInterviewPageViewModel::listChanged);
        connect(list, &QAbstractItemModel::rowsRemoved, this, &MockInterviewPageViewModel::listChanged);
        connect(list, &QAbstractItemModel::dataChanged, this, &MockInterviewPageViewModel::listChanged);
        connect(list, &DocumentListViewModel::pageStateChanged, this, &MockInterviewPageViewModel::listChanged);
        connect(list, &DocumentListViewModel::errorMessageChanged, this, &MockInterviewPageViewModel::changed);
    }
    listChanged();
}

void MockInterviewPageViewModel::load()
{
    m_resumes->load();
    m_jobs->load();
}

MockInterviewPageViewModel::Blocker MockInterviewPageViewModel::blocker() const
{
    using State = DocumentListViewModel::PageState;
    if (m_resumes->pageState() == State::signedOut)
        return Blocker::signedOut;
    if (m_resumes->rowCount() == 0 && m_resumes->isLoading())
        return Blocker::loading;
    // An empty list whose load failed says nothing of whether the user has documents.
    if (m_resumes->rowCount() == 0)
        return !m_resumes->errorMessage() ? Blocker::noResume : Blocker::loadFailed;
    if (m_jobs->rowCount() == 0 && m_jobs->isLoading())
        return Blocker::loading;
    if (m_jobs->rowCount() == 0)
        return !m_jobs->errorMessage() ? Blocker::noJobDescription : Blocker::loadFailed;
    return Blocker::none;
}

QString MockInterviewPageViewModel::blockerKey() const
{
    switch (blocker()) {
    case Blocker::signedOut:
        return u"resume.sign_in_required"_s;
    case Blocker::noResume:
        return u"mock.error.no_resume"_s;
    case Blocker::noJobDescription:
        return u"mock.error.no_jd"_s;
    case Blocker::loading:
    case Blocker::loadFailed:
    case Blocker::none:
        break;
    }
    return {};
}

QString MockInterviewPageViewModel::loadError() const
{
    if (blocker() != Blocker::loadFailed)
        return {};
    const auto& failed = m_resumes->rowCount() == 0 ? m_resumes : m_jobs;
    return failed->errorMessage().value_or(QString());
}

void MockInterviewPageViewModel::setResumeIndex(int index)
{
    index = validRow(*m_resumes, index);
    if (index == m_resumeIndex)
        return;
    m_resumeIndex = index;
    Q_EMIT changed();
}

void MockInterviewPageViewModel::setJobDescriptionIndex(int index)
{
    index = validRow(*m_jobs, index);
    if (index == m_jobIndex)
        return;
    m_jobIndex = index;
    Q_EMIT changed();
}

bool MockInterviewPageViewModel::canStart() const
{
    return blocker() == Blocker::none && m_resumeIndex >= 0 && m_jobIndex >= 0;
}

void MockInterviewPageViewModel::start()
{
    if (!canStart())
        return;
    m_notifications.post(Notifications::startMockInterview, {},
                         {{u"resumeId"_s, idAt(*m_resumes, m_resumeIndex)},
                          {u"jobDescriptionId"_s, idAt(*m_jobs, m_jobIndex)}});
}

QStringList MockInterviewPageViewModel::names(const DocumentListViewModel& list)
{
    QStringList names;
    for (int row = 0; row < list.rowCount(); ++row)
        names.append(list.data(list.index(row), Qt::DisplayRole).toString());
    return names;
}

void MockInterviewPageViewModel::listChanged()
{
    // A choice whose row is gone falls back to the active or the first row.
    m_resumeIndex = validRow(*m_resumes, m_resumeIndex);
    m_jobIndex = validRow(*m_jobs, m_jobIndex);
    Q_EMIT changed();
}
