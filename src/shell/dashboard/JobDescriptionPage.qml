import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Ravlet.Shell

// The job description page: the list, and the add form in place of it while open. Draws what
// JobDescriptionsViewModel says and forwards input.
Item {
    id: page

    required property JobDescriptionsViewModel jobs
    required property AppStrings strings

    LayoutMirroring.enabled: strings.isRightToLeft
    LayoutMirroring.childrenInherit: true

    onVisibleChanged: if (visible) jobs.load()
    Component.onCompleted: if (visible) jobs.load()

    component AddButton: PageButton {
        accent: true
        text: page.strings.text("jd.add")
        onClicked: page.jobs.openForm()
    }
    component FieldLabel: Label {
        color: "#d0d0d5"
        font.pixelSize: 12
        // The field below carries the same name; the label alone would be found first.
        Accessible.ignored: true
        Accessible.name: ""
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 10

        Label {
            text: page.strings.text("sidebar.jobDescription")
            color: "white"
            font.pixelSize: 22
            font.weight: Font.Bold
        }
        Label {
            visible: text.length > 0
            text: page.jobs.errorMessage
            color: "#ff7b72"
            font.pixelSize: 12
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            Accessible.name: text
        }

        // The form, or one of the four states in the order the view model checks them.
        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: page.jobs.isFormOpen ? 4 : page.jobs.pageState

            ColumnLayout { // signed out
                spacing: 8
                Icon { name: "exclamationmark.triangle"; size: 28; color: "#f0c060"; Layout.alignment: Qt.AlignHCenter }
                Label {
                    text: page.strings.text("jd.sign_in_required")
                    color: "#d0d0d5"
                    Layout.alignment: Qt.AlignHCenter
                    Accessible.name: text
                }
                Item { Layout.fillHeight: true }
            }
            ColumnLayout { // loading
                BusyIndicator { running: page.jobs.isLoading; Layout.alignment: Qt.AlignHCenter }
                Label {
                    text: page.strings.text("jd.loading")
                    color: "#d0d0d5"
                    Layout.alignment: Qt.AlignHCenter
                }
                Item { Layout.fillHeight: true }
            }
            ColumnLayout { // empty
                spacing: 8
                Icon { name: "briefcase.fill"; size: 36; color: "#7aa7ff"; Layout.alignment: Qt.AlignHCenter }
                Label {
                    text: page.strings.text("jd.no_jd")
                    color: "white"
                    font.pixelSize: 15
                    Layout.alignment: Qt.AlignHCenter
                }
                Label {
                    text: page.strings.text("jd.add_hint")
                    color: "#b0b0b8"
                    wrapMode: Text.Wrap
                    horizontalAlignment: Text.AlignHCenter
                    Layout.fillWidth: true
                }
                AddButton { Layout.alignment: Qt.AlignHCenter }
                Item { Layout.fillHeight: true }
            }
            ColumnLayout { // the list
                spacing: 8
                ListView {
                    model: page.jobs
                    spacing: 4
                    clip: true
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    delegate: ItemDelegate {
                        id: row
                        required property int index
                        required property string title
                        required property string company
                        required property bool isActive
                        required property string selectionSymbol
                        required property string deleteName
                        width: ListView.view.width
                        Accessible.name: title
                        Accessible.onPressAction: clicked()
                        onClicked: page.jobs.select(index)
                        background: Rectangle {
                            radius: 6
                            color: row.isActive ? Qt.rgba(0.48, 0.65, 1, 0.15) : Qt.rgba(1, 1, 1, 0.04)
                        }
                        contentItem: RowLayout {
                            spacing: 10
                            Icon { name: row.selectionSymbol; size: 18; color: row.isActive ? "#7aa7ff" : "#80808a" }
                            Icon { name: "briefcase.fill"; size: 18; color: "#d0d0d5" }
                            ColumnLayout {
                                spacing: 2
                                Layout.fillWidth: true
                                Label { text: row.title; color: "white"; elide: Text.ElideRight; horizontalAlignment: Text.AlignLeft; Layout.fillWidth: true }
                                Label { visible: row.company.length > 0; text: row.company; color: "#b0b0b8"; font.pixelSize: 11 }
                            }
                            Label {
                                visible: row.isActive
                                text: page.strings.text("jd.active")
                                color: "#7aa7ff"
                                font.pixelSize: 11
                                Accessible.name: text
                            }
                            PageIconButton {
                                symbol: "trash"
                                Accessible.name: row.deleteName
                                onClicked: page.jobs.remove(row.index)
                            }
                        }
                    }
                }
                AddButton {}
            }
            ColumnLayout { // the add form
                spacing: 6
                RowLayout {
                    Layout.fillWidth: true
                    Label {
                        text: page.strings.text("jd.add_title")
                        color: "white"
                        font.pixelSize: 15
                        Layout.fillWidth: true
                    }
                    PageIconButton {
                        symbol: "xmark.circle.fill"
                        symbolSize: 18
                        Accessible.name: page.strings.text("documents.close_form")
                        onClicked: page.jobs.closeForm()
                    }
                }
                FieldLabel { text: page.strings.text("jd.field_title") }
                PageTextField {
                    text: page.jobs.formTitle
                    onTextEdited: page.jobs.formTitle = text
                    Layout.fillWidth: true
                    Accessible.name: page.strings.text("jd.field_title")
                }
                FieldLabel { text: page.strings.text("jd.field_company") }
                PageTextField {
                    text: page.jobs.formCompany
                    onTextEdited: page.jobs.formCompany = text
                    Layout.fillWidth: true
                    Accessible.name: page.strings.text("jd.field_company")
                }
                FieldLabel { text: page.strings.text("jd.field_content") }
                ScrollView {
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    TextArea {
                        id: contentField
                        text: page.jobs.formContent
                        onTextChanged: if (text !== page.jobs.formContent) page.jobs.formContent = text
                        wrapMode: TextEdit.Wrap
                        // Set, so that it follows the mirroring as the one-line fields do.
                        horizontalAlignment: TextEdit.AlignLeft
                        color: "white"
                        selectionColor: "#3b6ff0"
                        selectedTextColor: "white"
                        font.pixelSize: 13
                        background: Rectangle {
                            radius: 7
                            color: Qt.rgba(1, 1, 1, 0.06)
                            border.color: contentField.activeFocus ? "#3b6ff0" : Qt.rgba(1, 1, 1, 0.14)
                            border.width: 1
                        }
                        Accessible.name: page.strings.text("jd.field_content")
                    }
                }
                PageButton {
                    accent: true
                    text: page.jobs.saveButtonText
                    enabled: page.jobs.canSave
                    Layout.alignment: Qt.AlignRight
                    onClicked: page.jobs.submitForm()
                }
            }
        }
    }
}
