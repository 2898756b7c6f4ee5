import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

// A page's title and the line under it.
ColumnLayout {
    id: header

    property string title
    property string subtitle

    spacing: 4
    Layout.fillWidth: true
    Layout.bottomMargin: 12

    Label {
        text: header.title
        color: "white"
        font.pixelSize: 22
        font.weight: Font.Bold
        Accessible.name: text
    }
    Label {
        text: header.subtitle
        visible: text.length > 0
        color: "#b0b0b8"
        font.pixelSize: 13
    }
}
