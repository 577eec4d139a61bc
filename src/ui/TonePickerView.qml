// The tone buttons, in the order of the tones, as many 80 px columns as fit.
import QtQuick
import Quillet.Ui

Column {
    id: picker

    required property HUDState hudState
    readonly property int minimumColumnWidth: 80
    readonly property int gridSpacing: 6

    spacing: 8

    Item {
        width: picker.width
        height: Math.max(title.implicitHeight, closeButton.height)

        Text {
            id: title
            objectName: "toneTitle"
            anchors.verticalCenter: parent.verticalCenter
            text: "Choose tone"
            font.pixelSize: 11
            color: "#6e6e73"
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        // Closes the picker without a tone; the transcript is in the history already.
        Rectangle {
            id: closeButton
            objectName: "toneCloseButton"
            visible: picker.hudState.canDismissTonePicker
            anchors.right: parent.right
            anchors.verticalCenter: parent.verticalCenter
            width: 18
            height: 18
            radius: 9
            color: closeArea.pressed ? "#d1d1d6" : (closeArea.containsMouse ? "#ececf0" : "transparent")

            Accessible.role: Accessible.Button
            Accessible.name: "Close"
            Accessible.description: "Close the tone picker without rewriting"
            Accessible.onPressAction: picker.hudState.dismissTonePicker()

            Text {
                anchors.centerIn: parent
                text: "\u2715"
                font.pixelSize: 11
                color: "#6e6e73"
                Accessible.ignored: true
            }

            MouseArea {
                id: closeArea
                anchors.fill: parent
                hoverEnabled: true
                onClicked: picker.hudState.dismissTonePicker()
            }
        }
    }

    Grid {
        id: grid
        objectName: "toneGrid"
        readonly property real cellWidth: (picker.width - (columns - 1) * spacing) / columns
        width: picker.width
        spacing: picker.gridSpacing
        columns: Math.max(1, Math.floor((picker.width + spacing) / (picker.minimumColumnWidth + spacing)))

        Repeater {
            model: picker.hudState.toneLabels
            delegate: Rectangle {
                id: button
                required property int index
                required property string modelData
                objectName: "toneButton" + index
                width: grid.cellWidth
                height: 22
                radius: 5
                color: pressArea.pressed ? "#d1d1d6" : (pressArea.containsMouse ? "#ececf0" : "#ffffff")
                border.width: 1
                border.color: "#b0b0b8"

                Accessible.role: Accessible.Button
                Accessible.name: button.modelData
                Accessible.description: "Rewrite in this tone"
                Accessible.onPressAction: picker.hudState.selectTone(button.index)

                Text {
                    anchors.centerIn: parent
                    width: parent.width - 8
                    horizontalAlignment: Text.AlignHCenter
                    elide: Text.ElideRight
                    font.pixelSize: 11
                    color: "#1d1d1f"
                    text: button.modelData
                    Accessible.ignored: true
                }

                MouseArea {
                    id: pressArea
                    anchors.fill: parent
                    hoverEnabled: true
                    onClicked: picker.hudState.selectTone(button.index)
                }
            }
        }
    }
}
