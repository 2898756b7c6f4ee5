import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// One right on the welcome panel and the General page: what it is for, an optional note on
// what works without it, and a button to grant it or "Granted".
Rectangle {
    id: row

    property string icon
    property string title
    property string description
    property string note
    property bool isGranted
    property string buttonLabel
    property string grantedLabel
    signal action()

    implicitHeight: layout.implicitHeight + 20
    radius: 8
    color: "#26ffffff"

    RowLayout {
        id: layout
        anchors.fill: parent
        anchors.margins: 10
        spacing: 10

        Icon {
            name: row.icon
            size: 22
            color: row.isGranted ? "#34c759" : "#d0d0d5"
            Layout.preferredWidth: 28
        }
        ColumnLayout {
            spacing: 2
            Layout.fillWidth: true
            Label {
                text: row.title
                color: "white"
                font.pixelSize: 13
                font.weight: Font.DemiBold
                Layout.fillWidth: true
                elide: Text.ElideRight
            }
            Label {
                text: row.description
                color: "#b0b0b8"
                font.pixelSize: 11
                wrapMode: Text.WordWrap
                Layout.fillWidth: true
            }
            Label {
                visible: row.note.length > 0
                text: row.note
                color: "#ffcc00"
                font.pixelSize: 11
                wrapMode: Text.WordWrap
                Layout.fillWidth: true
                Accessible.name: text
            }
        }
        RowLayout {
            visible: row.isGranted
            spacing: 4
            Accessible.role: Accessible.StaticText
            Accessible.name: row.title + ": " + row.grantedLabel
            objectName: "grantedLabel"
            Icon { name: "checkmark"; size: 14; color: "#34c759" }
            Label { text: row.grantedLabel; color: "#34c759"; font.pixelSize: 12 }
        }
        Button {
            id: allow
            visible: !row.isGranted
            text: row.buttonLabel
            font.pixelSize: 12
            Accessible.name: row.title + ": " + row.buttonLabel
            Accessible.onPressAction: clicked()
            onClicked: row.action()
            // The panel is dark: a quiet outlined button, lit while pressed or hovered.
            contentItem: Label {
                text: allow.text
                font: allow.font
                color: "#8fb0ff"
                horizontalAlignment: Text.AlignHCenter
                verticalAlignment: Text.AlignVCenter
            }
            background: Rectangle {
                implicitWidth: 72
                implicitHeight: 28
                radius: 6
                color: allow.down ? "#2a3a66" : (allow.hovered ? "#26324f" : "transparent")
                border.color: "#3b6ff0"
            }
        }
    }
}
