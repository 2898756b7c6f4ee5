#pragma once

#include "TaskHandle.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>
#include <optional>

class APIClient;
class CameraService;
class Clock;
class MockInterviewAPI;
class MockInterviewCoordinator;
class MockInterviewPipeline;
class NotificationCenter;
class QNetworkAccessManager;
class TTSPlayer;
class TelemetryClient;

// One practice session: its speech player, camera, practice routes and coordinator, from the
// start to the one clean-up that both the window's close and "End Interview" lead to.
class MockPracticeSession : public QObject {
    Q_OBJECT

public:
    struct Parts {
        APIClient& apiClient;
        QNetworkAccessManager& urlSession;
        NotificationCenter& notifications;
        Clock& clock;
        std::unique_ptr<TTSPlayer> player;
        std::unique_ptr<CameraService> camera;
        std::shared_ptr<MockInterviewPipeline> pipeline;
        TelemetryClient* telemetry = nullptr;
    };

    explicit MockPracticeSession(Parts parts, QObject* parent = nullptr);
    ~MockPracticeSession() override;

    // Starts the camera where it may, loads the interviewer's portrait, then the questions.
    void begin(std::optional<QString> resumeId, std::optional<QString> jobDescriptionId,
               QString language);
    // A new portrait for the interviewer; the old one stays if that fails.
    void regenerateAvatar();
    // Stops the speech and the camera, ends the coordinator and the pipeline; runs once however
    // often it is called, and emits ended() when done.
    void end();

    MockInterviewCoordinator* coordinator() const { return m_coordinator.get(); }
    TTSPlayer* player() const { return m_player.get(); }
    CameraService* camera() const { return m_camera.get(); }
    bool hasEnded() const { return m_endRequested; }

Q_SIGNALS:
    void ended();

private:
    QCoro::Task<> runBegin(std::optional<QString> resumeId, std::optional<QString> jobDescriptionId,
                           QString language);
    QCoro::Task<> loadAvatar(bool regenerate);
    QCoro::Task<> runEnd();

    std::unique_ptr<TTSPlayer> m_player;
    std::unique_ptr<CameraService> m_camera;
    std::unique_ptr<MockInterviewAPI> m_api;
    std::unique_ptr<MockInterviewCoordinator> m_coordinator;
    std::shared_ptr<MockInterviewPipeline> m_pipeline;
    QPointer<TelemetryClient> m_telemetry;
    TaskHandle m_begin;
    TaskHandle m_avatar;
    TaskHandle m_end;
    bool m_endRequested = false;
};
