#include "UserSettings.h"

#include "Json.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::StringLiterals;

namespace {
constexpr double defaultOverlayOpacity = 0.85;
constexpr double defaultOverlayFontSize = 14.0;

// Old string values of "aiTriggerKey", migrated when no newer key is stored.
std::optional<AITriggerKey> legacyTriggerKey(const QString& stored)
{
    if (stored == u"rightControl")
        return AITriggerKey{62, true, 262144, u"Right Control"_s};
    if (stored == u"rightCommand")
        return AITriggerKey{54, true, 1048576, u"Right Command"_s};
    if (stored == u"rightOption")
        return AITriggerKey{61, true, 524288, u"Right Option"_s};
    return std::nullopt;
}
} // namespace

QString toText(SpeechProvider provider)
{
    switch (provider) {
    case SpeechProvider::elevenlabs:
        return u"elevenlabs"_s;
    case SpeechProvider::deepgram:
        return u"deepgram"_s;
    case SpeechProvider::openai:
        return u"openai"_s;
    }
    return {};
}

std::optional<SpeechProvider> speechProviderFromText(QStringView text)
{
    for (const auto provider : allSpeechProviders) {
        if (toText(provider) == text)
            return provider;
    }
    return std::nullopt;
}

QByteArray AITriggerKey::toJson() const
{
    QJsonObject object{
        {u"keyCode"_s, keyCode},
        {u"isModifier"_s, isModifier},
        {u"displayName"_s, displayName},
    };
    if (modifierFlag)
        object.insert(u"modifierFlag"_s, static_cast<qint64>(*modifierFlag));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::optional<AITriggerKey> AITriggerKey::fromJson(const QByteArray& data)
{
    try {
        const auto object = Json::parseObject(data);
        const auto code = Json::requireInt64(object, u"keyCode"_s);
        const auto flag = Json::optionalInt64(object, u"modifierFlag"_s);
        if (code < 0 || code > 0xFFFF || (flag && *flag < 0))
            return std::nullopt;
        AITriggerKey key;
        key.keyCode = static_cast<quint16>(code);
        key.isModifier = Json::requireBool(object, u"isModifier"_s);
        if (flag)
            key.modifierFlag = static_cast<quint64>(*flag);
        key.displayName = Json::requireString(object, u"displayName"_s);
        return key;
    } catch (const DecodingError&) {
        return std::nullopt;
    }
}

UserSettings::UserSettings(PreferencesStore& store, NotificationCenter& notifications,
                           QObject* parent)
    : QObject(parent)
    , m_store(store)
    , m_notifications(notifications)
    , m_inputLanguage(store.string(Keys::inputLanguage).value_or(u"en-US"_s))
    , m_outputLanguage(store.string(Keys::outputLanguage).value_or(u"en-US"_s))
    , m_overlayOpacity(store.number(Keys::overlayOpacity).value_or(defaultOverlayOpacity))
    , m_overlayFontSize(store.number(Keys::overlayFontSize).value_or(defaultOverlayFontSize))
    , m_autoTriggerAIAnswers(store.boolean(Keys::autoTriggerAIAnswers).value_or(false))
    , m_sendAnonymousTelemetry(store.boolean(Keys::sendAnonymousTelemetry).value_or(true))
    , m_activeResumeId(store.string(Keys::activeResumeId))
    , m_activeJobDescriptionId(store.string(Keys::activeJobDescriptionId))
    , m_aiTriggerKey(loadTriggerKey())
{
}

AITriggerKey UserSettings::loadTriggerKey() const
{
    // A migrated or default value is not written back here; the newer key appears only with
    // the next assignment, and the old key is left in place.
    if (const auto data = m_store.bytes(Keys::aiTriggerKey)) {
        if (auto key = AITriggerKey::fromJson(*data))
            return *key;
    }
    if (const auto legacy = m_store.string(Keys::legacyAITriggerKey)) {
        if (auto key = legacyTriggerKey(*legacy))
            return *key;
    }
    return defaultTriggerKey();
}

void UserSettings::setInputLanguage(const QString& value)
{
    m_store.setString(Keys::inputLanguage, value);
    if (std::exchange(m_inputLanguage, value) != value)
        Q_EMIT inputLanguageChanged();
}

void UserSettings::setOutputLanguage(const QString& value)
{
    m_store.setString(Keys::outputLanguage, value);
    if (std::exchange(m_outputLanguage, value) != value)
        Q_EMIT outputLanguageChanged();
}

void UserSettings::setOverlayOpacity(double value)
{
    m_store.setDouble(Keys::overlayOpacity, value);
    if (std::exchange(m_overlayOpacity, value) != value)
        Q_EMIT overlayOpacityChanged();
}

void UserSettings::setOverlayFontSize(double value)
{
    m_store.setDouble(Keys::overlayFontSize, value);
    if (std::exchange(m_overlayFontSize, value) != value)
        Q_EMIT overlayFontSizeChanged();
}

void UserSettings::setAutoTriggerAIAnswers(bool value)
{
    m_store.setBool(Keys::autoTriggerAIAnswers, value);
    if (std::exchange(m_autoTriggerAIAnswers, value) != value)
        Q_EMIT autoTriggerAIAnswersChanged();
}

void UserSettings::setSendAnonymousTelemetry(bool value)
{
    m_store.setBool(Keys::sendAnonymousTelemetry, value);
    if (std::exchange(m_sendAnonymousTelemetry, value) != value)
        Q_EMIT sendAnonymousTelemetryChanged();
}

void UserSettings::storeOptional(const QString& key, const std::optional<QString>& value)
{
    if (value)
        m_store.setString(key, *value);
    else
        m_store.remove(key);
}

void UserSettings::setActiveResumeId(const std::optional<QString>& value)
{
    storeOptional(Keys::activeResumeId, value);
    if (std::exchange(m_activeResumeId, value) != value)
        Q_EMIT activeResumeIdChanged();
}

void UserSettings::setActiveJobDescriptionId(const std::optional<QString>& value)
{
    storeOptional(Keys::activeJobDescriptionId, value);
    if (std::exchange(m_activeJobDescriptionId, value) != value)
        Q_EMIT activeJobDescriptionIdChanged();
}

void UserSettings::setAITriggerKey(const AITriggerKey& value)
{
    // Encoding a plain JSON object cannot fail here; an empty result would leave the old
    // bytes in place while the value and the notification go ahead.
    if (const auto data = value.toJson(); !data.isEmpty())
        m_store.setBytes(Keys::aiTriggerKey, data);
    m_aiTriggerKey = value;
    Q_EMIT aiTriggerKeyChanged();
    // Also for an unchanged key: the shell reinstalls its key monitors on every assignment.
    m_notifications.post(Notifications::aiTriggerKeyChanged);
}

void UserSettings::setTriggerSuppressed(bool value)
{
    if (std::exchange(m_isTriggerSuppressed, value) != value)
        Q_EMIT isTriggerSuppressedChanged();
}

AITriggerKey UserSettings::defaultTriggerKey()
{
    return {60, true, 131072, u"Right Shift"_s};
}

const QList<UserSettings::Language>& UserSettings::languages()
{
    static const QList<Language> list{
        {u"auto"_s, u"lang.auto"_s},   {u"en-US"_s, u"lang.en_us"_s}, {u"en-GB"_s, u"lang.en_gb"_s},
        {u"es-ES"_s, u"lang.es"_s},    {u"fr-FR"_s, u"lang.fr"_s},    {u"de-DE"_s, u"lang.de"_s},
        {u"zh-CN"_s, u"lang.zh"_s},    {u"ja-JP"_s, u"lang.ja"_s},    {u"ko-KR"_s, u"lang.ko"_s},
    };
    return list;
}

const UserSettings::KeyTable& UserSettings::modifierKeyNames()
{
    static const KeyTable table{
        {56, u"Left Shift"_s},   {60, u"Right Shift"_s},   {59, u"Left Control"_s},
        {62, u"Right Control"_s}, {58, u"Left Option"_s},  {61, u"Right Option"_s},
        {55, u"Left Command"_s}, {54, u"Right Command"_s}, {63, u"Function (fn)"_s},
    };
    return table;
}

const UserSettings::KeyTable& UserSettings::functionKeyNames()
{
    static const KeyTable table{
        {122, u"F1"_s}, {120, u"F2"_s},  {99, u"F3"_s},   {118, u"F4"_s},  {96, u"F5"_s},
        {97, u"F6"_s},  {98, u"F7"_s},   {100, u"F8"_s},  {101, u"F9"_s},  {109, u"F10"_s},
        {103, u"F11"_s}, {111, u"F12"_s}, {105, u"F13"_s}, {107, u"F14"_s}, {113, u"F15"_s},
    };
    return table;
}

const UserSettings::KeyTable& UserSettings::otherKeyNames()
{
    static const KeyTable table{
        {51, u"Delete"_s},        {117, u"Forward Delete"_s}, {114, u"Insert"_s},
        {115, u"Home"_s},         {119, u"End"_s},            {116, u"Page Up"_s},
        {121, u"Page Down"_s},    {71, u"Clear"_s},           {76, u"Enter (Numpad)"_s},
        {65, u"Decimal (.)"_s},   {67, u"Multiply (*)"_s},    {69, u"Plus (+)"_s},
        {75, u"Divide (/)"_s},    {78, u"Minus (-)"_s},       {81, u"Equals (=)"_s},
        {82, u"Numpad 0"_s},      {83, u"Numpad 1"_s},        {84, u"Numpad 2"_s},
        {85, u"Numpad 3"_s},      {86, u"Numpad 4"_s},        {87, u"Numpad 5"_s},
        {88, u"Numpad 6"_s},      {89, u"Numpad 7"_s},        {91, u"Numpad 8"_s},
        {92, u"Numpad 9"_s},      {50, u"Grave (`)"_s},
    };
    return table;
}

QString UserSettings::keyDisplayName(quint16 keyCode, const std::optional<QString>& characters)
{
    for (const auto* table : {&modifierKeyNames(), &functionKeyNames(), &otherKeyNames()}) {
        for (const auto& [code, name] : *table) {
            if (code == keyCode)
                return name;
        }
    }
    if (characters && !characters->isEmpty())
        return characters->toUpper();
    return u"Key "_s + QString::number(keyCode);
}

std::optional<quint64> UserSettings::modifierFlagForKeyCode(quint16 keyCode)
{
    switch (keyCode) {
    case 54:
    case 55:
        return 0x100000; // Command
    case 56:
    case 60:
        return 0x20000; // Shift
    case 58:
    case 61:
        return 0x80000; // Option
    case 59:
    case 62:
        return 0x40000; // Control
    case 63:
        return 0x800000; // Function
    default:
        // Caps Lock (57) has no flag on purpose: a change of its state is never a press.
        return std::nullopt;
    }
}

const std::set<quint16>& UserSettings::blockedTriggerKeyCodes()
{
    // The arrows belong to the overlay's shortcuts; Left Command is blocked while Right
    // Command is allowed, on purpose.
    static const std::set<quint16> codes{123, 124, 125, 126, 53, 36, 49, 48, 57, 55};
    return codes;
}
