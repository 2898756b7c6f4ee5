#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <vector>

class APIClient;
class AppStrings;
class CameraService;
class Clock;
class InterviewViewModel;
class MockMeetingViewModel;
class MockPracticeSession;
class NotificationCenter;
class TelemetryClient;
class TTSPlayer;

// The meeting window of a practice session, as the desktop made it.
class PracticeWindow {
public:
    virtual ~PracticeWindow() = default;
    // Brings the window forward and gives it the focus.
    virtual void raise() = 0;
};

// What the desktop supplies for practice sessions: speech output, a camera and the window.
struct PracticeDevices {
    std::function<std::unique_ptr<TTSPlayer>(Clock&)> makePlayer;
    std::function<std::unique_ptr<CameraService>()> makeCamera;
    // The camera's picture for the window's video output; none where it cannot be shown.
    std::function<QObject*(CameraService&)> previewOf;
    // Shows the meeting window over `meeting`; the window calls meeting.end() when it is closed
    // by the user, and is deleted (without calling it again) when the session is over.
    std::function<std::unique_ptr<PracticeWindow>(MockMeetingViewModel& meeting)> openWindow;
};

// At most one practice session and its window. A second start while one runs brings its window
// forward; the window's close and "End Interview" both end it, once.
class PracticeSessions : public QObject {
    Q_OBJECT

public:
    struct Services {
        APIClient& apiClient;
        QNetworkAccessManager* network; // null: its own
        NotificationCenter& notifications;
        Clock& clock;
        QPointer<InterviewViewModel> interview;
        AppStrings& strings;
        TelemetryClient* telemetry = nullptr;
    };

    PracticeSessions(PracticeDevices devices, Services services, QObject* parent = nullptr);
    ~PracticeSessions() override;

    // Reads "resumeId" and "jobDescriptionId" (strings) from a start request's user info; false
    // when either is missing, nothing can be made, or a session was already running.
    bool start(const QVariantMap& userInfo, const QString& language);
    // Stops speech and camera at once, closes the window, and ends the session and the
    // interview; a second call, or one with no session, does nothing.
    void end();

    MockPracticeSession* session() const { return m_session.get(); }
    MockMeetingViewModel* meeting() const { return m_meeting.get(); }
    bool hasWindow() const { return m_window != nullptr; }

Q_SIGNALS:
    // A session's clean-up has run to its end.
    void sessionEnded();

private:
    PracticeDevices m_devices;
    Services m_services;
    std::unique_ptr<QNetworkAccessManager> m_ownNetwork;
    std::unique_ptr<MockPracticeSession> m_session;
    std::unique_ptr<MockMeetingViewModel> m_meeting;
    std::unique_ptr<PracticeWindow> m_window;
    // Sessions whose clean-up is still running, kept until it ends.
    std::vector<std::unique_ptr<MockPracticeSession>> m_ending;
};
