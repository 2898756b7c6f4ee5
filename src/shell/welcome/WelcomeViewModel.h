#pragma once

#include "AppStrings.h"
#include "AuthViewModel.h"
#include "GlobalKeysRow.h"
#include "TaskHandle.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QtQmlIntegration>

#include <chrono>
#include <functional>

class AudioRights;
class Clock;
class GlobalKeysRight;
class NotificationCenter;
class PreferencesStore;
class UserSettings;

// The welcome panel's state: the three rights, polled while the panel is on screen, and the
// one-time telemetry notice. The panel calls appear() and disappear() as it is shown and hidden.
class WelcomeViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the shell")
    Q_PROPERTY(AppStrings* strings READ strings CONSTANT)
    // The sign-in state the panel's form shows.
    Q_PROPERTY(AuthViewModel* auth READ auth CONSTANT)
    Q_PROPERTY(bool screenPermission READ screenPermission NOTIFY rightsChanged)
    Q_PROPERTY(bool micPermission READ micPermission NOTIFY rightsChanged)
    Q_PROPERTY(bool accessibilityPermission READ accessibilityPermission NOTIFY rightsChanged)
    // The keys row's texts as string keys; they depend on the session's route for keys.
    Q_PROPERTY(QString keysDescriptionKey READ keysDescriptionKey NOTIFY rightsChanged)
    Q_PROPERTY(QString keysNoteKey READ keysNoteKey NOTIFY rightsChanged)
    Q_PROPERTY(QString keysButtonKey READ keysButtonKey NOTIFY rightsChanged)
    Q_PROPERTY(bool showTelemetryNotice READ showTelemetryNotice NOTIFY showTelemetryNoticeChanged)
    // A line that tells the user what to do when no settings program can be opened for a right.
    Q_PROPERTY(QString settingsHintKey READ settingsHintKey NOTIFY settingsHintKeyChanged)
    Q_PROPERTY(bool isPolling READ isPolling NOTIFY isPollingChanged)

public:
    static constexpr std::chrono::milliseconds pollInterval{1500};

    struct Services {
        Clock& clock;
        PreferencesStore& preferences;
        NotificationCenter& notifications;
        AudioRights& audioRights;
        GlobalKeysRight& keysRight;
        std::function<bool()> openSoundSettings;
        AppStrings& strings;
        AuthViewModel& auth;
    };

    explicit WelcomeViewModel(Services services, QObject* parent = nullptr);
    ~WelcomeViewModel() override;

    void setSettings(UserSettings* settings) { m_settings = settings; }

    AppStrings* strings() const { return &m_services.strings; }
    AuthViewModel* auth() const { return &m_services.auth; }

    Q_INVOKABLE void appear();
    Q_INVOKABLE void disappear();
    Q_INVOKABLE void signIn();
    Q_INVOKABLE void acceptTelemetry();
    Q_INVOKABLE void turnOffTelemetry();
    // The rows' actions.
    Q_INVOKABLE void openSystemAudioSettings();
    Q_INVOKABLE void allowMicrophone();
    Q_INVOKABLE void openKeysSettings();

    bool screenPermission() const { return m_screenPermission; }
    bool micPermission() const { return m_micPermission; }
    bool accessibilityPermission() const { return m_keysRow.granted; }
    QString keysDescriptionKey() const { return m_keysRow.descriptionKey; }
    QString keysNoteKey() const { return m_keysRow.noteKey; }
    QString keysButtonKey() const { return m_keysRow.buttonKey; }
    bool showTelemetryNotice() const { return m_showTelemetryNotice; }
    QString settingsHintKey() const { return m_settingsHintKey; }
    bool isPolling() const { return m_permissionTimer.isValid() && !m_permissionTimer.isFinished(); }
    // The check that is running, if any (tests wait for it).
    const TaskHandle& pollTask() const { return m_permissionTimer; }

Q_SIGNALS:
    void rightsChanged();
    void showTelemetryNoticeChanged();
    void settingsHintKeyChanged();
    void isPollingChanged();

private:
    QCoro::Task<> poll(CancellationToken token);
    QCoro::Task<> readRights(CancellationToken token);
    void setShowTelemetryNotice(bool show);
    void dismissNotice();
    void openSettingsOr(const QString& hintKey);

    Services m_services;
    QPointer<UserSettings> m_settings;
    bool m_screenPermission = false;
    bool m_micPermission = false;
    GlobalKeysRoute m_keysRoute = GlobalKeysRoute::keyboardSettings;
    GlobalKeysRow m_keysRow = GlobalKeysRow::forRoute(m_keysRoute);
    bool m_showTelemetryNotice = false;
    QString m_settingsHintKey;
    TaskHandle m_permissionTimer;
};
