import QtQuick
import Ravlet.Shell
import QtQuick.Window

// The welcome panel: a small floating window that greets a signed-out user.
Window {
    id: window

    required property WelcomeViewModel welcome

    width: 440
    height: 570
    minimumWidth: 440
    minimumHeight: 570
    maximumWidth: 440
    maximumHeight: 570
    title: welcome.strings.text("welcome.title")
    color: "#1c1c21"
    flags: Qt.Window | Qt.WindowTitleHint | Qt.WindowCloseButtonHint | Qt.WindowMinimizeButtonHint
           | Qt.WindowStaysOnTopHint

    // Rights are polled only while the panel is on screen.
    onVisibleChanged: visible ? welcome.appear() : welcome.disappear()

    WelcomeView {
        anchors.fill: parent
        welcome: window.welcome
        LayoutMirroring.enabled: window.welcome.strings.isRightToLeft
        LayoutMirroring.childrenInherit: true
    }
}
