#include "ui/SettingsViewModel.h"

#include "services/AppConfig.h"
#include "ui/WhenReady.h"

using namespace Qt::StringLiterals;

const QString SettingsViewModel::systemDefaultChoice = u"System default"_s;

SettingsViewModel::SettingsViewModel(
    SettingsStore& store, std::shared_ptr<Microphones> microphones, QObject* parent, Autostart autostart)
    : QObject(parent)
    , m_store(store)
    , m_microphones(std::move(microphones))
    , m_hotkeys(store)
    , m_version(AppConfig::shortVersion().value_or(u"\u2014"_s))
    , m_autostart(std::move(autostart))
{
    connect(&m_store, &SettingsStore::micDeviceUIDChanged, this, &SettingsViewModel::deviceIndexChanged);
}

QStringList SettingsViewModel::deviceChoices() const
{
    QStringList choices { systemDefaultChoice };
    for (const Microphone& device : m_devices)
        choices.append(device.name);
    return choices;
}

int SettingsViewModel::deviceIndex() const
{
    const QString uid = m_store.micDeviceUID();
    if (uid.isNull())
        return 0;
    for (qsizetype i = 0; i < m_devices.size(); ++i) {
        if (m_devices[i].uid == uid)
            return int(i) + 1;
    }
    // A device that is unplugged keeps its place in the settings; nothing here matches it.
    return -1;
}

void SettingsViewModel::setDeviceIndex(int index)
{
    if (index == 0) {
        m_store.setMicDeviceUID(QString());
        return;
    }
    if (index < 0 || index > m_devices.size())
        return;
    m_store.setMicDeviceUID(m_devices[index - 1].uid);
}

void SettingsViewModel::setStartAtLogin(bool enabled)
{
    m_autostart.setEnabled(enabled);
    // Announced either way: a switch the user flipped must fall back when the write failed.
    Q_EMIT startAtLoginChanged();
}

void SettingsViewModel::refresh()
{
    Q_EMIT startAtLoginChanged();
    const QString version = AppConfig::shortVersion().value_or(u"\u2014"_s);
    if (version != m_version) {
        m_version = version;
        Q_EMIT versionChanged();
    }
    whenReady(m_microphones->list(), this, [this](const QList<Microphone>& devices) {
        m_devices = devices;
        Q_EMIT devicesChanged();
        Q_EMIT deviceIndexChanged();
    });
}
