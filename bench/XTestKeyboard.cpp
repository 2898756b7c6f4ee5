#include "XTestKeyboard.h"

// Xlib only here: its macros (None, Bool, KeyPress...) would collide with Qt's and gtest's names.
#include <X11/extensions/XTest.h>
#include <X11/Xlib.h>

XTestKeyboard::XTestKeyboard()
    : m_display(XOpenDisplay(nullptr))
{
}

XTestKeyboard::~XTestKeyboard()
{
    if (m_display)
        XCloseDisplay(m_display);
}

void XTestKeyboard::tap(unsigned long keysym)
{
    if (!m_display)
        return;
    const auto keycode = XKeysymToKeycode(m_display, keysym);
    XTestFakeKeyEvent(m_display, keycode, True, CurrentTime);
    XTestFakeKeyEvent(m_display, keycode, False, CurrentTime);
    XFlush(m_display);
}
