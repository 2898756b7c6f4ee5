import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// The profile page: the user's e-mail and the sign-out.
ColumnLayout {
    id: root

    required property ProfilePageViewModel page
    required property AppStrings strings

    spacing: 10

    PageHeader {
        title: root.strings.text("sidebar.profile")
        subtitle: root.strings.text("profile.subtitle")
    }
    RowLayout {
        spacing: 8
        Icon { name: "person.circle.fill"; size: 20; color: "#d0d0d5" }
        Label {
            text: root.strings.text("profile.email") + ": " + root.page.profileEmail
            color: "white"
            font.pixelSize: 13
            Accessible.name: text
        }
    }
    PageButton {
        text: root.strings.text("sidebar.signOut")
        onClicked: root.page.signOut()
    }
    Item { Layout.fillHeight: true }
}
