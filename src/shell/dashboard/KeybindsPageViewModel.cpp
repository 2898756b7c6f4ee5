#include "KeybindsPageViewModel.h"

#include "LaunchArguments.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QKeyEvent>

#include <algorithm>

using namespace OverlayKeys;
using namespace Qt::StringLiterals;

namespace {

struct Command {
    KeyAction action;
    const char* labelKey;
};

constexpr Command commandList[] = {
    {KeyAction::trigger, "keybinds.trigger_ai"},
    {KeyAction::previousAnswer, "keybinds.prev_answer"},
    {KeyAction::nextAnswer, "keybinds.next_answer"},
    {KeyAction::selectUp, "keybinds.select_question_up"},
    {KeyAction::selectDown, "keybinds.select_question_down"},
    {KeyAction::toggleOverlay, "keybinds.toggle_overlay"},
};

// A path a shell takes as one word, whatever it holds.
QString shellWord(const QString& text)
{
    static const QString plain = u"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+"_s;
    const bool quoted = text.isEmpty() || std::any_of(text.begin(), text.end(), [](QChar c) { return !plain.contains(c); });
    if (!quoted)
        return text;
    QString result = text;
    result.replace(u"'"_s, u"'\\''"_s);
    return u"'"_s + result + u"'"_s;
}

} // namespace

KeybindsPageViewModel::KeybindsPageViewModel(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_portal(m_services.shortcutPortal)
{
    connect(&m_services.settings, &UserSettings::aiTriggerKeyChanged, this, &KeybindsPageViewModel::triggerKeyChanged);
    connect(&m_services.strings, &AppStrings::languageCodeChanged, this, &KeybindsPageViewModel::boundChordsChanged);
    if (m_portal) {
        // The portal lives where this folder may not look: it is read by its property names.
        connect(m_portal, SIGNAL(stateChanged()), this, SIGNAL(boundChordsChanged()));
        connect(m_portal, SIGNAL(activated(QString)), this, SLOT(portalActivated(QString)));
    }
    if (m_services.triggerName)
        connect(m_services.triggerName, &TriggerName::changed, this, &KeybindsPageViewModel::boundChordsChanged);
}

KeybindsPageViewModel::~KeybindsPageViewModel()
{
    if (m_settleTimer)
        m_services.clock.cancelTimer(m_settleTimer);
    if (m_testTimer)
        m_services.clock.cancelTimer(m_testTimer);
    if (m_filtering && QCoreApplication::instance())
        QCoreApplication::instance()->removeEventFilter(this);
    if (m_recording || m_testing || m_settling)
        m_services.settings.setTriggerSuppressed(false);
}

QString KeybindsPageViewModel::statusKey() const
{
    if (m_recording)
        return m_blocked ? u"keybinds.blocked_key"_s : u"keybinds.press_any_key"_s;
    if (m_testing)
        return m_testSucceeded ? u"keybinds.test_success"_s : u"keybinds.testing"_s;
    return {};
}

QVariantList KeybindsPageViewModel::commands() const
{
    QVariantList list;
    const QString program = shellWord(m_services.programPath);
    for (const auto& [action, labelKey] : commandList) {
        list.append(QVariantMap{{u"labelKey"_s, QString::fromLatin1(labelKey)},
                                {u"command"_s, program + u" "_s + LaunchArguments::optionOf(action)}});
    }
    return list;
}

QVariantMap KeybindsPageViewModel::boundChords() const
{
    return m_portal ? m_portal->property("boundTriggers").toMap() : QVariantMap{};
}

QString KeybindsPageViewModel::boundTriggerText() const
{
    const auto chord = m_services.triggerName ? m_services.triggerName->boundChord() : QString();
    return chord.isEmpty() ? QString() : m_services.strings.format(u"keybinds.bound_chord"_s, {chord});
}

void KeybindsPageViewModel::startKeyRecording()
{
    if (m_recording)
        return;
    if (m_testing)
        stopTest();
    m_recording = true;
    m_blocked = false;
    m_localReader.reset();
    m_globalReleased.clear();
    listen();
    updateSuppression();
    Q_EMIT stateChanged();
}

void KeybindsPageViewModel::cancel()
{
    if (m_recording)
        stopRecording();
    if (m_testing)
        stopTest();
}

void KeybindsPageViewModel::resetToDefault()
{
    cancel();
    m_services.settings.setAITriggerKey(UserSettings::defaultTriggerKey());
}

void KeybindsPageViewModel::startTest()
{
    if (m_recording || m_testing)
        return;
    m_testing = true;
    m_testSucceeded = false;
    listen();
    updateSuppression();
    Q_EMIT stateChanged();
}

void KeybindsPageViewModel::copyCommand(int index) const
{
    const auto list = commands();
    auto* application = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    if (index < 0 || index >= list.size() || !application)
        return;
    QGuiApplication::clipboard()->setText(list.at(index).toMap().value(u"command"_s).toString());
}

bool KeybindsPageViewModel::eventFilter(QObject* watched, QEvent* event)
{
    const auto type = event->type();
    if (type != QEvent::KeyPress && type != QEvent::KeyRelease)
        return QObject::eventFilter(watched, event);
    const auto* key = static_cast<QKeyEvent*>(event);
    // Every item on the way sees the event too; the window's copy is the one that counts.
    if (!watched->isWindowType() || (type == QEvent::KeyRelease && key->isAutoRepeat()))
        return QObject::eventFilter(watched, event);
    return handleLocalKey(key->nativeVirtualKey(), type == QEvent::KeyPress, key->text());
}

bool KeybindsPageViewModel::handleLocalKey(quint32 nativeVirtualKey, bool pressed, const QString& characters)
{
    if (!m_services.keys || !(m_recording || m_testing || m_settling))
        return false;
    const auto code = m_services.keys->localKeyCode(nativeVirtualKey);
    if (!code)
        return false;
    const auto event = m_localReader.read(*code, pressed);
    // Where the global source cannot see our windows, this release is the last word on the key.
    if (!pressed && m_settling == code && !m_services.keys->seesOtherPrograms())
        endSettle();
    if (!event)
        return false;
    if (m_recording)
        return recordKey(*event, characters);
    if (m_testing)
        testKey(*event);
    return false;
}

bool KeybindsPageViewModel::recordKey(const KeyEvent& event, const QString& characters)
{
    std::optional<quint64> flag;
    if (event.kind == EventKind::flagsChanged) {
        flag = UserSettings::modifierFlagForKeyCode(event.keyCode);
        // Caps Lock (no flag) and the release of a modifier pass on, and recording goes on.
        if (!flag || !(event.modifierFlags & *flag))
            return false;
    }
    if (UserSettings::isBlockedTriggerKey(event.keyCode)) {
        // Escape too: only the cancel button ends a recording.
        if (!m_blocked) {
            m_blocked = true;
            Q_EMIT stateChanged();
        }
        return true;
    }
    const AITriggerKey key{event.keyCode, event.kind == EventKind::flagsChanged, flag,
                           UserSettings::keyDisplayName(event.keyCode, characters.isEmpty()
                                                                           ? std::nullopt
                                                                           : std::optional<QString>(characters))};
    // The press also reaches the global source, before or after this: unless that source has
    // seen the key let go already, the new key stays silent until it has.
    if (!m_globalReleased.contains(event.keyCode)) {
        m_settling = event.keyCode;
        m_settleTimer = m_services.clock.startTimer(settleMaxMs, [this] {
            m_settleTimer = 0;
            endSettle();
        });
    }
    m_services.settings.setAITriggerKey(key);
    stopRecording();
    return true;
}

void KeybindsPageViewModel::testKey(const KeyEvent& event)
{
    const auto key = m_services.settings.aiTriggerKey();
    if (event.keyCode != key.keyCode || event.kind != monitoredKind(key))
        return;
    if (key.isModifier && !(key.modifierFlag && (event.modifierFlags & *key.modifierFlag)))
        return;
    if (m_testSucceeded)
        return; // the same press from the other source, or a repeat: the time runs from the first
    m_testSucceeded = true;
    m_testTimer = m_services.clock.startTimer(testSuccessShownMs, [this] {
        m_testTimer = 0;
        stopTest();
    });
    Q_EMIT stateChanged();
}

void KeybindsPageViewModel::portalActivated(const QString& shortcutId)
{
    // The desktop's chord for the trigger is the key as it works in other programs.
    if (!m_testing || shortcutId != u"trigger" || m_testSucceeded)
        return;
    const auto key = m_services.settings.aiTriggerKey();
    testKey({key.keyCode, monitoredKind(key), key.modifierFlag.value_or(0)});
}

void KeybindsPageViewModel::handleGlobalKey(quint16 keyCode, bool pressed)
{
    const auto event = m_globalReader.read(keyCode, pressed);
    if (!pressed)
        m_globalReleased.insert(keyCode);
    if (!pressed && m_settling == keyCode) {
        endSettle();
        return;
    }
    if (m_testing && event)
        testKey(*event);
}

void KeybindsPageViewModel::listen()
{
    if (!m_filtering) {
        QCoreApplication::instance()->installEventFilter(this);
        m_filtering = true;
    }
    if (m_services.keys && !m_globalKeys.isActive()) {
        m_globalReader.reset();
        m_globalKeys = m_services.keys->observeKeys(
            [this](quint16 keyCode, bool pressed) { handleGlobalKey(keyCode, pressed); });
    }
}

void KeybindsPageViewModel::stopListening()
{
    if (m_recording || m_testing || m_settling)
        return;
    if (m_filtering)
        QCoreApplication::instance()->removeEventFilter(this);
    m_filtering = false;
    m_globalKeys.reset();
}

void KeybindsPageViewModel::stopRecording()
{
    m_recording = false;
    m_blocked = false;
    updateSuppression();
    stopListening();
    Q_EMIT stateChanged();
}

void KeybindsPageViewModel::stopTest()
{
    if (m_testTimer) {
        m_services.clock.cancelTimer(m_testTimer);
        m_testTimer = 0;
    }
    m_testing = false;
    m_testSucceeded = false;
    updateSuppression();
    stopListening();
    Q_EMIT stateChanged();
}

void KeybindsPageViewModel::endSettle()
{
    if (!m_settling)
        return;
    if (m_settleTimer) {
        m_services.clock.cancelTimer(m_settleTimer);
        m_settleTimer = 0;
    }
    m_settling.reset();
    updateSuppression();
    stopListening();
}

void KeybindsPageViewModel::updateSuppression()
{
    m_services.settings.setTriggerSuppressed(m_recording || m_testing || m_settling);
}
