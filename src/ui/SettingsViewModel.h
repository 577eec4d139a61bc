#pragma once

#include "platform/Microphones.h"
#include "services/Autostart.h"
#include "services/SettingsStore.h"
#include "ui/HotkeySelection.h"

#include <QObject>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

#include <memory>

// What the settings form shows and edits: the hotkey, the preferred input device,
// start at login and the version. Writes go straight to the settings store; there is no "save".
class SettingsViewModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Made by SettingsWindow")
    Q_PROPERTY(HotkeySelection* hotkeys READ hotkeys CONSTANT)
    // "System default", then every microphone by its name.
    Q_PROPERTY(QStringList deviceChoices READ deviceChoices NOTIFY devicesChanged)
    // 0 is "System default"; -1 when the stored device is not among the microphones.
    Q_PROPERTY(int deviceIndex READ deviceIndex WRITE setDeviceIndex NOTIFY deviceIndexChanged)
    // The autostart entry is there: Quillet starts when the user logs in.
    Q_PROPERTY(bool startAtLogin READ startAtLogin WRITE setStartAtLogin NOTIFY startAtLoginChanged)
    // The version from the information file, or "—" without one.
    Q_PROPERTY(QString version READ version NOTIFY versionChanged)

public:
    static const QString systemDefaultChoice; // "System default"

    // autostart: the login entry the switch writes (this program's own by default).
    SettingsViewModel(SettingsStore& store, std::shared_ptr<Microphones> microphones, QObject* parent = nullptr,
        Autostart autostart = Autostart::forThisProgram());

    HotkeySelection* hotkeys() { return &m_hotkeys; }
    QStringList deviceChoices() const;
    const QList<Microphone>& devices() const { return m_devices; }
    int deviceIndex() const;
    // 0 removes the preference; any other index stores that device's identifier.
    void setDeviceIndex(int index);
    QString version() const { return m_version; }
    bool startAtLogin() const { return m_autostart.isEnabled(); }
    // Writes or removes the entry; the switch shows what the folder holds afterwards.
    void setStartAtLogin(bool enabled);

    // Reads the version and asks for the device list again; the list arrives later
    // (devicesChanged) and stays as it is until the next refresh.
    Q_INVOKABLE void refresh();

Q_SIGNALS:
    void devicesChanged();
    void deviceIndexChanged();
    void versionChanged();
    void startAtLoginChanged();

private:
    SettingsStore& m_store;
    std::shared_ptr<Microphones> m_microphones;
    HotkeySelection m_hotkeys;
    QList<Microphone> m_devices;
    QString m_version;
    Autostart m_autostart;
};
