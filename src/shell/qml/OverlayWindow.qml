import QtQuick
import QtQuick.Window

// The floating overlay: on top of the call, on every workspace, never taking the focus. Its
// content comes with the overlay's own screens.
Window {
    id: window

    property InterviewViewModel interview
    property AuthViewModel auth
    property UserSettings settings
    property AppStrings strings
    property WelcomeViewModel welcome
    property MenuBarViewModel menuBar
    property SettingsViewModel settingsPage

    width: 680
    height: 700
    title: "RavletAI Overlay"
    color: "transparent"
    flags: Qt.Tool | Qt.FramelessWindowHint | Qt.WindowStaysOnTopHint | Qt.WindowDoesNotAcceptFocus

    Item {
        id: content
        objectName: "overlayContent"
        anchors.fill: parent
        LayoutMirroring.enabled: window.strings ? window.strings.isRightToLeft : false
        LayoutMirroring.childrenInherit: true
    }
}
