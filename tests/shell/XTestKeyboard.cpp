#include "XTestKeyboard.h"

// Xlib only here: its macros (None, Bool, KeyPress...) would collide with Qt's and gtest's names.
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

XTestKeyboard::XTestKeyboard() : m_display(XOpenDisplay(nullptr)) {}

XTestKeyboard::~XTestKeyboard()
{
    if (m_display)
        XCloseDisplay(m_display);
}

std::uint8_t XTestKeyboard::keycode(unsigned long keysym) const
{
    return m_display ? XKeysymToKeycode(m_display, keysym) : 0;
}

void XTestKeyboard::press(unsigned long keysym)
{
    if (!m_display)
        return;
    XTestFakeKeyEvent(m_display, keycode(keysym), True, CurrentTime);
    XFlush(m_display);
}

void XTestKeyboard::release(unsigned long keysym)
{
    if (!m_display)
        return;
    XTestFakeKeyEvent(m_display, keycode(keysym), False, CurrentTime);
    XFlush(m_display);
}

void XTestKeyboard::tap(unsigned long keysym)
{
    press(keysym);
    release(keysym);
}
