#include "X11KeysRight.h"

#include <QGuiApplication>

#include <xcb/xcb.h>
#include <xcb/xinput.h>

#include <cstdlib>

bool X11KeysRight::granted()
{
    auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    xcb_connection_t* connection = x11 ? x11->connection() : nullptr;
    if (!connection)
        return false;
    // Raw key events came with XInput 2.0.
    const auto cookie = xcb_input_xi_query_version(connection, 2, 0);
    auto* reply = xcb_input_xi_query_version_reply(connection, cookie, nullptr);
    const bool available = reply && reply->major_version >= 2;
    std::free(reply);
    return available;
}
