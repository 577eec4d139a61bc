// The left-hand label of a form row, right-aligned against its control.
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts

Label {
    Layout.preferredWidth: 110
    Layout.alignment: Qt.AlignRight | Qt.AlignVCenter
    horizontalAlignment: Text.AlignRight
}
