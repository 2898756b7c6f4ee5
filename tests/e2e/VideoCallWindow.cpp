// Stands in for the video call of the whole-product test: an ordinary X client that asks the
// window manager for the focus and prints, one line each, its window id and then every key
// that reaches it ("press Up"), so that the test sees what the focused program receives.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <cstdio>
#include <cstring>

int main()
{
    Display* display = XOpenDisplay(nullptr);
    if (!display) {
        std::fprintf(stderr, "no X display\n");
        return 1;
    }
    const int screen = DefaultScreen(display);
    const Window window = XCreateSimpleWindow(display, RootWindow(display, screen), 40, 40, 640,
                                              400, 0, BlackPixel(display, screen), 0x202a36);
    XStoreName(display, window, "Video call");
    XSelectInput(display, window, KeyPressMask | FocusChangeMask | StructureNotifyMask);
    XMapWindow(display, window);

    // Wait until mapped, then ask for the focus the way a program a user clicks on gets it.
    for (XEvent event;;) {
        XNextEvent(display, &event);
        if (event.type == MapNotify)
            break;
    }
    XEvent activate{};
    activate.xclient.type = ClientMessage;
    activate.xclient.window = window;
    activate.xclient.message_type = XInternAtom(display, "_NET_ACTIVE_WINDOW", False);
    activate.xclient.format = 32;
    activate.xclient.data.l[0] = 2; // from a pager: honoured without a user time
    XSendEvent(display, RootWindow(display, screen), False,
               SubstructureRedirectMask | SubstructureNotifyMask, &activate);
    XSetInputFocus(display, window, RevertToParent, CurrentTime);
    std::printf("window %lu\n", window);
    std::fflush(stdout);

    for (XEvent event;;) {
        XNextEvent(display, &event);
        if (event.type == KeyPress) {
            const KeySym symbol = XLookupKeysym(&event.xkey, 0);
            const char* name = XKeysymToString(symbol);
            std::printf("press %s\n", name ? name : "?");
        } else if ((event.type == FocusIn || event.type == FocusOut)
                   && event.xfocus.detail != NotifyPointer && event.xfocus.mode == NotifyNormal) {
            // A passive key grab taking one key press moves the focus only in grab mode: the
            // window keeps it, so only normal changes count.
            std::printf(event.type == FocusIn ? "focus in\n" : "focus out\n");
        }
        std::fflush(stdout);
    }
}
