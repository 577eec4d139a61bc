// An indeterminate progress spinner: an open arc turning once a second.
import QtQuick

Image {
    objectName: "spinner"
    source: "icons/spinner-arc.svg"
    sourceSize: Qt.size(28, 28)
    width: 28
    height: 28

    RotationAnimator on rotation {
        from: 0
        to: 360
        duration: 1000
        loops: Animation.Infinite
        running: visible
    }
}
