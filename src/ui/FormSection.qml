// One titled group of a form: a bold header above a framed box whose rows are
// a label on the left and its control on the right.
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts

ColumnLayout {
    id: section

    property string title
    default property alias rows: grid.data

    spacing: 4

    Label {
        text: section.title
        font.bold: true
        Accessible.role: Accessible.Heading
    }

    Frame {
        Layout.fillWidth: true
        padding: 10

        GridLayout {
            id: grid
            width: parent.width
            columns: 2
            columnSpacing: 12
            rowSpacing: 6
        }
    }
}
