#include "services/SettingsStore.h"

#include <QJsonArray>
#include <QJsonDocument>

using namespace Qt::StringLiterals;

const QString SettingsStore::hotkeyKey = u"hotkey"_s;
const QString SettingsStore::micDeviceUIDKey = u"micDeviceUID"_s;
const QString SettingsStore::dictionaryKey = u"dictionary"_s;

namespace {

std::unique_ptr<SettingsStore>& sharedSlot()
{
    static std::unique_ptr<SettingsStore> slot;
    return slot;
}

} // namespace

SettingsStore::SettingsStore(std::unique_ptr<QSettings> settings, QObject* parent)
    : QObject(parent)
    , m_settings(std::move(settings))
{
    const QVariant hotkey = m_settings->value(hotkeyKey);
    const QString raw = hotkey.typeId() == QMetaType::QString ? hotkey.toString() : u"fn"_s;
    m_hotkey = Hotkeys::fromRawValue(raw).value_or(Hotkey::fn);

    const QVariant uid = m_settings->value(micDeviceUIDKey);
    if (uid.typeId() == QMetaType::QString)
        m_micDeviceUID = uid.toString();

    const QVariant dictionary = m_settings->value(dictionaryKey);
    if (dictionary.typeId() == QMetaType::QByteArray)
        m_dictionary = decodeDictionary(dictionary.toByteArray()).value_or(QStringList {});
}

SettingsStore& SettingsStore::shared()
{
    std::unique_ptr<SettingsStore>& slot = sharedSlot();
    if (!slot)
        slot = std::make_unique<SettingsStore>(std::make_unique<QSettings>(u"Quillet"_s, u"Quillet"_s));
    return *slot;
}

void SettingsStore::resetShared(std::unique_ptr<SettingsStore> store)
{
    sharedSlot() = std::move(store);
}

void SettingsStore::setHotkey(Hotkey hotkey)
{
    m_hotkey = hotkey;
    Q_EMIT hotkeyChanged();
    m_settings->setValue(hotkeyKey, Hotkeys::rawValue(hotkey));
}

void SettingsStore::setMicDeviceUID(const QString& uid)
{
    m_micDeviceUID = uid;
    Q_EMIT micDeviceUIDChanged();
    if (uid.isNull())
        m_settings->remove(micDeviceUIDKey);
    else
        m_settings->setValue(micDeviceUIDKey, uid);
}

void SettingsStore::setDictionary(const QStringList& words)
{
    m_dictionary = words;
    Q_EMIT dictionaryChanged();
    m_settings->setValue(
        dictionaryKey, QJsonDocument(QJsonArray::fromStringList(words)).toJson(QJsonDocument::Compact));
}

std::optional<QStringList> SettingsStore::decodeDictionary(const QByteArray& data)
{
    QJsonParseError error {};
    const QJsonDocument doc = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !doc.isArray())
        return std::nullopt;
    QStringList words;
    const QJsonArray array = doc.array();
    words.reserve(array.size());
    for (const auto& value : array) {
        if (!value.isString())
            return std::nullopt;
        words.append(value.toString());
    }
    return words;
}
