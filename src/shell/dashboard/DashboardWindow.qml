import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Window

// The dashboard: a sidebar and a page area.
Window {
    id: window

    required property DashboardViewModel dashboard
    readonly property AppStrings strings: dashboard.strings

    width: 880
    height: 550
    minimumWidth: 720
    minimumHeight: 450
    title: "RavletAI"
    color: "#1c1c21"
    flags: Qt.Window | Qt.WindowTitleHint | Qt.WindowCloseButtonHint | Qt.WindowMinimizeButtonHint
           | Qt.WindowMaximizeButtonHint | Qt.WindowStaysOnTopHint

    component SidebarRow: ItemDelegate {
        id: sidebarRow
        property string symbol
        Layout.fillWidth: true
        font.pixelSize: 13
        Accessible.name: text
        Accessible.onPressAction: clicked()
        contentItem: RowLayout {
            spacing: 8
            Icon { name: sidebarRow.symbol; size: 16; color: "#d0d0d5" }
            Label { text: sidebarRow.text; color: "white"; font: sidebarRow.font; Layout.fillWidth: true }
        }
        // The style's own highlight is near white, under white text: a quiet tint on the dark
        // sidebar instead.
        background: Rectangle {
            radius: 6
            color: sidebarRow.highlighted ? Qt.rgba(1, 1, 1, 0.12)
                 : sidebarRow.down ? Qt.rgba(1, 1, 1, 0.09)
                 : sidebarRow.hovered ? Qt.rgba(1, 1, 1, 0.05) : "transparent"
        }
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0
        LayoutMirroring.enabled: window.strings.isRightToLeft
        LayoutMirroring.childrenInherit: true

        Rectangle {
            color: "#232329"
            Layout.preferredWidth: 200
            Layout.fillHeight: true

            ColumnLayout {
                anchors.fill: parent
                anchors.margins: 10
                spacing: 2
                SidebarRow {
                    symbol: "person.circle.fill"
                    text: window.strings.text("sidebar.profile")
                    highlighted: true
                }
                Item { Layout.fillHeight: true }
                SidebarRow {
                    symbol: "rectangle.portrait.and.arrow.right"
                    text: window.strings.text("sidebar.signOut")
                    onClicked: window.dashboard.profile.signOut()
                }
                SidebarRow {
                    symbol: "power"
                    text: window.strings.text("sidebar.quit")
                    onClicked: window.dashboard.quit()
                }
            }
        }

        Item {
            id: pageArea
            objectName: "pageArea"
            Layout.fillWidth: true
            Layout.fillHeight: true

            ProfilePage {
                anchors.fill: parent
                anchors.margins: 28
                page: window.dashboard.profile
                strings: window.strings
            }
        }
    }
}
