// The main button of a first-run step: accent-coloured and larger than the default.
import QtQuick
import QtQuick.Controls.Fusion

Button {
    highlighted: true
    // Fusion draws "highlighted" only as a frame; fill it with the accent instead.
    palette.button: system.highlight
    palette.buttonText: system.highlightedText
    font.pixelSize: 15
    leftPadding: 28
    rightPadding: 28
    topPadding: 9
    bottomPadding: 9
    implicitWidth: Math.max(200, implicitContentWidth + leftPadding + rightPadding)

    SystemPalette {
        id: system
    }
}
