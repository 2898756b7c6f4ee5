#include "MockPracticeSession.h"

#include "CameraService.h"
#include "Log.h"
#include "MockInterviewAPI.h"
#include "MockInterviewCoordinator.h"
#include "MockInterviewPipeline.h"
#include "TelemetryClient.h"
#include "TTSPlayer.h"

using namespace Qt::StringLiterals;

MockPracticeSession::MockPracticeSession(Parts parts, QObject* parent)
    : QObject(parent)
    , m_player(std::move(parts.player))
    , m_camera(std::move(parts.camera))
    , m_api(std::make_unique<MockInterviewAPI>(parts.apiClient, parts.urlSession,
                                               parts.notifications))
    , m_pipeline(std::move(parts.pipeline))
    , m_telemetry(parts.telemetry)
{
    m_coordinator = std::make_unique<MockInterviewCoordinator>(*m_api, *m_player, m_pipeline,
                                                               parts.clock, parts.telemetry);
}

MockPracticeSession::~MockPracticeSession()
{
    m_begin.cancel();
    m_avatar.cancel();
    if (m_player)
        m_player->stop();
    if (m_camera)
        m_camera->stop();
}

void MockPracticeSession::begin(std::optional<QString> resumeId,
                                std::optional<QString> jobDescriptionId, QString language)
{
    if (m_begin.isValid() || m_endRequested)
        return;
    m_begin = TaskHandle::run([&](const CancellationToken&) {
        return runBegin(std::move(resumeId), std::move(jobDescriptionId), std::move(language));
    });
}

QCoro::Task<> MockPracticeSession::runBegin(std::optional<QString> resumeId,
                                            std::optional<QString> jobDescriptionId,
                                            QString language)
{
    QPointer self(this);
    // Not declared in the condition: GCC 12 destroys such a variable twice when the body suspends.
    const QPointer camera = m_camera.get();
    if (camera) {
        const bool granted = co_await camera->requestAccess();
        if (!self || m_endRequested)
            co_return;
        try {
            if (granted)
                camera->start();
        } catch (const CameraError& error) {
            // The tile says so; the interview goes on without the picture.
            logLine(u"Mock", u"Camera unavailable: "_s + error.description());
        }
    }
    co_await loadAvatar(false);
    if (!self || m_endRequested)
        co_return;
    co_await m_coordinator->startSession(std::move(resumeId), std::move(jobDescriptionId),
                                         std::move(language));
}

void MockPracticeSession::regenerateAvatar()
{
    if (m_endRequested || (m_avatar.isValid() && !m_avatar.isFinished()))
        return;
    m_avatar = TaskHandle::run([this](const CancellationToken&) { return loadAvatar(true); });
}

QCoro::Task<> MockPracticeSession::loadAvatar(bool regenerate)
{
    QPointer self(this);
    // A named callback, not a temporary in the awaited call: GCC 12 destroys such temporaries
    // twice.
    std::function<void(bool)> generated = [telemetry = m_telemetry](bool firstTime) {
        if (telemetry)
            telemetry->mockAvatarGenerated(firstTime);
    };
    const auto bytes = co_await loadAvatarImage(m_api.get(), regenerate, std::move(generated));
    if (!self || !bytes)
        co_return;
    if (const auto image = QImage::fromData(*bytes); !image.isNull())
        m_coordinator->setAvatarImage(image);
}

void MockPracticeSession::end()
{
    if (m_endRequested)
        return;
    m_endRequested = true;
    if (m_player)
        m_player->stop();
    if (m_camera)
        m_camera->stop();
    m_end = TaskHandle::run([this](const CancellationToken&) { return runEnd(); });
}

QCoro::Task<> MockPracticeSession::runEnd()
{
    QPointer self(this);
    co_await m_coordinator->abort(u"user_cancel"_s);
    if (!self)
        co_return;
    const auto pipeline = m_pipeline;
    if (pipeline)
        co_await pipeline->stopInterview();
    if (self)
        Q_EMIT ended();
}
