import QtQuick
import Ravlet.Shell
import QtQuick.Controls.Basic
import QtQuick.Layouts

// The languages page: what the interviewer speaks and what the answers are written in.
ColumnLayout {
    id: root

    required property LanguagesPageViewModel page
    required property AppStrings strings

    spacing: 12

    component LanguagePicker: RowLayout {
        id: picker
        property string label
        property string pickerName
        property int selected
        signal picked(int index)
        spacing: 12
        Label { text: picker.label; color: "white"; font.pixelSize: 13; Layout.preferredWidth: 200 }
        PageComboBox {
            objectName: picker.pickerName
            model: root.page.languageNames
            currentIndex: picker.selected
            Layout.preferredWidth: 220
            Accessible.name: picker.label
            onActivated: index => picker.picked(index)
        }
    }

    PageHeader {
        title: root.strings.text("sidebar.languages")
        subtitle: root.strings.text("languages.subtitle")
    }
    LanguagePicker {
        label: root.strings.text("label.input_language")
        pickerName: "inputLanguage"
        selected: root.page.inputIndex
        onPicked: index => root.page.inputIndex = index
    }
    LanguagePicker {
        label: root.strings.text("label.output_language")
        pickerName: "outputLanguage"
        selected: root.page.outputIndex
        onPicked: index => root.page.outputIndex = index
    }
    Item { Layout.fillHeight: true }
}
