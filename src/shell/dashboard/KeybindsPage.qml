import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// The keybinds page: the trigger key with its recording and test, the moves, and the commands
// to bind in the desktop's own shortcut settings.
ScrollView {
    id: root

    required property KeybindsPageViewModel page
    required property AppStrings strings

    contentWidth: availableWidth
    clip: true
    // A recording left behind would keep the trigger silent.
    onVisibleChanged: if (!visible && page) page.cancel()
    Connections {
        target: root.Window.window
        function onVisibleChanged() { if (!root.Window.window.visible && root.page) root.page.cancel() }
    }

    component SectionTitle: Label {
        color: "#b0b0b8"
        font.pixelSize: 12
        font.weight: Font.DemiBold
        Layout.topMargin: 14
    }

    // A move's row: its symbol, its name and, where the desktop binds it, the chord.
    component MoveRow: RowLayout {
        id: move
        property string symbol
        property string label
        property string chord
        spacing: 10
        Layout.fillWidth: true
        Icon { name: move.symbol; size: 18; color: "#d0d0d5"; Layout.preferredWidth: 20 }
        Label { text: move.label; color: "white"; font.pixelSize: 13; Layout.fillWidth: true; Accessible.name: text }
        Label {
            text: move.chord
            visible: text.length > 0
            color: "#b0b0b8"
            font.pixelSize: 12
            font.family: "monospace"
            Accessible.name: move.label + " " + text
        }
    }

    ColumnLayout {
        width: root.availableWidth
        spacing: 8

        PageHeader {
            title: root.strings.text("sidebar.keybinds")
            subtitle: root.strings.text("keybinds.subtitle")
        }

        SectionTitle { text: root.strings.text("keybinds.section_general") }
        RowLayout {
            spacing: 10
            Layout.fillWidth: true
            Label {
                text: root.strings.text("keybinds.trigger_ai")
                color: "white"
                font.pixelSize: 13
                Layout.fillWidth: true
            }
            Rectangle {
                radius: 5
                color: root.page.isRecording ? "#3a3a78" : "#2e2e36"
                border.color: root.page.isRecording ? "#8a8af0" : "#44444c"
                implicitWidth: Math.max(110, keyName.implicitWidth + 24)
                implicitHeight: 30
                Label {
                    id: keyName
                    anchors.centerIn: parent
                    text: root.page.isRecording ? "…" : root.page.triggerKeyName
                    color: "white"
                    font.pixelSize: 13
                    font.weight: Font.DemiBold
                    Accessible.name: root.strings.text("keybinds.trigger_ai") + " " + root.page.triggerKeyName
                }
            }
        }
        RowLayout {
            spacing: 8
            PageButton {
                text: root.strings.text("keybinds.change_key")
                visible: !root.page.isRecording && !root.page.isTesting
                onClicked: root.page.startKeyRecording()
            }
            PageButton {
                text: root.strings.text("keybinds.cancel")
                visible: root.page.isRecording || root.page.isTesting
                onClicked: root.page.cancel()
            }
            PageButton {
                text: root.strings.text("keybinds.reset_default")
                enabled: !root.page.isRecording
                onClicked: root.page.resetToDefault()
            }
            PageButton {
                text: root.strings.text("keybinds.test_key")
                visible: !root.page.isRecording
                enabled: !root.page.isTesting
                onClicked: root.page.startTest()
            }
        }
        RowLayout {
            spacing: 6
            visible: root.page.statusKey.length > 0
            Icon {
                name: root.page.isBlocked ? "exclamationmark.triangle.fill" : "checkmark.circle.fill"
                visible: root.page.isBlocked || root.page.testSucceeded
                color: root.page.isBlocked ? "#f0a040" : "#50c878"
                size: 16
            }
            Label {
                text: root.strings.text(root.page.statusKey)
                color: root.page.isBlocked ? "#f0a040" : root.page.testSucceeded ? "#50c878" : "#d0d0d5"
                font.pixelSize: 13
                Accessible.name: text
            }
        }
        Label {
            text: root.page.boundTriggerText
            visible: text.length > 0
            color: "#d0d0d5"
            font.pixelSize: 12
            Accessible.name: text
        }
        Label {
            text: root.strings.text("keybinds.bound_chord_note")
            visible: root.page.boundTriggerText.length > 0
            color: "#9a9aa2"
            font.pixelSize: 11
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }

        SectionTitle { text: root.strings.text("keybinds.section_navigate") }
        MoveRow {
            symbol: "arrow.up.circle"; label: root.strings.text("keybinds.select_question_up")
            chord: root.page.boundChords["select-up"] || ""
        }
        MoveRow {
            symbol: "arrow.down.circle"; label: root.strings.text("keybinds.select_question_down")
            chord: root.page.boundChords["select-down"] || ""
        }
        MoveRow {
            symbol: "arrow.left.circle"; label: root.strings.text("keybinds.prev_answer")
            chord: root.page.boundChords["previous-answer"] || ""
        }
        MoveRow {
            symbol: "arrow.right.circle"; label: root.strings.text("keybinds.next_answer")
            chord: root.page.boundChords["next-answer"] || ""
        }

        SectionTitle { text: root.strings.text("keybinds.section_commands") }
        Label {
            text: root.strings.text("keybinds.commands_hint")
            color: "#9a9aa2"
            font.pixelSize: 12
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }
        Repeater {
            model: root.page.commands
            delegate: RowLayout {
                id: commandRow
                required property var modelData
                required property int index
                readonly property string label: root.strings.text(modelData.labelKey)
                spacing: 8
                Layout.fillWidth: true
                Label { text: commandRow.label; color: "white"; font.pixelSize: 12; Layout.preferredWidth: 180 }
                PageTextField {
                    text: commandRow.modelData.command
                    LayoutMirroring.enabled: false // a command reads left to right in every language
                    readOnly: true
                    selectByMouse: true
                    font.family: "monospace"
                    font.pixelSize: 11
                    Layout.fillWidth: true
                    Accessible.name: commandRow.label + " " + text
                }
                PageIconButton {
                    symbol: "doc.on.doc"
                    Accessible.name: root.strings.text("keybinds.copy") + " " + commandRow.label
                    ToolTip.visible: hovered
                    ToolTip.text: root.strings.text("keybinds.copy")
                    onClicked: root.page.copyCommand(commandRow.index)
                }
            }
        }
        RowLayout {
            spacing: 8
            visible: root.page.gnomeShortcuts !== null && root.page.gnomeShortcuts.available
            PageButton {
                text: root.strings.text("keybinds.gnome_add")
                enabled: !root.page.gnomeShortcuts || !root.page.gnomeShortcuts.added
                onClicked: gnomeConfirm.open()
            }
            Label {
                text: root.strings.text("keybinds.gnome_added")
                visible: root.page.gnomeShortcuts !== null && root.page.gnomeShortcuts.added
                color: "#50c878"
                font.pixelSize: 12
                Accessible.name: text
            }
        }
        Item { Layout.preferredHeight: 8 }
    }

    // Changing the desktop's own shortcuts is the user's call, asked here first.
    Dialog {
        id: gnomeConfirm
        parent: root.Window.window ? root.Window.window.contentItem : root
        anchors.centerIn: parent
        modal: true
        width: 380
        contentItem: Label {
            text: root.strings.text("keybinds.gnome_confirm")
            wrapMode: Text.WordWrap
            color: "white"
            Accessible.name: text
        }
        footer: DialogButtonBox {
            PageButton {
                text: root.strings.text("keybinds.gnome_add_button")
                DialogButtonBox.buttonRole: DialogButtonBox.AcceptRole
            }
            PageButton {
                text: root.strings.text("keybinds.cancel")
                DialogButtonBox.buttonRole: DialogButtonBox.RejectRole
            }
        }
        onAccepted: root.page.gnomeShortcuts.add()
    }
}
