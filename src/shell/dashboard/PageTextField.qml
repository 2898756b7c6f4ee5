import QtQuick
import QtQuick.Controls.Basic

// A one-line text field in the dashboard's dark theme. Typed text starts at the reading
// side: an explicit alignment follows the layout's mirroring, the text's own direction would
// not (a Latin title in the Arabic interface would sit on the left).
TextField {
    id: field

    color: "white"
    placeholderTextColor: Qt.rgba(1, 1, 1, 0.35)
    selectionColor: "#3b6ff0"
    selectedTextColor: "white"
    font.pixelSize: 13
    horizontalAlignment: TextInput.AlignLeft
    leftPadding: 10
    rightPadding: 10

    background: Rectangle {
        implicitHeight: 32
        radius: 7
        color: Qt.rgba(1, 1, 1, 0.06)
        border.color: field.activeFocus ? "#3b6ff0" : Qt.rgba(1, 1, 1, 0.14)
        border.width: 1
    }
}
