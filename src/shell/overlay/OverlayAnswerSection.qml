import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Ravlet.Shell

// The lower area: the selected answer (or what stands in for it) and the bar that pages
// through the answers and asks for a new one.
Item {
    id: section

    required property OverlayViewModel overlay
    readonly property AppStrings strings: overlay.strings
    property real fontSize: 14

    readonly property color answerGreen: Qt.rgba(0.2, 0.78, 0.35, 0.9)

    component ChevronButton: AbstractButton {
        id: chevron
        property string symbol
        property string label
        focusPolicy: Qt.NoFocus
        implicitWidth: 20
        implicitHeight: 28
        // Dimmed at either end, where it has nowhere to go.
        opacity: enabled ? 1 : 0.35
        Accessible.name: label
        Accessible.onPressAction: clicked()
        contentItem: Icon {
            name: chevron.symbol
            size: 10
            font.weight: Font.DemiBold
            color: Qt.rgba(1, 1, 1, 0.6)
        }
        background: Rectangle {
            radius: 4
            color: Qt.rgba(1, 1, 1, chevron.down ? 0.25 : 0.15)
        }
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 8
        spacing: 6

        Item {
            Layout.fillWidth: true
            Layout.fillHeight: true
            // In line with the transcript above.
            Layout.leftMargin: 8
            Layout.rightMargin: 8

            Column {
                objectName: "answerPlaceholder"
                anchors.centerIn: parent
                spacing: 6
                visible: section.overlay.answerState === OverlayViewModel.AnswerState.placeholder
                Icon {
                    name: "sparkles"
                    size: 20
                    color: Qt.rgba(1, 1, 1, 0.3)
                    anchors.horizontalCenter: parent.horizontalCenter
                }
                Text {
                    text: section.strings.text("overlay.empty_placeholder")
                    color: Qt.rgba(1, 1, 1, 0.4)
                    font.pixelSize: 12
                    anchors.horizontalCenter: parent.horizontalCenter
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }

            Text {
                objectName: "answerGenerating"
                anchors.centerIn: parent
                visible: section.overlay.answerState === OverlayViewModel.AnswerState.generating
                text: section.strings.text("overlay.generating")
                color: Qt.rgba(1, 1, 1, 0.4)
                font.pixelSize: 12
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }

            // One page per answer; the selected one is in view. Only pages in view are built.
            ListView {
                id: pages
                objectName: "answerPages"
                anchors.fill: parent
                visible: section.overlay.answerState === OverlayViewModel.AnswerState.answer
                clip: true
                orientation: ListView.Horizontal
                interactive: false
                highlightRangeMode: ListView.StrictlyEnforceRange
                preferredHighlightBegin: 0
                preferredHighlightEnd: width
                highlightMoveDuration: 0
                currentIndex: section.overlay.selectedAnswerIndex
                model: section.overlay.answers

                delegate: Flickable {
                    id: page
                    required property string answer
                    required property bool isStreaming
                    width: pages.width
                    height: pages.height
                    contentWidth: width
                    contentHeight: answerText.implicitHeight
                    boundsBehavior: Flickable.StopAtBounds
                    clip: true

                    TextEdit {
                        id: answerText
                        objectName: "answerText"
                        width: page.width
                        text: page.answer
                        readOnly: true
                        selectByMouse: true
                        activeFocusOnPress: false
                        wrapMode: TextEdit.Wrap
                        color: section.answerGreen
                        selectionColor: Qt.rgba(0.2, 0.78, 0.35, 0.35)
                        font.pixelSize: section.fontSize
                        Accessible.role: Accessible.StaticText
                        Accessible.name: text
                        onTextChanged: section.overlay.setLineSpacing(textDocument, section.fontSize / 2)
                        Component.onCompleted: section.overlay.setLineSpacing(textDocument, section.fontSize / 2)
                    }

                    // While the answer streams in, its end stays in view.
                    NumberAnimation {
                        id: toBottom
                        target: page
                        property: "contentY"
                        duration: 300
                        easing.type: Easing.OutQuad
                    }
                    onContentHeightChanged: {
                        if (!isStreaming || contentHeight <= height)
                            return;
                        toBottom.stop();
                        toBottom.to = contentHeight - height;
                        toBottom.start();
                    }
                }
            }
        }

        // The answer bar.
        RowLayout {
            Layout.fillWidth: true
            spacing: 6

            Icon {
                name: "wand.and.sparkles"
                size: 11
                color: Qt.rgba(0.2, 0.78, 0.35, 0.5)
            }
            // The chevrons point the way they move; in a mirrored layout earlier answers lie
            // to the right.
            ChevronButton {
                objectName: "previousAnswerButton"
                symbol: LayoutMirroring.enabled ? "chevron.right" : "chevron.left"
                label: section.strings.text("overlay.previous_answer")
                enabled: section.overlay.hasPreviousAnswer
                onClicked: section.overlay.selectPreviousAnswer()
            }
            Text {
                objectName: "answerPosition"
                text: section.overlay.positionText
                color: Qt.rgba(1, 1, 1, 0.4)
                font.pixelSize: 10
                leftPadding: 8
                rightPadding: 8
                topPadding: 4
                bottomPadding: 4
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }
            ChevronButton {
                objectName: "nextAnswerButton"
                symbol: LayoutMirroring.enabled ? "chevron.left" : "chevron.right"
                label: section.strings.text("overlay.next_answer")
                enabled: section.overlay.hasNextAnswer
                onClicked: section.overlay.selectNextAnswer()
            }

            Item { Layout.fillWidth: true }

            AbstractButton {
                id: trigger
                objectName: "triggerButton"
                visible: section.overlay.canTrigger
                focusPolicy: Qt.NoFocus
                leftPadding: 10
                rightPadding: 10
                topPadding: 4
                bottomPadding: 4
                Accessible.name: section.strings.text("overlay.ai_btn")
                Accessible.onPressAction: clicked()
                onClicked: section.overlay.triggerAnswer()
                contentItem: Row {
                    spacing: 4
                    Icon {
                        name: "sparkles"
                        size: 10
                        color: section.answerGreen
                        anchors.verticalCenter: parent.verticalCenter
                    }
                    Text {
                        text: section.strings.text("overlay.ai_btn")
                        font.pixelSize: 11
                        font.weight: Font.Medium
                        color: section.answerGreen
                        anchors.verticalCenter: parent.verticalCenter
                    }
                }
                background: Rectangle {
                    radius: height / 2
                    color: Qt.rgba(0.2, 0.78, 0.35, trigger.down ? 0.1 : 0.2)
                }
            }
            Text {
                visible: trigger.visible
                text: section.strings.text("overlay.press")
                color: Qt.rgba(1, 1, 1, 0.4)
                font.pixelSize: 9
            }
            Text {
                objectName: "triggerKeyName"
                visible: trigger.visible
                text: section.overlay.triggerKeyName
                color: Qt.rgba(1, 1, 1, 0.55)
                font.pixelSize: 9
                font.family: "monospace"
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }
        }
    }
}
