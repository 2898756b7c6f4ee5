#pragma once

#include "ShellInterfaces.h"

#include <QObject>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

class QSocketNotifier;
struct xcb_connection_t;

// Keys of the whole X session (XWayland included), on a connection of its own read through a
// socket notifier. The trigger path watches XInput 2 raw key events on the root window, which
// every client may observe and none can swallow; the arrows are passive grabs on the root
// window, held only while asked for. Without an X server it sees only the keys typed into this
// program's own windows. Whether it sees other programs is also the global-keys right the
// welcome panel shows.
class X11KeySource final : public QObject, public KeySource, public GlobalKeysRight {
    Q_OBJECT

public:
    // Connects to $DISPLAY, or to `display` when given.
    explicit X11KeySource(const char* display = nullptr, QObject* parent = nullptr);
    ~X11KeySource() override;

    bool seesOtherPrograms() const override { return m_connection != nullptr; }
    std::optional<quint16> localKeyCode(quint32 nativeVirtualKey) const override;
    bool granted() override { return seesOtherPrograms(); }
    void grabArrows(ArrowHandler handler) override;
    void releaseArrows() override;

protected:
    void setObserving(bool observing) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    struct Grab {
        std::uint8_t keycode;
        std::uint16_t modifiers;
    };

    void readEvents();
    // An xcb_generic_event_t, whose type cannot be declared ahead.
    void handle(const void* event);
    void loadKeyboardMapping();
    std::optional<quint16> keyCodeOf(std::uint8_t keycode) const;
    bool grab(std::uint8_t keycode, std::uint16_t modifiers);
    void takeArrows();
    void dropArrows();
    // Events read while waiting for a reply sit in the queue, where the notifier cannot see them.
    void readQueuedLater();

    xcb_connection_t* m_connection = nullptr;
    std::uint32_t m_root = 0;
    std::uint8_t m_xinputOpcode = 0;
    std::unique_ptr<QSocketNotifier> m_notifier;
    std::uint8_t m_minKeycode = 0;
    std::uint8_t m_keysymsPerKeycode = 0;
    std::vector<std::uint32_t> m_keysyms;

    ArrowHandler m_arrows;
    std::vector<Grab> m_grabs;
    bool m_grabFailureLogged = false;
    bool m_filtering = false;
};
