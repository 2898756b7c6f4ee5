#pragma once

#include <QList>
#include <QObject>
#include <QString>

#include <array>
#include <optional>
#include <set>

class NotificationCenter;
class PreferencesStore;

// The recogniser vendor; chosen by the backend, never by the user.
enum class SpeechProvider { elevenlabs, deepgram, openai };
QString toText(SpeechProvider provider);
std::optional<SpeechProvider> speechProviderFromText(QStringView text);
inline constexpr std::array allSpeechProviders{SpeechProvider::elevenlabs, SpeechProvider::deepgram,
                                               SpeechProvider::openai};

// Key codes are the canonical codes of the settings tables; the X11 layer maps keysyms to
// them (Command = Super, Option = Alt).
struct AITriggerKey {
    Q_GADGET
    Q_PROPERTY(int keyCode READ keyCodeValue CONSTANT)
    Q_PROPERTY(bool isModifier MEMBER isModifier CONSTANT)
    Q_PROPERTY(QString displayName MEMBER displayName CONSTANT)

public:
    quint16 keyCode = 0;
    bool isModifier = false;
    std::optional<quint64> modifierFlag;
    QString displayName;

    int keyCodeValue() const { return keyCode; }

    QByteArray toJson() const;
    // Nothing for invalid JSON, a missing required key or a value of the wrong type.
    static std::optional<AITriggerKey> fromJson(const QByteArray& data);

    friend bool operator==(const AITriggerKey&, const AITriggerKey&) = default;
};

class UserSettings : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString inputLanguage READ inputLanguage WRITE setInputLanguage NOTIFY inputLanguageChanged)
    Q_PROPERTY(QString outputLanguage READ outputLanguage WRITE setOutputLanguage NOTIFY outputLanguageChanged)
    Q_PROPERTY(double overlayOpacity READ overlayOpacity WRITE setOverlayOpacity NOTIFY overlayOpacityChanged)
    Q_PROPERTY(double overlayFontSize READ overlayFontSize WRITE setOverlayFontSize NOTIFY overlayFontSizeChanged)
    Q_PROPERTY(bool autoTriggerAIAnswers READ autoTriggerAIAnswers WRITE setAutoTriggerAIAnswers NOTIFY autoTriggerAIAnswersChanged)
    Q_PROPERTY(bool sendAnonymousTelemetry READ sendAnonymousTelemetry WRITE setSendAnonymousTelemetry NOTIFY sendAnonymousTelemetryChanged)
    Q_PROPERTY(AITriggerKey aiTriggerKey READ aiTriggerKey WRITE setAITriggerKey NOTIFY aiTriggerKeyChanged)
    Q_PROPERTY(bool isTriggerSuppressed READ isTriggerSuppressed WRITE setTriggerSuppressed NOTIFY isTriggerSuppressedChanged)

public:
    struct Language {
        QString code;
        QString nameKey;
    };

    // Persisted key names; other owners' keys are listed here too so that every stored key
    // is registered in one place.
    struct Keys {
        static inline const QString inputLanguage = QStringLiteral("inputLanguage");
        static inline const QString outputLanguage = QStringLiteral("outputLanguage");
        static inline const QString overlayOpacity = QStringLiteral("overlayOpacity");
        static inline const QString overlayFontSize = QStringLiteral("overlayFontSize");
        static inline const QString autoTriggerAIAnswers = QStringLiteral("autoTriggerAIAnswers");
        static inline const QString sendAnonymousTelemetry = QStringLiteral("sendAnonymousTelemetry");
        static inline const QString activeResumeId = QStringLiteral("activeResumeId");
        static inline const QString activeJobDescriptionId = QStringLiteral("activeJobDescriptionId");
        static inline const QString aiTriggerKey = QStringLiteral("aiTriggerKeyV2");
        static inline const QString legacyAITriggerKey = QStringLiteral("aiTriggerKey");
        static inline const QString telemetryDeviceId = QStringLiteral("telemetryDeviceId");
        static inline const QString telemetryFirstInterviewLogged = QStringLiteral("telemetryFirstInterviewLogged");
        static inline const QString telemetryFirstAnswerLogged = QStringLiteral("telemetryFirstAnswerLogged");
        static inline const QString telemetryNoticeShown = QStringLiteral("telemetryNoticeShown");
    };

    UserSettings(PreferencesStore& store, NotificationCenter& notifications, QObject* parent = nullptr);

    QString inputLanguage() const { return m_inputLanguage; }
    void setInputLanguage(const QString& value);
    QString outputLanguage() const { return m_outputLanguage; }
    void setOutputLanguage(const QString& value);
    double overlayOpacity() const { return m_overlayOpacity; }
    void setOverlayOpacity(double value);
    double overlayFontSize() const { return m_overlayFontSize; }
    void setOverlayFontSize(double value);
    bool autoTriggerAIAnswers() const { return m_autoTriggerAIAnswers; }
    void setAutoTriggerAIAnswers(bool value);
    bool sendAnonymousTelemetry() const { return m_sendAnonymousTelemetry; }
    void setSendAnonymousTelemetry(bool value);
    std::optional<QString> activeResumeId() const { return m_activeResumeId; }
    void setActiveResumeId(const std::optional<QString>& value);
    std::optional<QString> activeJobDescriptionId() const { return m_activeJobDescriptionId; }
    void setActiveJobDescriptionId(const std::optional<QString>& value);
    AITriggerKey aiTriggerKey() const { return m_aiTriggerKey; }
    void setAITriggerKey(const AITriggerKey& value);
    bool isTriggerSuppressed() const { return m_isTriggerSuppressed; }
    void setTriggerSuppressed(bool value);

    static AITriggerKey defaultTriggerKey();
    static const QList<Language>& languages();
    static QString keyDisplayName(quint16 keyCode, const std::optional<QString>& characters);
    static std::optional<quint64> modifierFlagForKeyCode(quint16 keyCode);
    static const std::set<quint16>& blockedTriggerKeyCodes();
    static bool isBlockedTriggerKey(quint16 keyCode) { return blockedTriggerKeyCodes().contains(keyCode); }

    // The ordered key tables: (key code, name).
    using KeyTable = QList<std::pair<quint16, QString>>;
    static const KeyTable& modifierKeyNames();
    static const KeyTable& functionKeyNames();
    static const KeyTable& otherKeyNames();

Q_SIGNALS:
    void inputLanguageChanged();
    void outputLanguageChanged();
    void overlayOpacityChanged();
    void overlayFontSizeChanged();
    void autoTriggerAIAnswersChanged();
    void sendAnonymousTelemetryChanged();
    void activeResumeIdChanged();
    void activeJobDescriptionIdChanged();
    void aiTriggerKeyChanged();
    void isTriggerSuppressedChanged();

private:
    AITriggerKey loadTriggerKey() const;
    void storeOptional(const QString& key, const std::optional<QString>& value);

    PreferencesStore& m_store;
    NotificationCenter& m_notifications;
    QString m_inputLanguage;
    QString m_outputLanguage;
    double m_overlayOpacity;
    double m_overlayFontSize;
    bool m_autoTriggerAIAnswers;
    bool m_sendAnonymousTelemetry;
    std::optional<QString> m_activeResumeId;
    std::optional<QString> m_activeJobDescriptionId;
    AITriggerKey m_aiTriggerKey;
    bool m_isTriggerSuppressed = false;
};
