import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// The general page: answers, privacy, the overlay's look, the rights and the status.
ScrollView {
    id: root

    required property GeneralPageViewModel page
    required property AppStrings strings

    contentWidth: availableWidth
    // Said outright: the status rows at the end appear later, and the page must scroll to them.
    contentHeight: column.implicitHeight
    clip: true
    // The rights may have changed in the desktop's settings since the page was last shown.
    onVisibleChanged: if (visible) page.refreshRights()
    Component.onCompleted: page.refreshRights()

    component SectionTitle: Label {
        color: "#b0b0b8"
        font.pixelSize: 12
        font.weight: Font.DemiBold
        Layout.topMargin: 14
    }

    component Toggle: Switch {
        id: toggle
        Layout.fillWidth: true
        font.pixelSize: 13
        Accessible.name: text
        contentItem: Label {
            text: toggle.text
            color: "white"
            font: toggle.font
            verticalAlignment: Text.AlignVCenter
            leftPadding: toggle.mirrored ? 0 : toggle.indicator.width + toggle.spacing
            rightPadding: toggle.mirrored ? toggle.indicator.width + toggle.spacing : 0
        }
    }

    component ValueSlider: RowLayout {
        id: valueRow
        property string label
        property var range: [0, 1, 0.1]
        property real value
        property string valueText
        signal moved(real value)
        spacing: 12
        Label { text: valueRow.label; color: "white"; font.pixelSize: 13; Layout.preferredWidth: 120 }
        Slider {
            from: valueRow.range[0]
            to: valueRow.range[1]
            stepSize: valueRow.range[2]
            snapMode: Slider.SnapAlways
            value: valueRow.value
            Layout.preferredWidth: 180
            Accessible.name: valueRow.label
            onMoved: valueRow.moved(value)
        }
        Label { text: valueRow.valueText; color: "white"; font.pixelSize: 13; Accessible.name: valueRow.label + " " + text }
    }

    ColumnLayout {
        id: column
        width: root.availableWidth
        spacing: 6

        PageHeader {
            title: root.strings.text("sidebar.general")
            subtitle: root.strings.text("general.subtitle")
        }

        Toggle {
            text: root.strings.text("label.auto_trigger")
            checked: root.page.autoTrigger
            onToggled: root.page.autoTrigger = checked
        }

        SectionTitle { text: root.strings.text("section.privacy") }
        Toggle {
            text: root.strings.text("label.anonymous_telemetry")
            checked: root.page.sendTelemetry
            onToggled: root.page.sendTelemetry = checked
        }
        Label {
            text: root.strings.text("label.anonymous_telemetry_desc")
            color: "#b0b0b8"
            font.pixelSize: 11
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }

        SectionTitle { text: root.strings.text("label.overlay_display") }
        ValueSlider {
            label: root.strings.text("label.opacity")
            range: root.page.opacityRange
            value: root.page.overlayOpacity
            valueText: root.page.opacityText
            onMoved: value => root.page.overlayOpacity = value
        }
        ValueSlider {
            label: root.strings.text("label.font")
            range: root.page.fontSizeRange
            value: root.page.overlayFontSize
            valueText: root.page.fontSizeText
            onMoved: value => root.page.overlayFontSize = value
        }

        SectionTitle { text: root.strings.text("label.permissions_required") }
        PermissionRow {
            Layout.fillWidth: true
            icon: "rectangle.dashed.badge.record"
            title: root.strings.text("label.screen_recording")
            description: root.strings.text("label.screen_recording_desc")
            isGranted: root.page.screenPermission
            buttonLabel: root.strings.text("btn.open_settings")
            grantedLabel: root.strings.text("label.granted")
            onAction: root.page.openSystemAudioSettings()
        }
        PermissionRow {
            Layout.fillWidth: true
            icon: "keyboard"
            title: root.strings.text("label.accessibility")
            description: root.strings.text(root.page.keysDescriptionKey)
            note: root.page.keysNoteKey.length > 0 ? root.strings.text(root.page.keysNoteKey) : ""
            isGranted: root.page.accessibilityPermission
            buttonLabel: root.page.keysButtonKey.length > 0 ? root.strings.text(root.page.keysButtonKey) : ""
            grantedLabel: root.strings.text("label.granted")
            onAction: root.page.openKeysSettings()
        }
        Label {
            visible: root.page.settingsHintKey.length > 0
            text: root.page.settingsHintKey.length > 0 ? root.strings.text(root.page.settingsHintKey) : ""
            color: "#ffcc00"
            font.pixelSize: 11
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
            Accessible.name: text
        }

        RowLayout {
            spacing: 8
            Layout.topMargin: 14
            Rectangle { width: 10; height: 10; radius: 5; color: root.page.statusColor }
            Label {
                text: root.page.statusText
                color: "white"
                font.pixelSize: 13
                Accessible.name: text
            }
        }
        RowLayout {
            visible: root.page.lastIssueText.length > 0
            spacing: 8
            Layout.fillWidth: true
            Icon { name: "exclamationmark.triangle.fill"; size: 16; color: "#ffcc00" }
            Label {
                text: root.page.lastIssueText
                color: "#ffcc00"
                font.pixelSize: 12
                wrapMode: Text.WordWrap
                Layout.fillWidth: true
                Accessible.name: text
            }
        }
    }
}
