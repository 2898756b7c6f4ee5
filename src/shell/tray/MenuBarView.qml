import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// The menu-bar list: status, account, overlay toggle, settings, quit.
Rectangle {
    id: view

    required property MenuBarViewModel menuBar
    signal actionTaken()

    implicitHeight: column.implicitHeight + 12
    radius: 10
    color: "#f02a2a31"
    border.color: "#3d3d46"

    component MenuRow: ItemDelegate {
        property string symbol
        Layout.fillWidth: true
        font.pixelSize: 13
        Accessible.name: text
        Accessible.onPressAction: clicked()
        contentItem: RowLayout {
            spacing: 8
            Icon { name: parent.parent.symbol; size: 15; color: "#d0d0d5"; Layout.preferredWidth: 18 }
            Label { text: parent.parent.text; color: "white"; font: parent.parent.font; Layout.fillWidth: true }
        }
    }
    component Divider: Rectangle {
        Layout.fillWidth: true
        Layout.leftMargin: 8
        Layout.rightMargin: 8
        implicitHeight: 1
        color: "#3d3d46"
    }

    ColumnLayout {
        id: column
        anchors.fill: parent
        anchors.margins: 6
        spacing: 2

        RowLayout {
            spacing: 8
            Layout.margins: 8
            Accessible.role: Accessible.StaticText
            Accessible.name: view.menuBar.statusText
            Rectangle { width: 12; height: 12; radius: 6; color: view.menuBar.statusColor }
            Label { text: view.menuBar.statusText; color: "white"; font.pixelSize: 13; Layout.fillWidth: true; elide: Text.ElideRight }
        }
        Divider {}
        RowLayout {
            spacing: 8
            Layout.margins: 8
            Accessible.role: Accessible.StaticText
            Accessible.name: view.menuBar.accountTitle
            Icon { name: "person.circle.fill"; size: 20; color: "#d0d0d5" }
            ColumnLayout {
                spacing: 0
                Layout.fillWidth: true
                Label { text: view.menuBar.accountTitle; color: "white"; font.pixelSize: 12; elide: Text.ElideRight; Layout.fillWidth: true }
                Label {
                    visible: text.length > 0
                    text: view.menuBar.accountSubtitle
                    color: "#b0b0b8"
                    font.pixelSize: 11
                    elide: Text.ElideRight
                    Layout.fillWidth: true
                }
            }
        }
        Divider {}
        MenuRow {
            symbol: view.menuBar.overlayIcon
            text: view.menuBar.overlayText
            onClicked: { view.actionTaken(); view.menuBar.toggleOverlay() }
        }
        MenuRow {
            symbol: "gearshape"
            text: view.menuBar.settingsText
            onClicked: { view.actionTaken(); view.menuBar.openSettings() }
        }
        Divider {}
        MenuRow {
            symbol: "power"
            text: view.menuBar.quitText
            onClicked: view.menuBar.quit()
        }
    }
}
