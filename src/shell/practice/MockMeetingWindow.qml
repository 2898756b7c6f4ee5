import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtMultimedia
import Ravlet.Shell

// The practice call: the interviewer's tile and the user's camera side by side, and the
// control bar. MockMeetingViewModel decides; this only draws.
ApplicationWindow {
    id: window

    required property MockMeetingViewModel meeting
    readonly property AppStrings strings: meeting.strings

    width: 1000
    height: 620
    minimumWidth: 800
    minimumHeight: 500
    title: strings.text("mock.title")
    color: "#16161a"
    visible: true

    // The close button ends the session the same way "End Interview" does.
    onClosing: meeting.end()

    component Tile: Rectangle {
        id: tile
        property string name
        default property alias content: body.data
        radius: 12
        color: "#222228"
        clip: true
        Layout.fillWidth: true
        Layout.fillHeight: true
        Item { id: body; anchors.fill: parent }
        Label {
            text: tile.name
            color: "white"
            font.pixelSize: 13
            padding: 6
            anchors { left: parent.left; bottom: parent.bottom; margins: 10 }
            background: Rectangle { radius: 6; color: Qt.rgba(0, 0, 0, 0.5) }
            Accessible.name: text
        }
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 16
        spacing: 12

        RowLayout {
            spacing: 12
            Layout.fillWidth: true
            Layout.fillHeight: true

            Tile {
                objectName: "interviewerTile"
                name: window.strings.text("mock.meeting.interviewer_name")

                // The portrait breathes with the voice: louder speech, larger ring and picture.
                Rectangle {
                    id: ring
                    anchors.centerIn: parent
                    width: portrait.width + 16 + 40 * window.meeting.level
                    height: width
                    radius: width / 2
                    color: "transparent"
                    border.color: "#3b6ff0"
                    border.width: 2 + 6 * window.meeting.level
                    opacity: 0.3 + 0.7 * window.meeting.level
                    visible: portrait.visible
                }
                Image {
                    id: portrait
                    objectName: "portrait"
                    visible: window.meeting.avatarSource.length > 0
                    source: window.meeting.avatarSource
                    anchors.centerIn: parent
                    width: Math.min(parent.width, parent.height) * 0.55 * (1 + 0.08 * window.meeting.level)
                    height: width
                    fillMode: Image.PreserveAspectCrop
                    smooth: true
                }
                ColumnLayout {
                    visible: !portrait.visible
                    anchors.centerIn: parent
                    spacing: 10
                    Icon { name: "person.crop.circle.fill"; size: 96; color: "#80808a"; Layout.alignment: Qt.AlignHCenter }
                    Label {
                        text: window.strings.text("mock.avatar.generating")
                        color: "#d0d0d5"
                        font.pixelSize: 14
                        Layout.alignment: Qt.AlignHCenter
                        Accessible.name: text
                    }
                }
                PageIconButton {
                    symbol: "arrow.triangle.2.circlepath"
                    Accessible.name: window.strings.text("mock.avatar.regenerate")
                    anchors { right: parent.right; top: parent.top; margins: 10 }
                    onClicked: window.meeting.regenerateAvatar()
                }
            }

            Tile {
                objectName: "cameraTile"
                name: window.strings.text("mock.meeting.you")

                VideoOutput {
                    id: preview
                    anchors.fill: parent
                    visible: !window.meeting.cameraUnavailable
                    fillMode: VideoOutput.PreserveAspectCrop
                    Component.onCompleted: {
                        const session = window.meeting.captureSession
                        if (session)
                            session.videoOutput = preview
                    }
                }
                Label {
                    visible: window.meeting.cameraUnavailable
                    text: window.strings.text("mock.error.camera_denied")
                    color: "#d0d0d5"
                    font.pixelSize: 14
                    wrapMode: Text.Wrap
                    horizontalAlignment: Text.AlignHCenter
                    anchors.centerIn: parent
                    width: parent.width - 48
                    Accessible.name: text
                }
            }
        }

        RowLayout {
            spacing: 12
            Layout.fillWidth: true

            Label {
                objectName: "progress"
                text: window.meeting.progressText
                color: "white"
                font.pixelSize: 14
                Accessible.name: text
                Layout.fillWidth: true
            }
            PageButton {
                symbol: "forward.fill"
                text: window.strings.text("mock.meeting.skip")
                enabled: window.meeting.canSkip
                onClicked: window.meeting.skip()
            }
            PageButton {
                symbol: "phone.down.fill"
                text: window.strings.text("mock.meeting.end")
                onClicked: window.meeting.end()
                background: Rectangle {
                    implicitWidth: 80
                    implicitHeight: 30
                    radius: 7
                    color: parent.down ? "#b0302a" : "#d0403a"
                }
            }
        }
    }
}
