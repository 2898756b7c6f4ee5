import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Window

// The dashboard: a sidebar and a page area. Until its pages arrive the area shows the
// profile line and sign-out.
Window {
    id: window

    required property InterviewViewModel interview
    required property AuthViewModel auth
    required property UserSettings settings
    required property AppStrings strings
    required property WelcomeViewModel welcome
    required property MenuBarViewModel menuBar
    required property SettingsViewModel settingsPage

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
                    onClicked: window.settingsPage.signOut()
                }
                SidebarRow {
                    symbol: "power"
                    text: window.strings.text("sidebar.quit")
                    onClicked: window.settingsPage.quit()
                }
            }
        }

        Item {
            id: pageArea
            objectName: "pageArea"
            Layout.fillWidth: true
            Layout.fillHeight: true

            ColumnLayout {
                anchors.fill: parent
                anchors.margins: 28
                spacing: 10
                Label {
                    text: window.strings.text("sidebar.profile")
                    color: "white"
                    font.pixelSize: 22
                    font.weight: Font.Bold
                }
                Label {
                    text: window.strings.text("profile.subtitle")
                    color: "#b0b0b8"
                    font.pixelSize: 13
                }
                RowLayout {
                    spacing: 8
                    Layout.topMargin: 12
                    Icon { name: "person.circle.fill"; size: 20; color: "#d0d0d5" }
                    Label {
                        text: window.strings.text("profile.email") + ": " + window.settingsPage.profileEmail
                        color: "white"
                        font.pixelSize: 13
                        Accessible.name: text
                    }
                }
                Button {
                    text: window.strings.text("sidebar.signOut")
                    Accessible.name: text
                    Accessible.onPressAction: clicked()
                    onClicked: window.settingsPage.signOut()
                }
                Item { Layout.fillHeight: true }
            }
        }
    }
}
