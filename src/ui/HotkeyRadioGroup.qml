// The hotkey choices as radio buttons, bound to the settings store through a
// HotkeySelection, with the note on which physical keys they mean here.
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import Quillet.Ui

ColumnLayout {
    id: group

    required property HotkeySelection selection
    // Emitted when the user picks a choice (not when the store changes elsewhere).
    signal picked(int index)

    spacing: 0
    Accessible.role: Accessible.Grouping

    ButtonGroup {
        id: buttons
    }

    Repeater {
        model: group.selection.names

        RadioButton {
            required property int index
            required property string modelData

            objectName: "hotkeyChoice" + index
            text: modelData
            checked: group.selection.currentIndex === index
            ButtonGroup.group: buttons
            onClicked: {
                group.selection.currentIndex = index;
                group.picked(index);
            }
        }
    }

    Label {
        objectName: "keyboardNote"
        Layout.fillWidth: true
        Layout.topMargin: 2
        text: group.selection.keyboardNote
        wrapMode: Text.WordWrap
        font.pixelSize: 11
        opacity: 0.7
    }
}
