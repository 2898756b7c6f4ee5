import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// The help center page: version, build, and where the updates stand, with their buttons.
ColumnLayout {
    id: root

    required property HelpCenterPageViewModel page
    required property AppStrings strings

    spacing: 12

    component InfoRow: RowLayout {
        id: info
        property string label
        property string value
        spacing: 12
        Label { text: info.label; color: "#b0b0b8"; font.pixelSize: 13; Layout.preferredWidth: 160 }
        Label { text: info.value; color: "white"; font.pixelSize: 13; Accessible.name: info.label + " " + info.value }
    }

    PageHeader {
        title: root.strings.text("sidebar.helpCenter")
        subtitle: root.strings.text("helpCenter.subtitle")
    }
    InfoRow { label: root.strings.text("helpCenter.version"); value: root.page.version }
    InfoRow { label: root.strings.text("helpCenter.build"); value: root.page.build }
    InfoRow { label: root.strings.text("helpCenter.updates"); value: root.page.updateText }
    RowLayout {
        spacing: 8
        PageButton {
            text: root.strings.text("update.check_now")
            enabled: !root.page.isChecking
            onClicked: root.page.checkNow()
        }
        PageButton {
            accent: true
            text: root.strings.text("update.download_install")
            visible: root.page.hasNewVersion
            enabled: root.page.canInstall
            onClicked: root.page.downloadAndInstall()
        }
    }
    Item { Layout.fillHeight: true }
}
