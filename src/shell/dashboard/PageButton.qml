import QtQuick
import QtQuick.Controls.Basic

// A text button in the dashboard's dark theme; `accent` marks the page's main action.
Button {
    id: button

    property bool accent: false
    // A symbol of the icon set before the text; none when empty.
    property string symbol

    leftPadding: 14
    rightPadding: 14
    topPadding: 7
    bottomPadding: 7
    font.pixelSize: 13
    Accessible.name: text
    // A screen reader's press clicks (Qt Quick Controls 6.4 reports it done without one).
    Accessible.onPressAction: clicked()

    contentItem: Item {
        readonly property real iconSpace: icon.visible ? icon.implicitWidth + 6 : 0
        implicitWidth: iconSpace + label.implicitWidth
        implicitHeight: label.implicitHeight
        Row {
            anchors.centerIn: parent
            spacing: 6
            Icon {
                id: icon
                visible: button.symbol.length > 0
                name: button.symbol
                size: button.font.pixelSize + 1
                color: label.color
                height: label.height
            }
            Text {
                id: label
                width: Math.min(implicitWidth, parent.parent.width - parent.parent.iconSpace)
                text: button.text
                font: button.font
                color: button.enabled ? "white" : Qt.rgba(1, 1, 1, 0.4)
                verticalAlignment: Text.AlignVCenter
                elide: Text.ElideRight
            }
        }
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
