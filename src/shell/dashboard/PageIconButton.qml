import QtQuick
import QtQuick.Controls.Basic
import Ravlet.Shell

// A button drawn as one symbol, in the dashboard's dark theme. Its accessible name is set by
// the user of the button: the symbol alone says nothing to a screen reader.
AbstractButton {
    id: button

    property string symbol
    property real symbolSize: 16
    property color symbolColor: "#d0d0d5"

    implicitWidth: 30
    implicitHeight: 30
    Accessible.role: Accessible.Button
    Accessible.onPressAction: clicked()

    contentItem: Icon {
        name: button.symbol
        size: button.symbolSize
        color: button.symbolColor
        opacity: button.enabled ? 1 : 0.4
    }
    background: Rectangle {
        radius: 6
        color: Qt.rgba(1, 1, 1, button.down ? 0.16 : button.hovered ? 0.09 : 0)
    }
}
