// Presses and releases keys through XTEST, as a keyboard would, one per argument ("Shift_R",
// "Left"): each name is the keysym's, sent on the key code that carries it unshifted, with no
// modifier pressed around it.
#include <X11/extensions/XTest.h>
#include <X11/Xlib.h>

#include <cstdio>

int main(int argc, char* argv[])
{
    Display* display = XOpenDisplay(nullptr);
    if (!display) {
        std::fprintf(stderr, "no X display\n");
        return 1;
    }
    int unused = 0;
    if (!XTestQueryExtension(display, &unused, &unused, &unused, &unused)) {
        std::fprintf(stderr, "no XTEST extension\n");
        return 1;
    }
    for (int i = 1; i < argc; ++i) {
        const KeySym symbol = XStringToKeysym(argv[i]);
        const KeyCode code = symbol == NoSymbol ? 0 : XKeysymToKeycode(display, symbol);
        if (code == 0) {
            std::fprintf(stderr, "no key for %s\n", argv[i]);
            return 2;
        }
        XTestFakeKeyEvent(display, code, True, CurrentTime);
        XTestFakeKeyEvent(display, code, False, CurrentTime);
        XSync(display, False);
    }
    XCloseDisplay(display);
    return 0;
}
