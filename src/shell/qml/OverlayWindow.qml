import QtQuick
import Ravlet.Shell
import QtQuick.Window

// The floating overlay: on top of the call, on every workspace, never taking the focus. Its
// content comes with the overlay's own screens.
Window {
    id: window

    required property InterviewViewModel interview
    required property AuthViewModel auth
    required property UserSettings settings
    required property AppStrings strings
    required property WelcomeViewModel welcome
    required property MenuBarViewModel menuBar
    required property SettingsViewModel settingsPage

    width: 680
    height: 700
    title: "RavletAI Overlay"
    color: "transparent"
    flags: Qt.Tool | Qt.FramelessWindowHint | Qt.WindowStaysOnTopHint | Qt.WindowDoesNotAcceptFocus

    Item {
        id: content
        objectName: "overlayContent"
        anchors.fill: parent
        LayoutMirroring.enabled: window.strings.isRightToLeft
        LayoutMirroring.childrenInherit: true
    }
}
