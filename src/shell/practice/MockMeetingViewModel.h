#pragma once

#include "AppStrings.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QtQmlIntegration>

class CameraService;
class MockInterviewCoordinator;
class MockPracticeSession;
class TTSPlayer;

// What the meeting window shows of a practice session, and its three buttons.
class MockMeetingViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by a practice session")
    // Counted from 1; 0 before the questions have arrived.
    Q_PROPERTY(int position READ position NOTIFY progressChanged)
    Q_PROPERTY(int questionCount READ questionCount NOTIFY progressChanged)
    // "Question 2 of 8"; empty before the questions have arrived.
    Q_PROPERTY(QString progressText READ progressText NOTIFY progressChanged)
    Q_PROPERTY(QString phase READ phase NOTIFY progressChanged)
    Q_PROPERTY(bool canSkip READ canSkip NOTIFY progressChanged)
    // The interviewer's portrait as an address an image can load; empty while it is generated.
    Q_PROPERTY(QString avatarSource READ avatarSource NOTIFY avatarChanged)
    Q_PROPERTY(double level READ level NOTIFY levelChanged)
    // No camera, or one that was refused or failed: the tile says so, the session goes on.
    Q_PROPERTY(bool cameraUnavailable READ cameraUnavailable NOTIFY cameraChanged)
    // The camera's capture session for the video output, where the desktop has one.
    Q_PROPERTY(QObject* captureSession READ captureSession CONSTANT)
    Q_PROPERTY(AppStrings* strings READ strings CONSTANT)

public:
    MockMeetingViewModel(MockPracticeSession& session, AppStrings& strings,
                         QObject* captureSession = nullptr, QObject* parent = nullptr);

    int position() const;
    int questionCount() const;
    QString progressText() const;
    QString phase() const;
    bool canSkip() const;
    QString avatarSource() const { return m_avatarSource; }
    double level() const;
    bool cameraUnavailable() const;
    QObject* captureSession() const { return m_captureSession; }
    AppStrings* strings() const { return m_strings; }

    Q_INVOKABLE void skip();
    Q_INVOKABLE void regenerateAvatar();
    // "End Interview" and the window's close button.
    Q_INVOKABLE void end();

Q_SIGNALS:
    void progressChanged();
    void avatarChanged();
    void levelChanged();
    void cameraChanged();
    void endRequested();

private:
    void updateAvatar();
    void stateChanged();

    QPointer<MockPracticeSession> m_session;
    QPointer<MockInterviewCoordinator> m_coordinator;
    QPointer<TTSPlayer> m_player;
    QPointer<CameraService> m_camera;
    QPointer<QObject> m_captureSession;
    QPointer<AppStrings> m_strings;
    QString m_avatarSource;
    // Next was pressed while the question was spoken.
    bool m_skipWhenWaiting = false;
};
