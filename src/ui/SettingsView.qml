// The settings form: hotkey, input device, start at login, version. Every change is stored at once.
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import Quillet.Ui

Pane {
    id: root

    required property SettingsViewModel settings

    padding: 16

    ColumnLayout {
        anchors.fill: parent
        spacing: 10

        FormSection {
            title: "Hotkey"
            Layout.fillWidth: true

            FormLabel {
                text: "Record hotkey"
                Layout.alignment: Qt.AlignRight | Qt.AlignTop
                Layout.topMargin: 4
            }
            HotkeyRadioGroup {
                objectName: "hotkeyGroup"
                Layout.fillWidth: true
                selection: root.settings.hotkeys
                Accessible.name: "Record hotkey"
            }
        }

        FormSection {
            title: "Microphone"
            Layout.fillWidth: true

            FormLabel {
                text: "Input device"
            }
            ComboBox {
                objectName: "inputDevicePicker"
                Layout.fillWidth: true
                model: root.settings.deviceChoices
                currentIndex: root.settings.deviceIndex
                onActivated: index => root.settings.deviceIndex = index
                Accessible.name: "Input device"
            }
        }

        FormSection {
            title: "General"
            Layout.fillWidth: true

            FormLabel {
                text: "Startup"
            }
            CheckBox {
                objectName: "startAtLoginSwitch"
                Layout.fillWidth: true
                text: "Start Quillet at login"
                checked: root.settings.startAtLogin
                onToggled: root.settings.startAtLogin = checked
                Accessible.name: "Start Quillet at login"
            }

            FormLabel {
                text: "Version"
            }
            RowLayout {
                Layout.fillWidth: true
                spacing: 12

                Label {
                    objectName: "versionValue"
                    Layout.fillWidth: true
                    text: root.settings.version
                }
                Button {
                    // Deliberately inert: there is no update service to ask yet.
                    objectName: "checkForUpdatesButton"
                    text: "Check for updates"
                }
            }
        }

        Item {
            Layout.fillHeight: true
        }
    }
}
