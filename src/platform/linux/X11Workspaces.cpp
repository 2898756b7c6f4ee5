#include "X11Workspaces.h"

#include <QGuiApplication>
#include <QtGui/qguiapplication_platform.h>
#include <QWindow>

#include <xcb/xcb.h>

#include <array>
#include <cstdlib>
#include <memory>

namespace {

xcb_atom_t internAtom(xcb_connection_t* connection, const char* name)
{
    const auto free = [](void* p) { std::free(p); };
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(free)> reply(
        xcb_intern_atom_reply(connection,
                              xcb_intern_atom(connection, 0, static_cast<uint16_t>(qstrlen(name)), name),
                              nullptr),
        free);
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

// The request a window manager expects for a window it already manages.
void sendToRoot(xcb_connection_t* connection, xcb_window_t root, xcb_window_t window, xcb_atom_t type,
                std::array<uint32_t, 5> data)
{
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = type;
    for (std::size_t k = 0; k < data.size(); ++k)
        event.data.data32[k] = data[k];
    xcb_send_event(connection, 0, root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
}

} // namespace

void showOnAllWorkspaces(QWindow& window)
{
    if (QGuiApplication::platformName() != u"xcb")
        return;
    const auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t* connection = x11 ? x11->connection() : nullptr;
    if (!connection)
        return;
    const auto id = static_cast<xcb_window_t>(window.winId());
    const xcb_atom_t state = internAtom(connection, "_NET_WM_STATE");
    const xcb_atom_t sticky = internAtom(connection, "_NET_WM_STATE_STICKY");
    const xcb_atom_t desktop = internAtom(connection, "_NET_WM_DESKTOP");
    if (state == XCB_ATOM_NONE || sticky == XCB_ATOM_NONE || desktop == XCB_ATOM_NONE)
        return;
    constexpr uint32_t allDesktops = 0xFFFFFFFF;

    if (!window.isVisible()) {
        // Read by the window manager when it maps the window; Qt adds its own states to this
        // property before mapping and keeps ours.
        xcb_change_property(connection, XCB_PROP_MODE_APPEND, id, state, XCB_ATOM_ATOM, 32, 1, &sticky);
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id, desktop, XCB_ATOM_CARDINAL, 32, 1,
                            &allDesktops);
    } else {
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
        constexpr uint32_t add = 1;
        constexpr uint32_t applicationSource = 1;
        sendToRoot(connection, root, id, state, {add, sticky, 0, applicationSource, 0});
        sendToRoot(connection, root, id, desktop, {allDesktops, applicationSource, 0, 0, 0});
    }
    xcb_flush(connection);
}
