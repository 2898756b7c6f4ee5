import QtQuick
import QtQuick.Controls.Basic

// A text button in the dashboard's dark theme; `accent` marks the page's main action.
Button {
    id: button

    property bool accent: false

    leftPadding: 14
    rightPadding: 14
    topPadding: 7
    bottomPadding: 7
    font.pixelSize: 13
    Accessible.name: text
    // A screen reader's press clicks (Qt Quick Controls 6.4 reports it done without one).
    Accessible.onPressAction: clicked()

    contentItem: Text {
        text: button.text
        font: button.font
        color: button.enabled ? "white" : Qt.rgba(1, 1, 1, 0.4)
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
    }
    background: Rectangle {
        implicitWidth: 80
        implicitHeight: 30
        radius: 7
        color: !button.enabled ? Qt.rgba(1, 1, 1, 0.06)
             : button.accent ? (button.down ? "#2f5fd0" : button.hovered ? "#4a7cf5" : "#3b6ff0")
             : Qt.rgba(1, 1, 1, button.down ? 0.2 : button.hovered ? 0.14 : 0.09)
        border.color: button.accent ? "transparent" : Qt.rgba(1, 1, 1, 0.08)
        border.width: 1
    }
}
