// The common look of the simple first-run steps: a large emoji, a title, a line or
// two of explanation, and one prominent button with an optional quiet one below.
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts

Item {
    id: step

    property string emoji
    property string title
    property string subtitle
    property string primaryLabel
    // Empty: no second button.
    property string secondaryLabel

    signal primaryClicked
    signal secondaryClicked

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 32
        spacing: 12

        Item {
            Layout.fillHeight: true
        }
        Label {
            objectName: "emoji"
            Layout.alignment: Qt.AlignHCenter
            text: step.emoji
            font.pixelSize: 64
        }
        Label {
            objectName: "title"
            Layout.alignment: Qt.AlignHCenter
            text: step.title
            font.pixelSize: 22
            font.bold: true
        }
        Label {
            objectName: "subtitle"
            Layout.fillWidth: true
            visible: text !== ""
            text: step.subtitle
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
            opacity: 0.7
        }
        Item {
            Layout.fillHeight: true
        }
        ProminentButton {
            objectName: "primaryButton"
            Layout.alignment: Qt.AlignHCenter
            text: step.primaryLabel
            onClicked: step.primaryClicked()
        }
        Button {
            objectName: "secondaryButton"
            Layout.alignment: Qt.AlignHCenter
            visible: step.secondaryLabel !== ""
            text: step.secondaryLabel
            flat: true
            opacity: 0.75
            onClicked: step.secondaryClicked()
        }
    }
}
