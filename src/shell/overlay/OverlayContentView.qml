import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Window
import Ravlet.Shell

// The overlay's content: the top bar, the transcript, the divider and the answer. Everything
// shown comes from the overlay's view model; this file only draws it and passes input back.
Item {
    id: view

    required property OverlayViewModel overlay
    readonly property AppStrings strings: overlay.strings
    property Window hostWindow

    readonly property int topBarHeight: 36
    readonly property int dividerHeight: 9
    // The top bar's trailing controls, which the resume tip's arrow is aimed by.
    readonly property int iconButtonSize: 22
    readonly property int barSpacing: 8
    readonly property int barEndMargin: 10
    readonly property int tipEndInset: 60
    readonly property real fontSize: overlay.fontSize
    // The two areas share what the bar and the divider leave.
    readonly property real areasHeight: Math.max(0, height - topBarHeight - dividerHeight)

    Binding {
        target: view.overlay
        property: "areasHeight"
        value: view.areasHeight
    }

    component OverlayIconButton: AbstractButton {
        id: iconButton
        property string symbol
        property real symbolSize: 11
        property string toolTip
        focusPolicy: Qt.NoFocus
        implicitWidth: view.iconButtonSize
        implicitHeight: view.iconButtonSize
        Accessible.name: toolTip
        // A screen reader's press clicks (Qt Quick Controls 6.4 reports it done without one).
        Accessible.onPressAction: clicked()
        ToolTip.visible: toolTip.length > 0 && hovered
        ToolTip.text: toolTip
        ToolTip.delay: 500
        contentItem: Icon {
            name: iconButton.symbol
            size: iconButton.symbolSize
            color: Qt.rgba(1, 1, 1, iconButton.down ? 0.8 : 0.5)
        }
        background: Item {}
    }

    // The panel's own background: the window is clear, and the user's opacity applies here.
    Rectangle {
        anchors.fill: parent
        radius: 12
        color: "#16161b"
        opacity: view.overlay.panelOpacity
        border.color: Qt.rgba(1, 1, 1, 0.08)
    }

    // Top bar: the handle that moves the panel, the status and the controls.
    Item {
        id: topBar
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: parent.top
        height: view.topBarHeight

        // Rounded at the top with the panel, square below.
        Item {
            anchors.fill: parent
            clip: true
            Rectangle {
                width: parent.width
                height: parent.height + radius
                radius: 12
                color: Qt.rgba(1, 1, 1, 0.03)
            }
        }

        // The only handle for moving the panel. The window manager moves it where it can;
        // without one the window follows the pointer by hand.
        MouseArea {
            id: dragArea
            anchors.fill: parent
            property point pressedAt
            property point windowAt
            property bool movesByHand: false
            Accessible.role: Accessible.Grip
            Accessible.name: view.strings.text("overlay.move")
            onPressed: mouse => {
                movesByHand = !(view.hostWindow && view.hostWindow.startSystemMove());
                pressedAt = mapToGlobal(mouse.x, mouse.y);
                windowAt = view.hostWindow ? Qt.point(view.hostWindow.x, view.hostWindow.y) : Qt.point(0, 0);
            }
            onPositionChanged: mouse => {
                if (!movesByHand || !view.hostWindow)
                    return;
                const now = mapToGlobal(mouse.x, mouse.y);
                view.hostWindow.x = windowAt.x + now.x - pressedAt.x;
                view.hostWindow.y = windowAt.y + now.y - pressedAt.y;
            }
        }

        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 12
            anchors.rightMargin: view.barEndMargin
            spacing: view.barSpacing

            Rectangle {
                objectName: "statusDot"
                Layout.preferredWidth: 7
                Layout.preferredHeight: 7
                radius: 3.5
                color: view.overlay.statusColor
            }
            Label {
                objectName: "statusText"
                text: view.overlay.statusMessage
                color: Qt.rgba(1, 1, 1, 0.75)
                font.pixelSize: 11
                font.weight: Font.Medium
                elide: Text.ElideRight
                Layout.fillWidth: true
                Accessible.name: text
            }
            AbstractButton {
                id: startStop
                objectName: "startStopButton"
                focusPolicy: Qt.NoFocus
                Accessible.name: view.overlay.startStopText
                Accessible.onPressAction: clicked()
                leftPadding: 8
                rightPadding: 8
                topPadding: 3
                bottomPadding: 3
                onClicked: view.overlay.toggleInterview()
                contentItem: Row {
                    spacing: 4
                    Icon {
                        name: view.overlay.startStopIcon
                        size: 9
                        font.weight: Font.DemiBold
                        color: Qt.rgba(1, 1, 1, 0.85)
                        anchors.verticalCenter: parent.verticalCenter
                    }
                    Text {
                        text: view.overlay.startStopText
                        font.pixelSize: 10
                        font.weight: Font.DemiBold
                        color: Qt.rgba(1, 1, 1, 0.85)
                        anchors.verticalCenter: parent.verticalCenter
                    }
                }
                background: Rectangle {
                    radius: height / 2
                    color: view.overlay.isRecording ? Qt.rgba(1, 0.23, 0.19, startStop.down ? 0.55 : 0.7)
                                                    : Qt.rgba(1, 1, 1, startStop.down ? 0.1 : 0.15)
                }
            }
            OverlayIconButton {
                id: resumeButton
                objectName: "resumeButton"
                symbol: "doc.text.fill"
                symbolSize: 11
                toolTip: view.strings.text("sidebar.resume")
                onClicked: view.overlay.openResume()
            }
            OverlayIconButton {
                objectName: "jobDescriptionButton"
                symbol: "briefcase.fill"
                symbolSize: 11
                toolTip: view.strings.text("sidebar.jobDescription")
                onClicked: view.overlay.openJobDescription()
            }
            OverlayIconButton {
                objectName: "settingsButton"
                symbol: "gearshape"
                symbolSize: 12
                Accessible.name: view.strings.text("menu.settings")
                onClicked: view.overlay.openSettings()
            }
            OverlayIconButton {
                objectName: "closeButton"
                symbol: "xmark.circle.fill"
                symbolSize: 14
                Accessible.name: view.strings.text("menu.hide_overlay")
                onClicked: view.overlay.closeOverlay()
            }
        }
    }

    // Upper area: the transcript, newest at the bottom.
    Item {
        id: upperArea
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: topBar.bottom
        height: view.overlay.upperHeight
        clip: true

        ListView {
            id: transcript
            objectName: "transcriptList"
            anchors.fill: parent
            anchors.leftMargin: 12
            anchors.rightMargin: 12
            topMargin: 4
            bottomMargin: 4
            spacing: 4
            boundsBehavior: Flickable.StopAtBounds
            model: view.overlay.transcriptRows
            visible: !view.overlay.showsHint
            // Rows are the list's children for a screen reader, not loose labels of the window.
            Accessible.role: Accessible.List
            Accessible.name: view.strings.text("overlay.transcript")

            delegate: Rectangle {
                id: row
                required property string content
                required property bool isSelected
                required property real rowOpacity
                width: ListView.view.width
                height: rowLayout.implicitHeight + 4
                radius: 6
                color: isSelected ? Qt.rgba(1, 0.8, 0, 0.1) : "transparent"
                opacity: rowOpacity
                Accessible.role: Accessible.StaticText
                Accessible.name: content
                Accessible.selected: isSelected

                RowLayout {
                    id: rowLayout
                    anchors.fill: parent
                    anchors.leftMargin: 4
                    anchors.rightMargin: 4
                    anchors.topMargin: 2
                    anchors.bottomMargin: 2
                    spacing: 6
                    Text {
                        text: view.strings.text("overlay.speaker_q")
                        font.pixelSize: view.fontSize
                        font.bold: true
                        color: row.isSelected ? "#ffcc00" : Qt.rgba(0.2, 0.68, 0.9, 0.6)
                        horizontalAlignment: Text.AlignHCenter
                        Layout.preferredWidth: 14
                        Layout.alignment: Qt.AlignTop
                    }
                    TextEdit {
                        text: row.content
                        readOnly: true
                        selectByMouse: true
                        activeFocusOnPress: false
                        wrapMode: TextEdit.Wrap
                        color: "white"
                        selectionColor: Qt.rgba(0.2, 0.68, 0.9, 0.5)
                        font.pixelSize: view.fontSize
                        Layout.fillWidth: true
                        Layout.alignment: Qt.AlignTop
                    }
                }
            }

            // Programmatic scrolls glide; the user's own drags and flicks do not.
            Behavior on contentY {
                enabled: !transcript.moving
                NumberAnimation { duration: 200; easing.type: Easing.InOutQuad }
            }

            // A new or changed line brings the newest into view, even while a question is
            // selected; moving the selection brings the selected question into view. Rows
            // settle their height only after they are laid out (their text wraps), so the list
            // keeps to its end while it follows the newest, until the user or the selection
            // moves it.
            property bool followsNewest: true
            function showNewest() {
                followsNewest = true
                positionViewAtEnd()
            }
            function showSelected() {
                followsNewest = false
                if (view.overlay.transcriptRows.selectedRow >= 0)
                    positionViewAtIndex(view.overlay.transcriptRows.selectedRow, ListView.Contain);
            }
            onCountChanged: Qt.callLater(showNewest)
            onContentHeightChanged: if (followsNewest) Qt.callLater(showNewest)
            onOriginYChanged: if (followsNewest) Qt.callLater(showNewest)
            onMovementStarted: followsNewest = false
            Connections {
                target: view.overlay.transcriptRows
                function onDataChanged() { Qt.callLater(transcript.showNewest) }
                function onSelectedRowChanged() { Qt.callLater(transcript.showSelected) }
            }
        }

        Text {
            objectName: "transcriptHint"
            visible: view.overlay.showsHint
            anchors.centerIn: parent
            width: parent.width - 40
            text: view.overlay.hintText
            color: Qt.rgba(1, 1, 1, 0.4)
            font.pixelSize: 12
            wrapMode: Text.WordWrap
            horizontalAlignment: Text.AlignHCenter
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }
    }

    // The divider between the two areas: drag it to share the height differently.
    Item {
        id: divider
        objectName: "divider"
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: upperArea.bottom
        height: view.dividerHeight
        Accessible.role: Accessible.Separator
        Accessible.name: view.strings.text("overlay.resize_areas")

        Rectangle {
            anchors.verticalCenter: parent.verticalCenter
            width: parent.width
            height: 1
            color: Qt.rgba(1, 1, 1, view.overlay.isDragging ? 0.2 : 0.08)
        }
        MouseArea {
            anchors.fill: parent
            cursorShape: Qt.SizeVerCursor
            preventStealing: true
            property real startHeight: 0
            property real pressedY: 0
            onPressed: mouse => {
                startHeight = upperArea.height;
                pressedY = mapToGlobal(mouse.x, mouse.y).y;
            }
            onPositionChanged: mouse => {
                if (pressed)
                    view.overlay.dragDivider(startHeight, mapToGlobal(mouse.x, mouse.y).y - pressedY,
                                             view.areasHeight);
            }
            onReleased: view.overlay.endDividerDrag()
            onCanceled: view.overlay.endDividerDrag()
        }
    }

    OverlayAnswerSection {
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: divider.bottom
        anchors.bottom: parent.bottom
        overlay: view.overlay
        fontSize: view.fontSize
    }

    // The tip that asks for a resume, pointing at the resume button.
    Item {
        id: resumeTip
        objectName: "resumeTip"
        anchors.top: parent.top
        anchors.topMargin: view.topBarHeight + 1
        anchors.right: parent.right
        anchors.rightMargin: view.tipEndInset
        width: 180
        height: tipText.implicitHeight + bubble.arrowHeight + 8 + 6
        visible: opacity > 0
        opacity: view.overlay.showResumeTip ? 1 : 0
        scale: view.overlay.showResumeTip ? 1 : 0.9
        transformOrigin: LayoutMirroring.enabled ? Item.TopLeft : Item.TopRight
        Accessible.role: Accessible.StaticText
        Accessible.name: tipText.text

        Behavior on opacity {
            NumberAnimation {
                duration: view.overlay.showResumeTip ? 250 : 150
                easing.type: view.overlay.showResumeTip ? Easing.InQuad : Easing.OutQuad
            }
        }
        Behavior on scale {
            NumberAnimation {
                duration: view.overlay.showResumeTip ? 250 : 150
                easing.type: view.overlay.showResumeTip ? Easing.InQuad : Easing.OutQuad
            }
        }

        BubbleShape {
            id: bubble
            anchors.fill: parent
            // Over the middle of the resume button, the fourth control from the bar's end.
            arrowOffset: view.barEndMargin + 3 * (view.iconButtonSize + view.barSpacing)
                         + view.iconButtonSize / 2 - view.tipEndInset
        }
        Text {
            id: tipText
            anchors.left: parent.left
            anchors.right: parent.right
            anchors.top: parent.top
            anchors.leftMargin: 10
            anchors.rightMargin: 10
            anchors.topMargin: bubble.arrowHeight + 8
            text: view.strings.text("overlay.resume_tip")
            color: Qt.rgba(1, 1, 1, 0.85)
            font.pixelSize: 10
            font.weight: Font.Medium
            wrapMode: Text.WordWrap
        }
        TapHandler {
            onTapped: view.overlay.dismissResumeTip()
        }
    }
}
