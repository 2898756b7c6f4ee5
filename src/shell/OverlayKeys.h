#pragma once

#include <QtGlobal>

#include <optional>

struct AITriggerKey;

// The decisions of the two global key paths, free of any desktop: the arrow-key tap of the
// overlay and the trigger key monitors. The platform only delivers keys to them.
namespace OverlayKeys {

inline constexpr quint16 leftArrow = 123;
inline constexpr quint16 rightArrow = 124;
inline constexpr quint16 downArrow = 125;
inline constexpr quint16 upArrow = 126;

inline constexpr bool isArrowKey(quint16 keyCode)
{
    return keyCode >= leftArrow && keyCode <= upArrow;
}

// A key down of an ordinary key, or a change of the held modifiers (press and release alike).
enum class EventKind { keyDown, flagsChanged };

struct KeyEvent {
    quint16 keyCode = 0;
    EventKind kind = EventKind::keyDown;
    quint64 modifierFlags = 0;

    friend bool operator==(const KeyEvent&, const KeyEvent&) = default;
};

enum class TapAction { passOn, selectPreviousAnswer, selectNextAnswer, selectPreviousTranscript, selectNextTranscript };

// What the tap does with a key: the arrows are the overlay's while it is visible and has a
// model, even when the move changes nothing; every other key passes on.
TapAction tapAction(quint16 keyCode, bool panelVisible, bool hasViewModel);

// The only kind of event the monitors of this key receive.
EventKind monitoredKind(const AITriggerKey& key);

// Whether an event that reached the monitors of `key` (the copy they took) starts an answer.
// A modifier with a flag fires on its press only, since its release also changes the flags.
bool triggerFires(const AITriggerKey& key, bool triggerSuppressed, const KeyEvent& event);

// The keys that change the modifier flags rather than type.
bool isModifierKey(quint16 keyCode);

// Turns the presses and releases a desktop reports into the events above, keeping track of
// the modifiers held down. A release of an ordinary key is no event.
class KeyEventReader {
public:
    std::optional<KeyEvent> read(quint16 keyCode, bool pressed);
    void reset() { m_held = 0; }

private:
    quint64 flags() const;

    // One bit per modifier key code (54 to 63).
    quint32 m_held = 0;
};

} // namespace OverlayKeys
