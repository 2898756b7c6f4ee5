#include "X11KeySource.h"

#include "Log.h"
#include "OverlayKeys.h"
#include "X11KeyTable.h"

#include <QCoreApplication>
#include <QKeyEvent>
#include <QSocketNotifier>

#include <xcb/xcb.h>
#include <xcb/xinput.h>

#include <array>
#include <cstdlib>

using namespace Qt::StringLiterals;

namespace {

template<typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

template<typename T>
Reply<T> reply(T* value)
{
    return Reply<T>(value, &std::free);
}

} // namespace

X11KeySource::X11KeySource(const char* display, QObject* parent) : QObject(parent)
{
    int screenNumber = 0;
    xcb_connection_t* connection = xcb_connect(display, &screenNumber);
    if (xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        logLine(u"Keys", u"no X server: the trigger key works only in this program's windows, the arrows not at all");
        return;
    }
    const xcb_query_extension_reply_t* xinput = xcb_get_extension_data(connection, &xcb_input_id);
    // Raw key events came with XInput 2.0, and a client must ask for that version to get them.
    auto version = xinput && xinput->present
                       ? reply(xcb_input_xi_query_version_reply(connection, xcb_input_xi_query_version(connection, 2, 0),
                                                                nullptr))
                       : reply<xcb_input_xi_query_version_reply_t>(nullptr);
    if (!version || version->major_version < 2) {
        xcb_disconnect(connection);
        logLine(u"Keys", u"the X server has no XInput 2: keys of other programs cannot be seen");
        return;
    }
    m_connection = connection;
    m_xinputOpcode = xinput->major_opcode;
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int k = 0; k < screenNumber && screens.rem > 1; ++k)
        xcb_screen_next(&screens);
    m_root = screens.data->root;
    loadKeyboardMapping();

    m_notifier = std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(connection), QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &X11KeySource::readEvents);
    readQueuedLater();
}

X11KeySource::~X11KeySource()
{
    if (m_filtering && QCoreApplication::instance())
        QCoreApplication::instance()->removeEventFilter(this);
    m_notifier.reset();
    if (m_connection)
        xcb_disconnect(m_connection);
}

void X11KeySource::setObserving(bool observing)
{
    if (!m_connection) {
        // The stand-in: keys typed into this program's own windows.
        auto* application = QCoreApplication::instance();
        if (observing && application && !m_filtering) {
            application->installEventFilter(this);
            m_filtering = true;
        }
        return;
    }
    struct {
        xcb_input_event_mask_t head;
        std::uint32_t bits;
    } mask{{XCB_INPUT_DEVICE_ALL_MASTER, 1},
           observing ? std::uint32_t(XCB_INPUT_XI_EVENT_MASK_RAW_KEY_PRESS | XCB_INPUT_XI_EVENT_MASK_RAW_KEY_RELEASE) : 0u};
    xcb_input_xi_select_events(m_connection, m_root, 1, &mask.head);
    xcb_flush(m_connection);
}

void X11KeySource::grabArrows(ArrowHandler handler)
{
    m_arrows = std::move(handler);
    if (m_connection && m_grabs.empty())
        takeArrows();
}

void X11KeySource::releaseArrows()
{
    m_arrows = {};
    dropArrows();
}

std::optional<quint16> X11KeySource::localKeyCode(quint32 nativeVirtualKey) const
{
    // Qt on X11 and on Wayland gives the keysym as the native virtual key.
    return canonicalKeyCode(nativeVirtualKey);
}

bool X11KeySource::eventFilter(QObject* watched, QEvent* event)
{
    const auto type = event->type();
    if (isObserving() && !m_connection && (type == QEvent::KeyPress || type == QEvent::KeyRelease)) {
        const auto* key = static_cast<QKeyEvent*>(event);
        // Every window on the way sees the event; only the one it is for counts.
        const bool forWindow = watched->isWindowType();
        if (forWindow && !(type == QEvent::KeyRelease && key->isAutoRepeat())) {
            if (const auto code = localKeyCode(key->nativeVirtualKey()))
                deliverKey(*code, type == QEvent::KeyPress);
        }
    }
    return QObject::eventFilter(watched, event);
}

void X11KeySource::readEvents()
{
    if (!m_connection)
        return;
    while (xcb_generic_event_t* event = xcb_poll_for_event(m_connection)) {
        handle(event);
        std::free(event);
    }
    if (xcb_connection_has_error(m_connection)) {
        // The X server went away; nothing more will come from it.
        m_notifier->setEnabled(false);
        logLine(u"Keys", u"the connection to the X server broke: global keys stop");
    }
}

void X11KeySource::readQueuedLater()
{
    QMetaObject::invokeMethod(this, &X11KeySource::readEvents, Qt::QueuedConnection);
}

void X11KeySource::handle(const void* data)
{
    const auto* event = static_cast<const xcb_generic_event_t*>(data);
    switch (event->response_type & 0x7f) {
    case XCB_GE_GENERIC: {
        const auto* generic = reinterpret_cast<const xcb_ge_generic_event_t*>(event);
        if (generic->extension != m_xinputOpcode
            || (generic->event_type != XCB_INPUT_RAW_KEY_PRESS && generic->event_type != XCB_INPUT_RAW_KEY_RELEASE))
            return;
        const auto* raw = reinterpret_cast<const xcb_input_raw_key_press_event_t*>(event);
        const auto code = keyCodeOf(static_cast<std::uint8_t>(raw->detail));
        if (code && isObserving())
            deliverKey(*code, generic->event_type == XCB_INPUT_RAW_KEY_PRESS);
        return;
    }
    case XCB_KEY_PRESS: {
        // Only the grabbed arrows are reported to this connection.
        const auto* press = reinterpret_cast<const xcb_key_press_event_t*>(event);
        const auto code = keyCodeOf(press->detail);
        if (code && OverlayKeys::isArrowKey(*code) && m_arrows)
            m_arrows(*code);
        return;
    }
    case XCB_MAPPING_NOTIFY: {
        const auto* mapping = reinterpret_cast<const xcb_mapping_notify_event_t*>(event);
        if (mapping->request != XCB_MAPPING_KEYBOARD)
            return;
        loadKeyboardMapping();
        // The arrows may sit on other keys now.
        if (!m_grabs.empty()) {
            dropArrows();
            takeArrows();
        }
        return;
    }
    default:
        return;
    }
}

void X11KeySource::loadKeyboardMapping()
{
    const xcb_setup_t* setup = xcb_get_setup(m_connection);
    const auto count = static_cast<std::uint8_t>(setup->max_keycode - setup->min_keycode + 1);
    auto mapping = reply(xcb_get_keyboard_mapping_reply(
        m_connection, xcb_get_keyboard_mapping(m_connection, setup->min_keycode, count), nullptr));
    m_keysyms.clear();
    m_minKeycode = setup->min_keycode;
    m_keysymsPerKeycode = mapping ? mapping->keysyms_per_keycode : 0;
    if (mapping) {
        const xcb_keysym_t* keysyms = xcb_get_keyboard_mapping_keysyms(mapping.get());
        m_keysyms.assign(keysyms, keysyms + xcb_get_keyboard_mapping_keysyms_length(mapping.get()));
    }
    readQueuedLater();
}

std::optional<quint16> X11KeySource::keyCodeOf(std::uint8_t keycode) const
{
    if (keycode < m_minKeycode || m_keysymsPerKeycode == 0)
        return std::nullopt;
    const std::size_t index = std::size_t(keycode - m_minKeycode) * m_keysymsPerKeycode;
    return index < m_keysyms.size() ? canonicalKeyCode(m_keysyms[index]) : std::nullopt;
}

bool X11KeySource::grab(std::uint8_t keycode, std::uint16_t modifiers)
{
    auto error = reply(xcb_request_check(
        m_connection, xcb_grab_key_checked(m_connection, 0, m_root, modifiers, keycode, XCB_GRAB_MODE_ASYNC,
                                           XCB_GRAB_MODE_ASYNC)));
    if (error)
        return false;
    m_grabs.push_back({keycode, modifiers});
    return true;
}

void X11KeySource::takeArrows()
{
    // A grab with any modifiers fails whole when another program (often the window manager,
    // for Control+Alt+arrow) holds one combination; then the plain arrows are taken with each
    // state of Shift, Caps Lock and Num Lock, and the other combinations stay with their owner.
    constexpr std::array<std::uint16_t, 8> plainStates{
        0,
        XCB_MOD_MASK_SHIFT,
        XCB_MOD_MASK_LOCK,
        XCB_MOD_MASK_2,
        XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_LOCK,
        XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_2,
        XCB_MOD_MASK_LOCK | XCB_MOD_MASK_2,
        XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_LOCK | XCB_MOD_MASK_2,
    };
    bool partly = false;
    bool refused = false;
    for (std::size_t k = 0; m_keysymsPerKeycode && k * m_keysymsPerKeycode < m_keysyms.size(); ++k) {
        const auto keycode = static_cast<std::uint8_t>(m_minKeycode + k);
        const auto code = keyCodeOf(keycode);
        if (!code || !OverlayKeys::isArrowKey(*code) || grab(keycode, XCB_MOD_MASK_ANY))
            continue;
        partly = true;
        for (const auto state : plainStates)
            refused = !grab(keycode, state) || refused;
    }
    if ((partly || refused) && !m_grabFailureLogged) {
        m_grabFailureLogged = true;
        logLine(u"Keys", refused ? u"another program holds the arrow keys; they stay with the program in front"_s
                                 : u"another program holds some arrow key combinations; the overlay takes the arrows "
                                   u"only without Control, Alt or Super"_s);
    }
    xcb_flush(m_connection);
    readQueuedLater();
}

void X11KeySource::dropArrows()
{
    if (!m_connection || m_grabs.empty())
        return;
    for (const auto& grab : m_grabs)
        xcb_ungrab_key(m_connection, grab.keycode, m_root, grab.modifiers);
    m_grabs.clear();
    // A round trip: once back, the next arrow pressed anywhere is no longer ours.
    std::free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
    readQueuedLater();
}
