import QtQuick
import Ravlet.Shell
import QtQuick.Window

// The welcome panel: a small floating window that greets a signed-out user.
Window {
    id: window

    required property InterviewViewModel interview
    required property AuthViewModel auth
    required property UserSettings settings
    required property AppStrings strings
    required property WelcomeViewModel welcome
    required property MenuBarViewModel menuBar
    required property SettingsViewModel settingsPage

    width: 440
    height: 570
    minimumWidth: 440
    minimumHeight: 570
    maximumWidth: 440
    maximumHeight: 570
    title: strings.text("welcome.title")
    color: "#1c1c21"
    flags: Qt.Window | Qt.WindowTitleHint | Qt.WindowCloseButtonHint | Qt.WindowMinimizeButtonHint
           | Qt.WindowStaysOnTopHint

    // Rights are polled only while the panel is on screen.
    onVisibleChanged: visible ? welcome.appear() : welcome.disappear()

    WelcomeView {
        anchors.fill: parent
        auth: window.auth
        strings: window.strings
        welcome: window.welcome
        LayoutMirroring.enabled: window.strings.isRightToLeft
        LayoutMirroring.childrenInherit: true
    }
}
