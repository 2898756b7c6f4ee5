#include "OverlayKeys.h"

#include "UserSettings.h"

namespace OverlayKeys {

namespace {

constexpr quint16 firstModifier = 54; // Right Command
constexpr quint16 lastModifier = 63;  // Function

} // namespace

TapAction tapAction(quint16 keyCode, bool panelVisible, bool hasViewModel)
{
    if (!panelVisible || !hasViewModel)
        return TapAction::passOn;
    switch (keyCode) {
    case leftArrow:
        return TapAction::selectPreviousAnswer;
    case rightArrow:
        return TapAction::selectNextAnswer;
    case upArrow:
        return TapAction::selectPreviousTranscript;
    case downArrow:
        return TapAction::selectNextTranscript;
    default:
        return TapAction::passOn;
    }
}

EventKind monitoredKind(const AITriggerKey& key)
{
    return key.isModifier ? EventKind::flagsChanged : EventKind::keyDown;
}

bool triggerFires(const AITriggerKey& key, bool triggerSuppressed, const KeyEvent& event)
{
    if (event.kind != monitoredKind(key) || triggerSuppressed || event.keyCode != key.keyCode)
        return false;
    if (key.isModifier && key.modifierFlag && !(event.modifierFlags & *key.modifierFlag))
        return false;
    return true;
}

bool isModifierKey(quint16 keyCode)
{
    // 57 is Caps Lock, a modifier without a flag; 64 and above are ordinary keys again.
    return keyCode >= firstModifier && keyCode <= lastModifier;
}

std::optional<KeyEvent> KeyEventReader::read(quint16 keyCode, bool pressed)
{
    if (!isModifierKey(keyCode)) {
        if (!pressed)
            return std::nullopt;
        return KeyEvent{keyCode, EventKind::keyDown, flags()};
    }
    const quint32 bit = 1u << (keyCode - firstModifier);
    m_held = pressed ? (m_held | bit) : (m_held & ~bit);
    return KeyEvent{keyCode, EventKind::flagsChanged, flags()};
}

quint64 KeyEventReader::flags() const
{
    quint64 result = 0;
    for (quint16 code = firstModifier; code <= lastModifier; ++code) {
        if (m_held & (1u << (code - firstModifier)))
            result |= UserSettings::modifierFlagForKeyCode(code).value_or(0);
    }
    return result;
}

} // namespace OverlayKeys
