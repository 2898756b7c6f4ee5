#pragma once

struct _XDisplay;

// Presses keys on the test display as a keyboard would, one key at a time, through XTEST.
// (xdotool presses both shifts for a shifted keysym, which a trigger test cannot have.)
class XTestKeyboard {
public:
    XTestKeyboard();
    ~XTestKeyboard();
    XTestKeyboard(const XTestKeyboard&) = delete;
    XTestKeyboard& operator=(const XTestKeyboard&) = delete;

    bool isOpen() const { return m_display != nullptr; }
    // Presses and releases the key that types `keysym` without a modifier.
    void tap(unsigned long keysym);

private:
    _XDisplay* m_display = nullptr;
};
