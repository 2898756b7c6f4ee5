import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// A page of the sidebar that this build does not have yet; it says so plainly.
ColumnLayout {
    id: root

    required property AppStrings strings
    property string title
    property string subtitle

    PageHeader { title: root.title; subtitle: root.subtitle }
    Label {
        text: root.strings.text("dashboard.not_built_yet")
        color: "#d0d0d5"
        font.pixelSize: 13
        Accessible.name: text
    }
    Item { Layout.fillHeight: true }
}
