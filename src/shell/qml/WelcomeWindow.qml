import QtQuick
import QtQuick.Window

// The welcome panel: a small floating window that greets a signed-out user.
Window {
    id: window

    property InterviewViewModel interview
    property AuthViewModel auth
    property UserSettings settings
    property AppStrings strings
    property WelcomeViewModel welcome
    property MenuBarViewModel menuBar
    property SettingsViewModel settingsPage

    width: 440
    height: 570
    minimumWidth: 440
    minimumHeight: 570
    maximumWidth: 440
    maximumHeight: 570
    title: strings ? strings.text("welcome.title") : ""
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
