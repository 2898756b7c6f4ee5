import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// The forced update's alert: modal, closed by neither Escape nor a click outside; its one
// button installs. It comes back while the update is still forced and nothing is downloading.
Popup {
    id: alert

    required property DashboardViewModel dashboard
    readonly property AppStrings strings: dashboard.strings

    visible: dashboard.showForceUpdateAlert
    modal: true
    closePolicy: Popup.NoAutoClose
    x: Math.round((parent.width - width) / 2)
    y: Math.round((parent.height - height) / 2)
    width: 380
    padding: 22
    background: Rectangle { radius: 12; color: "#2b2b33"; border.color: "#4a4a55" }

    contentItem: ColumnLayout {
        spacing: 12
        Icon {
            name: "exclamationmark.triangle.fill"
            size: 30
            color: "#ffb199"
            Layout.alignment: Qt.AlignHCenter
        }
        Label {
            text: alert.strings.text("update.force_title_alert")
            color: "white"
            font.pixelSize: 16
            font.weight: Font.Bold
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
            Accessible.name: text
        }
        Label {
            text: alert.dashboard.forceUpdateMessage
            color: "#d0d0d5"
            font.pixelSize: 13
            wrapMode: Text.Wrap
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
            Accessible.name: text
        }
        PageButton {
            objectName: "alertInstall"
            accent: true
            text: alert.strings.text("update.download_install")
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 4
            onClicked: alert.dashboard.downloadAndInstallUpdate()
        }
    }
}
