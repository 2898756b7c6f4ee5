import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// Greets a signed-out user: sign-in, the three rights, the terms, and once the notice about
// anonymous usage data.
Rectangle {
    id: view

    required property WelcomeViewModel welcome
    readonly property AuthViewModel auth: welcome.auth
    readonly property AppStrings strings: welcome.strings

    color: "#1c1c21"

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 28
        spacing: 14

        Icon {
            name: "waveform.and.person.filled"
            size: 44
            color: "#7aa7ff"
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 8
        }
        Label {
            text: view.strings.text("welcome.title")
            color: "white"
            font.pixelSize: 22
            font.weight: Font.Bold
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
            wrapMode: Text.WordWrap
        }
        Label {
            text: view.strings.text("welcome.subtitle")
            color: "#b0b0b8"
            font.pixelSize: 13
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
            wrapMode: Text.WordWrap
        }

        Button {
            id: signIn
            text: view.strings.text("menu.sign_in")
            enabled: !view.auth.isLoading
            font.pixelSize: 14
            font.weight: Font.DemiBold
            Layout.fillWidth: true
            Layout.preferredHeight: 38
            Accessible.name: text
            // Qt Quick Controls 6.4 reports a screen reader's press as done without clicking.
            Accessible.onPressAction: clicked()
            onClicked: view.welcome.signIn()
            contentItem: Label {
                text: signIn.text
                font: signIn.font
                color: "white"
                horizontalAlignment: Text.AlignHCenter
                verticalAlignment: Text.AlignVCenter
            }
            background: Rectangle {
                radius: 8
                color: signIn.down ? "#2f5fd0" : (signIn.enabled ? "#3b6ff0" : "#4a4a55")
            }
        }
        BusyIndicator {
            running: view.auth.isLoading
            visible: running
            Layout.alignment: Qt.AlignHCenter
            Layout.preferredHeight: 24
            Accessible.name: view.strings.text("welcome.loading")
        }
        Label {
            visible: text.length > 0
            text: view.auth.error
            color: "#ff6b61"
            font.pixelSize: 12
            wrapMode: Text.WordWrap
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
            Accessible.name: text
        }

        RowLayout {
            spacing: 6
            Layout.topMargin: 6
            Icon { name: "lock.shield"; size: 16; color: "#b0b0b8" }
            Label {
                text: view.strings.text("welcome.before_first")
                color: "#d0d0d5"
                font.pixelSize: 12
                font.weight: Font.DemiBold
                Layout.fillWidth: true
            }
        }

        PermissionRow {
            Layout.fillWidth: true
            icon: "rectangle.dashed.badge.record"
            title: view.strings.text("label.screen_recording")
            description: view.strings.text("label.screen_recording_desc")
            isGranted: view.welcome.screenPermission
            buttonLabel: view.strings.text("btn.open_settings")
            grantedLabel: view.strings.text("label.granted")
            onAction: view.welcome.openSystemAudioSettings()
        }
        PermissionRow {
            Layout.fillWidth: true
            icon: "mic.fill"
            title: view.strings.text("label.microphone")
            description: view.strings.text("label.microphone_desc")
            isGranted: view.welcome.micPermission
            buttonLabel: view.strings.text("btn.allow")
            grantedLabel: view.strings.text("label.granted")
            onAction: view.welcome.allowMicrophone()
        }
        PermissionRow {
            Layout.fillWidth: true
            icon: "keyboard"
            title: view.strings.text("label.accessibility")
            description: view.strings.text(view.welcome.keysDescriptionKey)
            note: view.welcome.keysNoteKey.length > 0 ? view.strings.text(view.welcome.keysNoteKey) : ""
            isGranted: view.welcome.accessibilityPermission
            buttonLabel: view.welcome.keysButtonKey.length > 0 ? view.strings.text(view.welcome.keysButtonKey) : ""
            grantedLabel: view.strings.text("label.granted")
            onAction: view.welcome.openKeysSettings()
        }
        Label {
            visible: text.length > 0
            text: view.welcome.settingsHintKey.length > 0 ? view.strings.text(view.welcome.settingsHintKey) : ""
            color: "#ffcc00"
            font.pixelSize: 11
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
            Accessible.name: text
        }

        Item { Layout.fillHeight: true }

        Label {
            text: view.strings.text("welcome.terms")
            color: "#8e8e93"
            font.pixelSize: 10
            wrapMode: Text.WordWrap
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
        }
    }

    // The notice about anonymous usage data, over the panel until the user answers it.
    Rectangle {
        anchors.fill: parent
        visible: view.welcome.showTelemetryNotice
        color: "#b3000000"

        MouseArea { anchors.fill: parent } // the panel below waits for an answer

        Rectangle {
            anchors.centerIn: parent
            width: parent.width - 56
            height: notice.implicitHeight + 40
            radius: 12
            color: "#2a2a31"
            border.color: "#3d3d46"

            ColumnLayout {
                id: notice
                anchors.fill: parent
                anchors.margins: 20
                spacing: 12

                Label {
                    text: view.strings.text("welcome.telemetry_notice_title")
                    color: "white"
                    font.pixelSize: 16
                    font.weight: Font.Bold
                    wrapMode: Text.WordWrap
                    Layout.fillWidth: true
                }
                Label {
                    text: view.strings.text("welcome.telemetry_notice_body")
                    color: "#d0d0d5"
                    font.pixelSize: 12
                    wrapMode: Text.WordWrap
                    Layout.fillWidth: true
                }
                RowLayout {
                    spacing: 10
                    Layout.fillWidth: true
                    Item { Layout.fillWidth: true }
                    Button {
                        text: view.strings.text("welcome.telemetry_turn_off")
                        Accessible.name: text
                        Accessible.onPressAction: clicked()
                        onClicked: view.welcome.turnOffTelemetry()
                    }
                    Button {
                        text: view.strings.text("welcome.telemetry_accept")
                        highlighted: true
                        Accessible.name: text
                        Accessible.onPressAction: clicked()
                        onClicked: view.welcome.acceptTelemetry()
                    }
                }
            }
        }
    }
}
