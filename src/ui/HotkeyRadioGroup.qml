// The hotkey choices as radio buttons, bound to the settings store through a
// HotkeySelection, with the note on which physical keys they mean here; where the
// desktop owns the keys (Wayland), what it bound instead, as text one can select and copy.
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import Quillet.Ui

ColumnLayout {
    id: group

    required property HotkeySelection selection
    readonly property bool desktopText: selection.desktopNote !== ""
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
            // Closer rows where the desktop's text needs the room (Wayland).
            topPadding: group.desktopText ? 1 : undefined
            bottomPadding: group.desktopText ? 1 : undefined
            checked: group.selection.currentIndex === index
            ButtonGroup.group: buttons
            onClicked: {
                group.selection.currentIndex = index;
                group.picked(index);
            }
        }
    }

    Label {
        id: keyboardNote
        objectName: "keyboardNote"
        Layout.fillWidth: true
        Layout.topMargin: 2
        visible: group.selection.desktopNote === ""
        text: group.selection.keyboardNote
        wrapMode: Text.WordWrap
        font.pixelSize: 11
        opacity: 0.7
    }

    TextEdit {
        objectName: "desktopNote"
        Layout.fillWidth: true
        Layout.topMargin: 2
        visible: text !== ""
        text: group.selection.desktopNote
        textFormat: TextEdit.PlainText
        readOnly: true
        selectByMouse: true
        wrapMode: TextEdit.WordWrap
        font.pixelSize: 11
        color: keyboardNote.color
        selectionColor: keyboardNote.palette.highlight
        selectedTextColor: keyboardNote.palette.highlightedText
        opacity: 0.8
    }

    TextEdit {
        objectName: "bindingSnippet"
        Layout.fillWidth: true
        Layout.topMargin: 2
        visible: text !== ""
        text: group.selection.bindingSnippet
        textFormat: TextEdit.PlainText
        readOnly: true
        selectByMouse: true
        wrapMode: TextEdit.WrapAnywhere
        font.family: "monospace"
        // Menu's lines just fit the settings window at 10 px; longer key names take 9.
        font.pixelSize: text.length > 91 ? 9 : 10
        color: keyboardNote.color
        selectionColor: keyboardNote.palette.highlight
        selectedTextColor: keyboardNote.palette.highlightedText
    }
}
