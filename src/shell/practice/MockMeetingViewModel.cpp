#include "MockMeetingViewModel.h"

#include "AppStrings.h"
#include "CameraService.h"
#include "MockInterviewCoordinator.h"
#include "MockPracticeSession.h"
#include "TTSPlayer.h"

#include <QBuffer>

#include <utility>

using namespace Qt::StringLiterals;

MockMeetingViewModel::MockMeetingViewModel(MockPracticeSession& session, AppStrings& strings,
                                           QObject* captureSession, QObject* parent)
    : QObject(parent)
    , m_session(&session)
    , m_coordinator(session.coordinator())
    , m_player(session.player())
    , m_camera(session.camera())
    , m_captureSession(captureSession)
    , m_strings(&strings)
{
    using Coordinator = MockInterviewCoordinator;
    connect(m_coordinator, &Coordinator::stateChanged, this, &MockMeetingViewModel::stateChanged);
    for (auto signal : {&Coordinator::currentIndexChanged, &Coordinator::questionsChanged})
        connect(m_coordinator, signal, this, &MockMeetingViewModel::progressChanged);
    connect(m_coordinator, &Coordinator::avatarImageChanged, this, &MockMeetingViewModel::updateAvatar);
    if (m_player)
        connect(m_player, &TTSPlayer::levelChanged, this, &MockMeetingViewModel::levelChanged);
    if (m_camera)
        connect(m_camera, &CameraService::hasFailedChanged, this, &MockMeetingViewModel::cameraChanged);
    connect(&strings, &AppStrings::languageCodeChanged, this, &MockMeetingViewModel::progressChanged);
    updateAvatar();
}

QString MockMeetingViewModel::progressText() const
{
    if (position() == 0 || !m_strings)
        return {};
    return m_strings->format(u"mock.meeting.progress"_s, {position(), questionCount()});
}

int MockMeetingViewModel::position() const
{
    if (!m_coordinator || m_coordinator->questionCount() == 0)
        return 0;
    return std::min(m_coordinator->currentIndex(), m_coordinator->questionCount() - 1) + 1;
}

int MockMeetingViewModel::questionCount() const
{
    return m_coordinator ? m_coordinator->questionCount() : 0;
}

QString MockMeetingViewModel::phase() const
{
    return m_coordinator ? m_coordinator->phase() : u"finished"_s;
}

bool MockMeetingViewModel::canSkip() const
{
    using Kind = MockInterviewCoordinator::State::Kind;
    const auto kind = m_coordinator ? m_coordinator->state().kind : Kind::finished;
    return kind == Kind::playingQuestion || kind == Kind::waitingForAnswer;
}

double MockMeetingViewModel::level() const
{
    return m_player ? m_player->level() : 0.0;
}

bool MockMeetingViewModel::cameraUnavailable() const
{
    return !m_camera || !m_captureSession || m_camera->hasFailed();
}

void MockMeetingViewModel::skip()
{
    if (!canSkip())
        return;
    using Kind = MockInterviewCoordinator::State::Kind;
    if (m_coordinator->state().kind == Kind::playingQuestion) {
        // The coordinator only moves on from a question that has been heard: the speech is cut
        // short, and the skip follows once it is waiting for the answer.
        m_skipWhenWaiting = true;
        if (m_player)
            m_player->stop();
        return;
    }
    m_coordinator->skip();
}

void MockMeetingViewModel::stateChanged()
{
    using Kind = MockInterviewCoordinator::State::Kind;
    const auto kind = m_coordinator->state().kind;
    if (kind == Kind::waitingForAnswer && std::exchange(m_skipWhenWaiting, false)) {
        // A turn later: the coordinator starts listening for the skip only after saying it waits.
        QMetaObject::invokeMethod(this, [this] {
            if (m_coordinator)
                m_coordinator->skip();
        }, Qt::QueuedConnection);
    }
    else if (kind != Kind::playingQuestion)
        m_skipWhenWaiting = false;
    Q_EMIT progressChanged();
}

void MockMeetingViewModel::regenerateAvatar()
{
    if (m_session)
        m_session->regenerateAvatar();
}

void MockMeetingViewModel::end()
{
    Q_EMIT endRequested();
}

void MockMeetingViewModel::updateAvatar()
{
    QString source;
    if (m_coordinator && !m_coordinator->avatarImage().isNull()) {
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        m_coordinator->avatarImage().save(&buffer, "PNG");
        source = u"data:image/png;base64,"_s + QString::fromLatin1(png.toBase64());
    }
    if (source == m_avatarSource)
        return;
    m_avatarSource = source;
    Q_EMIT avatarChanged();
}
