// Five bars travelling as a sine wave while the capsule listens. Decorative: they
// do not follow the microphone's level.
import QtQuick

Item {
    id: waveform
    objectName: "waveform"

    readonly property int barCount: 5
    property real phase: 0

    // Bar i's height at a phase: between 6 and 20.
    function barHeight(i, atPhase) {
        return Math.abs(Math.sin(i * 0.6 + atPhase)) * 14 + 6
    }

    implicitWidth: bars.implicitWidth
    implicitHeight: 20

    Timer {
        interval: 80
        repeat: true
        running: waveform.visible
        onTriggered: waveform.phase += 0.4
    }

    Row {
        id: bars
        anchors.centerIn: parent
        height: 20
        spacing: 2
        Repeater {
            model: waveform.barCount
            delegate: Rectangle {
                required property int index
                objectName: "bar" + index
                anchors.verticalCenter: parent.verticalCenter
                width: 3
                radius: 2
                color: "#0a84ff"
                height: waveform.barHeight(index, waveform.phase)
                Behavior on height {
                    NumberAnimation {
                        duration: 150
                        easing.type: Easing.InOutQuad
                    }
                }
            }
        }
    }
}
