#pragma once

#include "services/Hotkey.h"

#include <QObject>
#include <QSettings>
#include <QString>
#include <QStringList>

#include <memory>

// The user's preferences, persisted the moment they change. Every assignment,
// even of an equal value, is written and announced.
class SettingsStore : public QObject
{
    Q_OBJECT
    Q_PROPERTY(HotkeyChoice::Hotkey hotkey READ hotkey WRITE setHotkey NOTIFY hotkeyChanged)
    Q_PROPERTY(QString micDeviceUID READ micDeviceUID WRITE setMicDeviceUID NOTIFY micDeviceUIDChanged)
    Q_PROPERTY(QStringList dictionary READ dictionary WRITE setDictionary NOTIFY dictionaryChanged)

public:
    static const QString hotkeyKey; // "hotkey"
    static const QString micDeviceUIDKey; // "micDeviceUID"
    static const QString dictionaryKey; // "dictionary"

    // Loads the three values from `settings` (the store takes it over). Writes nothing.
    explicit SettingsStore(std::unique_ptr<QSettings> settings, QObject* parent = nullptr);

    // The instance the program uses, on the user's own settings ("Quillet"/"Quillet").
    static SettingsStore& shared();
    // Replaces the shared instance (tests); null makes the next shared() load anew.
    static void resetShared(std::unique_ptr<SettingsStore> store = nullptr);

    Hotkey hotkey() const { return m_hotkey; }
    void setHotkey(Hotkey hotkey);

    // The preferred input device's identifier; a null string means "the system's default".
    QString micDeviceUID() const { return m_micDeviceUID; }
    void setMicDeviceUID(const QString& uid);

    // Words the clean-up keeps exactly as written here.
    QStringList dictionary() const { return m_dictionary; }
    void setDictionary(const QStringList& words);

    // The JSON array of texts in `data`; nothing when it is anything else.
    static std::optional<QStringList> decodeDictionary(const QByteArray& data);

Q_SIGNALS:
    void hotkeyChanged();
    void micDeviceUIDChanged();
    void dictionaryChanged();

private:
    std::unique_ptr<QSettings> m_settings;
    Hotkey m_hotkey = Hotkey::fn;
    QString m_micDeviceUID;
    QStringList m_dictionary;
};
