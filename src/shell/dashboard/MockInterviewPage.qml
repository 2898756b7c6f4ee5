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
        // The dark theme's picker: Qt's Basic one is light. The arrow is our own, as Qt 6.4's
        // Basic combo box never frees the arrow image it would make by default.
        ComboBox {
            id: box
            model: picker.names
            currentIndex: picker.currentIndex
            enabled: picker.names.length > 0
            font.pixelSize: 13
            leftPadding: 10
            Accessible.name: picker.label
            Layout.fillWidth: true
            onActivated: index => picker.chosen(index)

            contentItem: Text {
                text: box.displayText
                font: box.font
                color: box.enabled ? "white" : Qt.rgba(1, 1, 1, 0.4)
                verticalAlignment: Text.AlignVCenter
                elide: Text.ElideRight
            }
            indicator: Icon {
                name: "chevron.down"
                size: 16
                color: "#d0d0d5"
                x: box.mirrored ? box.padding : box.width - width - box.padding
                y: box.topPadding + (box.availableHeight - height) / 2
            }
            background: Rectangle {
                implicitHeight: 34
                radius: 7
                color: Qt.rgba(1, 1, 1, box.pressed ? 0.1 : 0.06)
                border.color: box.activeFocus ? "#3b6ff0" : Qt.rgba(1, 1, 1, 0.14)
                border.width: 1
            }
            delegate: ItemDelegate {
                required property int index
                required property string modelData
                width: ListView.view ? ListView.view.width : 0
                highlighted: box.highlightedIndex === index
                text: modelData
                Accessible.name: modelData
                contentItem: Text {
                    text: parent.text
                    font: box.font
                    color: "white"
                    elide: Text.ElideRight
                    verticalAlignment: Text.AlignVCenter
                }
                background: Rectangle {
                    radius: 5
                    color: parent.highlighted ? "#3b6ff0" : "transparent"
                }
            }
            popup: Popup {
                y: box.height + 4
                width: box.width
                padding: 4
                implicitHeight: contentItem.implicitHeight + topPadding + bottomPadding
                contentItem: ListView {
                    clip: true
                    implicitHeight: Math.min(contentHeight, 300)
                    model: box.popup.visible ? box.delegateModel : null
                    currentIndex: box.highlightedIndex
                }
                background: Rectangle {
                    radius: 7
                    color: "#2a2a30"
                    border.color: Qt.rgba(1, 1, 1, 0.14)
                    border.width: 1
                }
            }
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
