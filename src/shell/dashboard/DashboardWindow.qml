import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Window

// The dashboard: the sidebar of pages with the account row below it, and the page beside it.
Window {
    id: window

    required property DashboardViewModel dashboard
    readonly property AppStrings strings: dashboard.strings

    width: 880
    height: 600
    minimumWidth: 720
    minimumHeight: 450
    title: "RavletAI"
    color: "#1c1c21"
    flags: Qt.Window | Qt.WindowTitleHint | Qt.WindowCloseButtonHint | Qt.WindowMinimizeButtonHint
           | Qt.WindowMaximizeButtonHint | Qt.WindowStaysOnTopHint

    RowLayout {
        anchors.fill: parent
        spacing: 0
        LayoutMirroring.enabled: window.strings.isRightToLeft
        LayoutMirroring.childrenInherit: true

        Rectangle {
            color: "#232329"
            Layout.preferredWidth: 220
            Layout.fillHeight: true

            ColumnLayout {
                anchors.fill: parent
                anchors.margins: 10
                spacing: 6

                ListView {
                    objectName: "sidebar"
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    spacing: 2
                    model: window.dashboard.sidebar
                    delegate: ItemDelegate {
                        id: row
                        required property int index
                        required property string title
                        required property string subtitle
                        required property string symbol
                        required property bool isCurrent
                        width: ListView.view.width
                        text: title
                        highlighted: isCurrent
                        Accessible.name: title
                        Accessible.onPressAction: clicked()
                        onClicked: window.dashboard.currentIndex = index
                        contentItem: RowLayout {
                            spacing: 10
                            Icon { name: row.symbol; size: 18; color: "#d0d0d5" }
                            ColumnLayout {
                                spacing: 1
                                Layout.fillWidth: true
                                Label { text: row.title; color: "white"; font.pixelSize: 13; Layout.fillWidth: true; elide: Text.ElideRight }
                                Label {
                                    text: row.subtitle
                                    visible: text.length > 0
                                    color: "#9a9aa2"
                                    font.pixelSize: 10
                                    Layout.fillWidth: true
                                    elide: Text.ElideRight
                                }
                            }
                        }
                        // The style's own highlight is near white, under white text: a quiet tint
                        // on the dark sidebar instead.
                        background: Rectangle {
                            radius: 6
                            color: row.highlighted ? Qt.rgba(1, 1, 1, 0.12)
                                 : row.down ? Qt.rgba(1, 1, 1, 0.09)
                                 : row.hovered ? Qt.rgba(1, 1, 1, 0.05) : "transparent"
                        }
                    }
                }

                // The account row, with sign-out behind its menu.
                RowLayout {
                    spacing: 8
                    Layout.fillWidth: true
                    Icon { name: "person.circle.fill"; size: 22; color: "#d0d0d5" }
                    ColumnLayout {
                        spacing: 1
                        Layout.fillWidth: true
                        Label {
                            text: window.dashboard.accountTitle
                            color: "white"
                            font.pixelSize: 12
                            elide: Text.ElideRight
                            Layout.fillWidth: true
                            Accessible.name: text
                        }
                        Label {
                            text: window.dashboard.accountSubtitle
                            visible: text.length > 0
                            color: "#9a9aa2"
                            font.pixelSize: 11
                            elide: Text.ElideRight
                            Layout.fillWidth: true
                        }
                    }
                    PageIconButton {
                        id: accountMenuButton
                        symbol: "ellipsis"
                        symbolSize: 18
                        Accessible.name: window.strings.text("dashboard.account_menu")
                        onClicked: accountMenu.open()
                        Menu {
                            id: accountMenu
                            y: -implicitHeight
                            MenuItem {
                                text: window.strings.text("sidebar.signOut")
                                Accessible.name: text
                                onTriggered: window.dashboard.signOut()
                            }
                        }
                    }
                }
            }
        }

        // One page per sidebar row, in the sidebar's order.
        StackLayout {
            id: pages
            objectName: "pages"
            currentIndex: window.dashboard.currentIndex
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.margins: 28
            Layout.topMargin: updateBanner.visible ? updateBanner.height + 40 : 28

            GeneralPage { page: window.dashboard.general; strings: window.strings }
            KeybindsPage { page: window.dashboard.keybinds; strings: window.strings }
            ResumePage {
                resumes: window.dashboard.resumes
                strings: window.strings
            }
            JobDescriptionPage {
                jobs: window.dashboard.jobDescriptions
                strings: window.strings
            }
            MockInterviewPage { page: window.dashboard.mockInterview; strings: window.strings }
            ProfilePage { page: window.dashboard.profile; strings: window.strings }
            LanguagesPage { page: window.dashboard.languages; strings: window.strings }
            HelpCenterPage { page: window.dashboard.helpCenter; strings: window.strings }
        }
    }

    // Over the pages' top margin, so that the page stack keeps its shape.
    UpdateBanner {
        id: updateBanner
        dashboard: window.dashboard
        anchors.top: parent.top
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.topMargin: 16
        anchors.leftMargin: 220 + 28
        anchors.rightMargin: 28
        LayoutMirroring.enabled: window.strings.isRightToLeft
    }

    ForceUpdateAlert { dashboard: window.dashboard }
}
