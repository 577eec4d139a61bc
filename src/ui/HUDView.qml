// The capsule: one row for the current mode of hudState, on a rounded background.
import QtQuick
import Quillet.Ui

Item {
    id: root

    required property HUDState hudState
    // A compositing manager runs: draw a translucent capsule with a shadow.
    // Without one the window is opaque and cut to the capsule's shape.
    property bool translucent: true

    readonly property int horizontalPadding: 16
    readonly property int verticalPadding: 12
    readonly property int minimumContentWidth: 180
    // The window is 320 wide: the capsule with its padding never exceeds it.
    readonly property int maximumContentWidth: 320 - 2 * horizontalPadding
    // Where the capsule lies in the window and how round it is, for the window's shape.
    readonly property rect capsuleRect: Qt.rect(capsule.x, capsule.y, capsule.width, capsule.height)
    readonly property real capsuleRadius: capsule.radius

    readonly property color primaryColor: "#1d1d1f"
    readonly property color secondaryColor: "#6e6e73"

    width: 320
    // Room for the shadow below the capsule; the controller sizes the window to this.
    implicitHeight: capsule.height + 12

    Repeater {
        // A soft shadow, black at 15% in all, 4 px down, spread over 12 px.
        model: root.translucent ? 4 : 0
        delegate: Rectangle {
            required property int index
            x: capsule.x - spread
            y: capsule.y + 4 - spread
            width: capsule.width + 2 * spread
            height: capsule.height + 2 * spread
            radius: capsule.radius + spread
            color: Qt.rgba(0, 0, 0, 0.15 / 4)
            readonly property real spread: (index + 1) * 3 - 6
        }
    }

    Rectangle {
        id: capsule
        objectName: "capsule"
        anchors.horizontalCenter: parent.horizontalCenter
        // Near the bottom, so the space above and the shadow room below balance.
        y: Math.max(0, Math.round((root.height - 12 - height) / 2) + 2)
        width: Math.min(Math.max(rows.implicitWidth, root.minimumContentWidth), root.maximumContentWidth)
               + 2 * root.horizontalPadding
        height: rows.implicitHeight + 2 * root.verticalPadding
        // Capsule ends for a one-line row; a taller content (the tone picker) keeps
        // the same corner radius rather than turning into an oval.
        radius: Math.min(height / 2, 22)
        color: root.translucent ? Qt.rgba(0.97, 0.97, 0.975, 0.94) : "#f5f5f7"
        border.width: 1
        border.color: root.translucent ? Qt.rgba(0, 0, 0, 0.08) : "#c7c7cc"

        // Movable by dragging its background, as floating panels are; the buttons of
        // the tone picker lie above and take their own clicks.
        MouseArea {
            objectName: "dragArea"
            anchors.fill: parent
            property point grabbedAt
            onPressed: mouse => grabbedAt = Qt.point(mouse.x, mouse.y)
            onPositionChanged: mouse => {
                const window = root.Window.window
                if (!window)
                    return
                window.x += Math.round(mouse.x - grabbedAt.x)
                window.y += Math.round(mouse.y - grabbedAt.y)
            }
        }

        Loader {
            id: rows
            anchors.centerIn: parent
            sourceComponent: {
                switch (root.hudState.kind) {
                case HUDMode.Kind.dictating:
                case HUDMode.Kind.tone:
                    return listeningRow
                case HUDMode.Kind.cleaning:
                case HUDMode.Kind.rewriting:
                    return workingRow
                case HUDMode.Kind.success:
                    return successRow
                case HUDMode.Kind.error:
                    return errorRow
                case HUDMode.Kind.tonePicker:
                    return tonePickerRow
                }
                return null
            }
        }
    }

    Component {
        id: listeningRow
        Row {
            spacing: 10
            Item {
                width: 24
                height: 20
                anchors.verticalCenter: parent.verticalCenter
                WaveformView {
                    anchors.centerIn: parent
                    Accessible.role: Accessible.Animation
                    Accessible.name: "Microphone listening"
                }
            }
            Text {
                id: listeningText
                objectName: "hudText"
                readonly property bool hasPartial: root.hudState.partialText.length > 0
                readonly property real availableWidth: root.maximumContentWidth - 24 - parent.spacing
                anchors.verticalCenter: parent.verticalCenter
                width: Math.min(implicitWidth, availableWidth)
                font.pixelSize: 14
                color: hasPartial ? root.primaryColor : root.secondaryColor
                wrapMode: Text.Wrap
                maximumLineCount: 2
                Accessible.role: Accessible.StaticText
                Accessible.name: text
                // The newest words stay in view; the beginning gives way. TextFit looks at
                // the end of the partial only, however long it has grown.
                text: hasPartial ? TextFit.elideHead(root.hudState.partialText, font, availableWidth, 2)
                                 : (root.hudState.kind === HUDMode.Kind.tone ? "Speak for tone rewrite…" : "Listening…")
            }
        }
    }

    Component {
        id: workingRow
        Row {
            spacing: 8
            Spinner {
                anchors.verticalCenter: parent.verticalCenter
                scale: 0.7
                Accessible.role: Accessible.Animation
                Accessible.name: "Working"
            }
            Text {
                objectName: "hudText"
                anchors.verticalCenter: parent.verticalCenter
                font.pixelSize: 14
                color: root.secondaryColor
                Accessible.role: Accessible.StaticText
                Accessible.name: text
                text: root.hudState.kind === HUDMode.Kind.rewriting ? "Rewriting in " + root.hudState.toneLabel + "…"
                                                               : "Cleaning…"
            }
        }
    }

    Component {
        id: successRow
        Row {
            spacing: 8
            Image {
                objectName: "successIcon"
                anchors.verticalCenter: parent.verticalCenter
                source: "icons/checkmark-circle.svg"
                sourceSize: Qt.size(18, 18)
                Accessible.role: Accessible.Graphic
                Accessible.name: "Done"
            }
            Text {
                objectName: "hudText"
                anchors.verticalCenter: parent.verticalCenter
                font.pixelSize: 14
                color: root.primaryColor
                Accessible.role: Accessible.StaticText
                Accessible.name: text
                text: root.hudState.toneLabel.length > 0 ? "Rewritten in " + root.hudState.toneLabel : "Inserted"
            }
        }
    }

    Component {
        id: errorRow
        Row {
            spacing: 8
            Image {
                id: warningIcon
                objectName: "errorIcon"
                anchors.verticalCenter: parent.verticalCenter
                source: "icons/warning-triangle.svg"
                sourceSize: Qt.size(18, 18)
                Accessible.role: Accessible.Graphic
                Accessible.name: "Error"
            }
            Text {
                objectName: "hudText"
                anchors.verticalCenter: parent.verticalCenter
                width: Math.min(implicitWidth, root.maximumContentWidth - warningIcon.width - parent.spacing)
                font.pixelSize: 12
                color: root.primaryColor
                wrapMode: Text.Wrap
                maximumLineCount: 2
                elide: Text.ElideRight
                Accessible.role: Accessible.AlertMessage
                Accessible.name: text
                text: root.hudState.message
            }
        }
    }

    Component {
        id: tonePickerRow
        TonePickerView {
            width: root.maximumContentWidth
            hudState: root.hudState
        }
    }
}
