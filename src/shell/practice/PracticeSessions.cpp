#include "PracticeSessions.h"

#include "CameraService.h"
#include "InterviewViewModel.h"
#include "MockInterviewPipeline.h"
#include "MockMeetingViewModel.h"
#include "MockPracticeSession.h"
#include "TTSPlayer.h"

#include <QTimer>

using namespace Qt::StringLiterals;

PracticeSessions::PracticeSessions(PracticeDevices devices, Services services, QObject* parent)
    : QObject(parent)
    , m_devices(std::move(devices))
    , m_services(services)
{
    if (!m_services.network)
        m_ownNetwork = std::make_unique<QNetworkAccessManager>();
}

PracticeSessions::~PracticeSessions()
{
    // The window shows the meeting's model: it goes first.
    m_window.reset();
    m_meeting.reset();
}

bool PracticeSessions::start(const QVariantMap& userInfo, const QString& language)
{
    const auto resumeId = userInfo.value(u"resumeId"_s);
    const auto jobDescriptionId = userInfo.value(u"jobDescriptionId"_s);
    if (resumeId.typeId() != QMetaType::QString || jobDescriptionId.typeId() != QMetaType::QString)
        return false;
    if (m_session) {
        // A second start joins the session that runs.
        if (m_window)
            m_window->raise();
        return false;
    }
    if (!m_devices.makePlayer || !m_devices.openWindow)
        return false;
    auto player = m_devices.makePlayer(m_services.clock);
    if (!player)
        return false;
    m_session = std::make_unique<MockPracticeSession>(MockPracticeSession::Parts{
        m_services.apiClient,
        m_services.network ? *m_services.network : *m_ownNetwork,
        m_services.notifications,
        m_services.clock,
        std::move(player),
        m_devices.makeCamera ? m_devices.makeCamera() : nullptr,
        std::make_shared<ViewModelPipeline>(m_services.interview.data()),
        m_services.telemetry,
    });
    auto* session = m_session.get();
    connect(session, &MockPracticeSession::ended, this, [this, session] {
        std::erase_if(m_ending, [session](const auto& ending) { return ending.get() == session; });
        Q_EMIT sessionEnded();
    }, Qt::QueuedConnection);
    auto* camera = session->camera();
    m_meeting = std::make_unique<MockMeetingViewModel>(
        *session, m_services.strings, camera && m_devices.previewOf ? m_devices.previewOf(*camera) : nullptr);
    connect(m_meeting.get(), &MockMeetingViewModel::endRequested, this, &PracticeSessions::end);
    m_window = m_devices.openWindow(*m_meeting);
    if (!m_window) {
        // Nothing to show it in, and nothing to end it with: no session.
        m_meeting.reset();
        m_session.reset();
        return false;
    }
    session->begin(resumeId.toString(), jobDescriptionId.toString(), language);
    return true;
}

void PracticeSessions::end()
{
    if (!m_session)
        return;
    // Cleared first: closing the window comes back here, and a new start may follow at once.
    auto window = std::move(m_window);
    auto meeting = std::move(m_meeting);
    auto session = std::move(m_session);
    // A turn later, the window before its model: this may run inside the window's own close.
    QTimer::singleShot(0, [window = window.release(), meeting = meeting.release()] {
        delete window;
        delete meeting;
    });
    session->end();
    // ended() is queued, so the session is in the list before it is taken out.
    m_ending.push_back(std::move(session));
}
