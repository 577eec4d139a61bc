// The first-run window: a progress bar over six steps, one shown at a time.
// Each button sets `step` to the next step's number outright.
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import Quillet.Ui

Pane {
    id: root

    required property OnboardingModel onboarding
    // 0 to 5: the step on screen.
    property int step: 0

    padding: 0

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        ProgressBar {
            objectName: "progress"
            Layout.fillWidth: true
            Layout.leftMargin: 16
            Layout.rightMargin: 16
            Layout.topMargin: 16
            from: 0
            to: 6
            value: root.step + 1
        }

        StackLayout {
            id: pages
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: root.step

            OnboardingStepLayout {
                objectName: "welcomeStep"
                emoji: "\u{1F399}\uFE0F"
                title: "Welcome to Quillet"
                subtitle: "Hold a key, speak, and get polished text at your cursor \u2014 in any app."
                primaryLabel: "Get started"
                onPrimaryClicked: root.step = 1
            }

            OnboardingStepLayout {
                readonly property bool granted: root.onboarding.microphoneGranted
                readonly property bool current: root.step === 1

                objectName: "microphoneStep"
                emoji: granted ? "\u2705" : "\u{1F3A4}"
                title: "Microphone access"
                subtitle: "Quillet needs your mic to transcribe speech. Audio is never stored on our servers."
                primaryLabel: granted ? "Continue" : "Allow microphone"
                secondaryLabel: granted ? "" : "Skip"
                onCurrentChanged: if (current) root.onboarding.checkMicrophone()
                onPrimaryClicked: {
                    if (granted)
                        root.step = 2;
                    else
                        root.onboarding.requestMicrophone();
                }
                onSecondaryClicked: root.step = 2
            }

            OnboardingStepLayout {
                readonly property bool granted: root.onboarding.accessibilityGranted
                readonly property bool current: root.step === 2

                objectName: "accessibilityStep"
                emoji: granted ? "\u2705" : "\u267F"
                title: "Accessibility access"
                subtitle: "Required to insert text at your cursor in other apps. Grant it in System Settings."
                // The label stays as users know it from other systems; here the button
                // switches the desktop's accessibility on (OnboardingModel).
                primaryLabel: granted ? "Continue" : "Open System Settings"
                secondaryLabel: granted ? "" : "Skip for now"
                onCurrentChanged: if (current) root.onboarding.watchAccessibility()
                onPrimaryClicked: {
                    if (granted)
                        root.step = 3;
                    else
                        root.onboarding.openAccessibilitySettings();
                }
                onSecondaryClicked: root.step = 3
            }

            Item {
                id: hotkeyStep
                objectName: "hotkeyStep"

                ColumnLayout {
                    anchors.fill: parent
                    anchors.margins: 32
                    spacing: 12

                    Label {
                        objectName: "emoji"
                        Layout.alignment: Qt.AlignHCenter
                        text: "\u2328\uFE0F"
                        font.pixelSize: 56
                    }
                    Label {
                        objectName: "title"
                        Layout.alignment: Qt.AlignHCenter
                        text: "Choose your hotkey"
                        font.pixelSize: 22
                        font.bold: true
                    }
                    Label {
                        objectName: "subtitle"
                        Layout.fillWidth: true
                        text: "Hold this key anywhere to start recording."
                        horizontalAlignment: Text.AlignHCenter
                        wrapMode: Text.WordWrap
                        opacity: 0.7
                    }
                    Frame {
                        Layout.alignment: Qt.AlignHCenter
                        Layout.preferredWidth: 360
                        Layout.topMargin: 4
                        padding: 12

                        HotkeyRadioGroup {
                            objectName: "hotkeyGroup"
                            width: parent.width
                            selection: root.onboarding.hotkeys
                            Accessible.name: "Hotkey"
                            // A different key has not been tried yet.
                            onPicked: root.onboarding.state.hotkeySeen = false
                        }
                    }
                    Label {
                        objectName: "hotkeyIndicator"
                        readonly property bool held: root.onboarding.state.hotkeyHeld
                        readonly property bool seen: root.onboarding.state.hotkeySeen

                        Layout.alignment: Qt.AlignHCenter
                        text: held ? "\u25CF " + root.onboarding.hotkeys.currentName + " pressed"
                                   : seen ? "\u2713 " + root.onboarding.hotkeys.currentName + " works"
                                          : "Hold it now to check that it works."
                        color: held || seen ? "#1e8e3e" : palette.windowText
                        opacity: held || seen ? 1 : 0.7
                        font.bold: held
                    }
                    Item {
                        Layout.fillHeight: true
                    }
                    ProminentButton {
                        objectName: "primaryButton"
                        Layout.alignment: Qt.AlignHCenter
                        text: "Continue"
                        onClicked: root.step = 4
                    }
                }
            }

            Item {
                id: practiceStep

                readonly property string result: practiceBox.text
                readonly property bool fieldFocused: practiceBox.activeFocus
                readonly property bool current: root.step === 4

                objectName: "practiceStep"
                // The first dictation lands in the box, through the normal insertion.
                onCurrentChanged: if (current) practiceBox.forceActiveFocus()

                ColumnLayout {
                    anchors.fill: parent
                    anchors.leftMargin: 32
                    anchors.rightMargin: 32
                    anchors.topMargin: 24
                    anchors.bottomMargin: 32
                    spacing: 12

                    Item {
                        Layout.fillHeight: true
                    }
                    Label {
                        objectName: "emoji"
                        Layout.alignment: Qt.AlignHCenter
                        text: "\u{1F5E3}\uFE0F"
                        font.pixelSize: 56
                    }
                    Label {
                        objectName: "title"
                        Layout.alignment: Qt.AlignHCenter
                        text: "Try it out"
                        font.pixelSize: 22
                        font.bold: true
                    }
                    Label {
                        objectName: "subtitle"
                        Layout.fillWidth: true
                        text: "Click the box below, then hold your hotkey and speak."
                        horizontalAlignment: Text.AlignHCenter
                        wrapMode: Text.WordWrap
                        opacity: 0.7
                    }
                    Rectangle {
                        Layout.fillWidth: true
                        Layout.preferredHeight: 100
                        radius: 10
                        color: palette.base
                        border.width: 1
                        border.color: Qt.rgba(palette.windowText.r, palette.windowText.g, palette.windowText.b, 0.3)

                        TextArea {
                            id: practiceBox
                            objectName: "practiceBox"
                            anchors.fill: parent
                            anchors.margins: 1
                            padding: 8
                            wrapMode: TextEdit.Wrap
                            background: null
                            Accessible.name: "Practice"
                        }
                        Label {
                            objectName: "placeholder"
                            x: 8
                            y: 8
                            visible: practiceBox.text === ""
                            text: "Dictated text will appear here\u2026"
                            opacity: 0.55
                        }
                    }
                    Item {
                        Layout.fillHeight: true
                    }
                    ProminentButton {
                        objectName: "primaryButton"
                        Layout.alignment: Qt.AlignHCenter
                        text: practiceStep.result === "" ? "Skip" : "Continue"
                        onClicked: root.step = 5
                    }
                }
            }

            OnboardingStepLayout {
                objectName: "signInStep"
                emoji: "\u{1F510}"
                title: "Sign in to start dictating"
                primaryLabel: "Sign in or create account"
                secondaryLabel: "Skip for now"
                onPrimaryClicked: root.onboarding.openSignIn()
                onSecondaryClicked: root.onboarding.finish()
            }
        }
    }
}
