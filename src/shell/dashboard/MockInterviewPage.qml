import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Ravlet.Shell

// The practice page: two pickers, the first thing that stands in the way, and the start.
// MockInterviewPageViewModel decides; this only draws.
ColumnLayout {
    id: root

    required property MockInterviewPageViewModel page
    required property AppStrings strings

    spacing: 10
    LayoutMirroring.enabled: strings.isRightToLeft
    LayoutMirroring.childrenInherit: true

    onVisibleChanged: if (visible) root.page.load()
    Component.onCompleted: if (visible) root.page.load()

    component Picker: ColumnLayout {
        id: picker
        property string label
        property var names: []
        property int currentIndex: -1
        signal chosen(int index)
        spacing: 4
        Layout.fillWidth: true
        Label { text: picker.label; color: "#d0d0d5"; font.pixelSize: 12; Accessible.ignored: true }
        PageComboBox {
            model: picker.names
            currentIndex: picker.currentIndex
            enabled: picker.names.length > 0
            Accessible.name: picker.label
            Layout.fillWidth: true
            onActivated: index => picker.chosen(index)
        }
    }

    PageHeader { title: root.strings.text("mock.title") }
    // Long: it wraps, which the header's line does not.
    Label {
        text: root.strings.text("mock.description")
        color: "#b0b0b8"
        font.pixelSize: 13
        wrapMode: Text.Wrap
        Layout.fillWidth: true
        Layout.bottomMargin: 8
    }

    Picker {
        label: root.strings.text("mock.setup.resume_label")
        names: root.page.resumeNames
        currentIndex: root.page.resumeIndex
        onChosen: index => root.page.resumeIndex = index
    }
    Picker {
        label: root.strings.text("mock.setup.jd_label")
        names: root.page.jobDescriptionNames
        currentIndex: root.page.jobDescriptionIndex
        onChosen: index => root.page.jobDescriptionIndex = index
    }

    RowLayout {
        objectName: "blocker"
        visible: blockerText.text.length > 0
        spacing: 8
        Layout.fillWidth: true
        Icon { name: "exclamationmark.triangle"; size: 18; color: "#f0c060" }
        Label {
            id: blockerText
            // A list that could not be loaded says why, rather than that a document is missing.
            text: root.page.loadError.length > 0 ? root.page.loadError
                : root.page.blockerKey.length > 0 ? root.strings.text(root.page.blockerKey) : ""
            color: "#f0c060"
            font.pixelSize: 13
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            Accessible.name: text
        }
    }
    BusyIndicator {
        running: visible
        visible: root.page.isLoading
    }

    Label {
        text: root.strings.text("mock.setup.disclaimer")
        color: "#b0b0b8"
        font.pixelSize: 12
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    PageButton {
        objectName: "startButton"
        accent: true
        symbol: "play.fill"
        text: root.strings.text("mock.setup.start_button")
        enabled: root.page.canStart
        onClicked: root.page.start()
    }
    Item { Layout.fillHeight: true }
}
