import QtQuick
import Ravlet.Shell
import QtQuick.Window

// The tray's popup: a small frameless window beside the icon that closes when it loses focus.
Window {
    id: window

    required property MenuBarViewModel menuBar

    width: 240
    height: view.implicitHeight
    title: "RavletAI"
    color: "transparent"
    flags: Qt.Tool | Qt.FramelessWindowHint | Qt.WindowStaysOnTopHint

    onActiveChanged: if (!active) hide()

    MenuBarView {
        id: view
        anchors.fill: parent
        menuBar: window.menuBar
        onActionTaken: window.hide()
        LayoutMirroring.enabled: window.menuBar.strings.isRightToLeft
        LayoutMirroring.childrenInherit: true
    }
}
