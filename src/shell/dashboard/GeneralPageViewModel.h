#pragma once

#include "AppStrings.h"
#include "GlobalKeysRow.h"
#include "TaskHandle.h"
#include "UserSettings.h"

#include <QColor>
#include <QCoroTask>
#include <QObject>
#include <QtQmlIntegration>

#include <functional>

class AudioRights;
class GlobalKeysRight;
class InterviewViewModel;

// The general page: the switches and sliders over the settings, the two rights the overlay
// needs, and the interview's status with its last recoverable error.
class GeneralPageViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(bool autoTrigger READ autoTrigger WRITE setAutoTrigger NOTIFY displayChanged)
    Q_PROPERTY(bool sendTelemetry READ sendTelemetry WRITE setSendTelemetry NOTIFY displayChanged)
    Q_PROPERTY(double overlayOpacity READ overlayOpacity WRITE setOverlayOpacity NOTIFY displayChanged)
    Q_PROPERTY(double overlayFontSize READ overlayFontSize WRITE setOverlayFontSize NOTIFY displayChanged)
    // The sliders' ranges: lowest, highest, step.
    Q_PROPERTY(QList<double> opacityRange READ opacityRange CONSTANT)
    Q_PROPERTY(QList<double> fontSizeRange READ fontSizeRange CONSTANT)
    Q_PROPERTY(QString opacityText READ opacityText NOTIFY displayChanged)
    Q_PROPERTY(QString fontSizeText READ fontSizeText NOTIFY displayChanged)
    Q_PROPERTY(bool screenPermission READ screenPermission NOTIFY rightsChanged)
    Q_PROPERTY(bool accessibilityPermission READ accessibilityPermission NOTIFY rightsChanged)
    // The keys row's texts as string keys; they depend on the session's route for keys.
    Q_PROPERTY(QString keysDescriptionKey READ keysDescriptionKey NOTIFY rightsChanged)
    Q_PROPERTY(QString keysNoteKey READ keysNoteKey NOTIFY rightsChanged)
    Q_PROPERTY(QString keysButtonKey READ keysButtonKey NOTIFY rightsChanged)
    Q_PROPERTY(QString settingsHintKey READ settingsHintKey NOTIFY rightsChanged)
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusChanged)
    Q_PROPERTY(QColor statusColor READ statusColor NOTIFY statusChanged)
    // Empty while no recoverable error is stored.
    Q_PROPERTY(QString lastIssueText READ lastIssueText NOTIFY statusChanged)

public:
    static constexpr double opacityMinimum = 0.3;
    static constexpr double opacityMaximum = 1.0;
    static constexpr double opacityStep = 0.05;
    static constexpr double fontSizeMinimum = 10;
    static constexpr double fontSizeMaximum = 24;
    static constexpr double fontSizeStep = 1;

    struct Services {
        InterviewViewModel& interview;
        UserSettings& settings;
        AppStrings& strings;
        AudioRights& audioRights;
        GlobalKeysRight& keysRight;
        // Opens the desktop's sound settings; false when none is installed.
        std::function<bool()> openSoundSettings;
    };

    explicit GeneralPageViewModel(Services services, QObject* parent = nullptr);
    ~GeneralPageViewModel() override;

    // The page's switches and sliders, each the setting of the same name.
    bool autoTrigger() const { return m_services.settings.autoTriggerAIAnswers(); }
    void setAutoTrigger(bool on) { m_services.settings.setAutoTriggerAIAnswers(on); }
    bool sendTelemetry() const { return m_services.settings.sendAnonymousTelemetry(); }
    void setSendTelemetry(bool on) { m_services.settings.setSendAnonymousTelemetry(on); }
    double overlayOpacity() const { return m_services.settings.overlayOpacity(); }
    void setOverlayOpacity(double value) { m_services.settings.setOverlayOpacity(value); }
    double overlayFontSize() const { return m_services.settings.overlayFontSize(); }
    void setOverlayFontSize(double value) { m_services.settings.setOverlayFontSize(value); }
    static QList<double> opacityRange() { return {opacityMinimum, opacityMaximum, opacityStep}; }
    static QList<double> fontSizeRange() { return {fontSizeMinimum, fontSizeMaximum, fontSizeStep}; }
    QString opacityText() const;
    QString fontSizeText() const;
    bool screenPermission() const { return m_screenPermission; }
    bool accessibilityPermission() const { return m_keysRow.granted; }
    QString keysDescriptionKey() const { return m_keysRow.descriptionKey; }
    QString keysNoteKey() const { return m_keysRow.noteKey; }
    QString keysButtonKey() const { return m_keysRow.buttonKey; }
    QString settingsHintKey() const { return m_settingsHintKey; }
    QString statusText() const;
    QColor statusColor() const;
    QString lastIssueText() const;

    // Reads the rights again; the page calls it as it comes on screen.
    Q_INVOKABLE void refreshRights();
    Q_INVOKABLE void openSystemAudioSettings();
    Q_INVOKABLE void openKeysSettings();

    const TaskHandle& rightsTask() const { return m_rightsRead; }

Q_SIGNALS:
    void displayChanged();
    void rightsChanged();
    void statusChanged();
    // The keys row's button where only bound commands reach the program: the Keybinds page.
    void keybindsRequested();

private:
    QCoro::Task<> readRights(CancellationToken token);

    Services m_services;
    bool m_screenPermission = false;
    GlobalKeysRoute m_keysRoute = GlobalKeysRoute::keyboardSettings;
    GlobalKeysRow m_keysRow = GlobalKeysRow::forRoute(m_keysRoute);
    QString m_settingsHintKey;
    TaskHandle m_rightsRead;
};
