import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Dialogs
import QtQuick.Layouts
import Ravlet.Shell

// The resume page: draws what ResumesViewModel says and forwards clicks and the chosen file.
Item {
    id: page

    required property ResumesViewModel resumes
    required property AppStrings strings

    LayoutMirroring.enabled: strings.isRightToLeft
    LayoutMirroring.childrenInherit: true

    // The list is loaded each time the page comes into view.
    onVisibleChanged: if (visible) resumes.load()
    Component.onCompleted: if (visible) resumes.load()

    FileDialog {
        id: fileDialog
        title: page.resumes.fileDialogTitle
        nameFilters: page.resumes.fileNameFilters
        fileMode: FileDialog.OpenFile
        onAccepted: page.resumes.uploadUrl(selectedFile)
    }

    component UploadButton: PageButton {
        accent: true
        text: page.resumes.uploadButtonText
        enabled: !page.resumes.isUploading
        Accessible.name: text
        Accessible.onPressAction: clicked()
        onClicked: {
            fileDialog.currentFolder = page.resumes.fileDialogFolder()
            fileDialog.open()
        }
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 10

        Label {
            text: page.strings.text("sidebar.resume")
            color: "white"
            font.pixelSize: 22
            font.weight: Font.Bold
        }
        Label {
            text: page.strings.text("resume.subtitle")
            color: "#b0b0b8"
            font.pixelSize: 13
        }
        Label {
            visible: text.length > 0
            text: page.resumes.errorMessage
            color: "#ff7b72"
            font.pixelSize: 12
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            Accessible.name: text
        }

        // One of four states, in the order the view model checks them.
        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: page.resumes.pageState

            ColumnLayout { // signed out
                spacing: 8
                Icon { name: "exclamationmark.triangle"; size: 28; color: "#f0c060"; Layout.alignment: Qt.AlignHCenter }
                Label {
                    text: page.strings.text("resume.sign_in_required")
                    color: "#d0d0d5"
                    Layout.alignment: Qt.AlignHCenter
                    Accessible.name: text
                }
                Item { Layout.fillHeight: true }
            }
            ColumnLayout { // loading
                BusyIndicator { running: page.resumes.isLoading; Layout.alignment: Qt.AlignHCenter }
                Label {
                    text: page.strings.text("resume.loading")
                    color: "#d0d0d5"
                    Layout.alignment: Qt.AlignHCenter
                }
                Item { Layout.fillHeight: true }
            }
            ColumnLayout { // empty
                spacing: 8
                Icon { name: "doc.badge.plus"; size: 36; color: "#7aa7ff"; Layout.alignment: Qt.AlignHCenter }
                Label {
                    text: page.strings.text("resume.no_resume")
                    color: "white"
                    font.pixelSize: 15
                    Layout.alignment: Qt.AlignHCenter
                }
                Label {
                    text: page.strings.text("resume.upload_hint")
                    color: "#b0b0b8"
                    wrapMode: Text.Wrap
                    horizontalAlignment: Text.AlignHCenter
                    Layout.fillWidth: true
                }
                UploadButton { Layout.alignment: Qt.AlignHCenter }
                Item { Layout.fillHeight: true }
            }
            ColumnLayout { // the list
                spacing: 8
                ListView {
                    id: list
                    model: page.resumes
                    spacing: 4
                    clip: true
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    delegate: ItemDelegate {
                        id: row
                        required property int index
                        required property string filename
                        required property bool isActive
                        required property string selectionSymbol
                        required property string uploadedText
                        required property string deleteName
                        width: ListView.view.width
                        Accessible.name: filename
                        Accessible.onPressAction: clicked()
                        onClicked: page.resumes.select(index)
                        background: Rectangle {
                            radius: 6
                            color: row.isActive ? Qt.rgba(0.48, 0.65, 1, 0.15) : Qt.rgba(1, 1, 1, 0.04)
                        }
                        contentItem: RowLayout {
                            spacing: 10
                            Icon { name: row.selectionSymbol; size: 18; color: row.isActive ? "#7aa7ff" : "#80808a" }
                            Icon { name: "doc.fill"; size: 18; color: "#d0d0d5" }
                            ColumnLayout {
                                spacing: 2
                                Layout.fillWidth: true
                                Label { text: row.filename; color: "white"; elide: Text.ElideMiddle; horizontalAlignment: Text.AlignLeft; Layout.fillWidth: true }
                                Label { text: row.uploadedText; color: "#b0b0b8"; font.pixelSize: 11 }
                            }
                            Label {
                                visible: row.isActive
                                text: page.strings.text("resume.active")
                                color: "#7aa7ff"
                                font.pixelSize: 11
                                Accessible.name: text
                            }
                            PageIconButton {
                                symbol: "trash"
                                Accessible.name: row.deleteName
                                onClicked: page.resumes.remove(row.index)
                            }
                        }
                    }
                }
                UploadButton {}
            }
        }
    }
}
