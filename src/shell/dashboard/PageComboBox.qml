import QtQuick
import QtQuick.Controls.Basic
import Ravlet.Shell

// The dashboard's picker, in the dark theme: Qt's Basic combo box is light. The arrow is our
// own, as Qt 6.4's Basic combo box never frees the arrow image it would make by default.
ComboBox {
    id: box
    font.pixelSize: 13
    leftPadding: 10

    contentItem: Text {
        text: box.displayText
        font: box.font
        color: box.enabled ? "white" : Qt.rgba(1, 1, 1, 0.4)
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
    }
    indicator: Icon {
        name: "chevron.down"
        size: 16
        color: "#d0d0d5"
        x: box.mirrored ? box.padding : box.width - width - box.padding
        y: box.topPadding + (box.availableHeight - height) / 2
    }
    background: Rectangle {
        implicitHeight: 34
        radius: 7
        color: Qt.rgba(1, 1, 1, box.pressed ? 0.1 : 0.06)
        border.color: box.activeFocus ? "#3b6ff0" : Qt.rgba(1, 1, 1, 0.14)
        border.width: 1
    }
    delegate: ItemDelegate {
        required property int index
        required property string modelData
        width: ListView.view ? ListView.view.width : 0
        highlighted: box.highlightedIndex === index
        text: modelData
        Accessible.name: modelData
        contentItem: Text {
            text: parent.text
            font: box.font
            color: "white"
            elide: Text.ElideRight
            verticalAlignment: Text.AlignVCenter
        }
        background: Rectangle {
            radius: 5
            color: parent.highlighted ? "#3b6ff0" : "transparent"
        }
    }
    popup: Popup {
        y: box.height + 4
        width: box.width
        padding: 4
        implicitHeight: contentItem.implicitHeight + topPadding + bottomPadding
        contentItem: ListView {
            clip: true
            implicitHeight: Math.min(contentHeight, 300)
            model: box.popup.visible ? box.delegateModel : null
            currentIndex: box.highlightedIndex
        }
        background: Rectangle {
            radius: 7
            color: "#2a2a30"
            border.color: Qt.rgba(1, 1, 1, 0.14)
            border.width: 1
        }
    }
}
