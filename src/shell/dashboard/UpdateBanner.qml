import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// The strip above the pages while an update is offered; a forced one in a warning colour.
Rectangle {
    id: banner

    required property DashboardViewModel dashboard
    readonly property AppStrings strings: dashboard.strings

    visible: dashboard.hasUpdateBanner
    implicitHeight: row.implicitHeight + 20
    radius: 8
    color: dashboard.isUpdateForced ? "#5a2a22" : "#1f3a5a"
    border.color: dashboard.isUpdateForced ? "#d9734e" : "#3d7cc4"

    RowLayout {
        id: row
        anchors.fill: parent
        anchors.leftMargin: 14
        anchors.rightMargin: 10
        spacing: 12

        Icon {
            name: banner.dashboard.updateBannerSymbol
            size: 22
            color: banner.dashboard.isUpdateForced ? "#ffb199" : "#9cc8ff"
        }
        ColumnLayout {
            spacing: 2
            Layout.fillWidth: true
            Label {
                text: banner.dashboard.updateBannerTitle
                color: "white"
                font.pixelSize: 14
                font.weight: Font.DemiBold
                elide: Text.ElideRight
                Layout.fillWidth: true
                Accessible.name: text
            }
            Label {
                text: banner.strings.text("update.available_subtitle")
                visible: !banner.dashboard.isUpdateForced
                color: "#c8d3e0"
                font.pixelSize: 12
                elide: Text.ElideRight
                Layout.fillWidth: true
            }
        }
        PageButton {
            objectName: "bannerInstall"
            accent: true
            text: banner.strings.text("update.download_install")
            enabled: banner.dashboard.canInstallUpdate
            onClicked: banner.dashboard.downloadAndInstallUpdate()
        }
    }
}
