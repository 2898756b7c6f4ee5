import QtQuick
import Ravlet.Shell
import QtQuick.Window

// The floating overlay: on top of the call, on every workspace, never taking the focus. The
// shell places it once when it is made; where the user drags it is not kept.
Window {
    id: window

    required property OverlayViewModel overlay

    width: 680
    height: 700
    minimumWidth: 400
    minimumHeight: 300
    title: "RavletAI Overlay"
    color: "transparent"
    flags: Qt.Tool | Qt.FramelessWindowHint | Qt.WindowStaysOnTopHint | Qt.WindowDoesNotAcceptFocus

    OverlayContentView {
        objectName: "overlayContent"
        anchors.fill: parent
        hostWindow: window
        overlay: window.overlay
        LayoutMirroring.enabled: window.overlay.strings.isRightToLeft
        LayoutMirroring.childrenInherit: true
    }
}
