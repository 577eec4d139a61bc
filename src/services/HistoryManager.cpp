#include "services/HistoryManager.h"

#include "services/Log.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

using namespace Qt::StringLiterals;

const QString HistoryManager::key = u"corvel.history"_s;

namespace {

// Dates count from 2001-01-01T00:00:00Z, the reference date of the stored form.
constexpr qint64 kReferenceDateMSecs = 978'307'200'000;
constexpr double kLargestSeconds = 1e12;

std::unique_ptr<HistoryManager>& sharedSlot()
{
    static std::unique_ptr<HistoryManager> slot;
    return slot;
}

// One JSON value as text, written by Qt's own serialiser so escaping and number
// formatting are the same as everywhere else.
QByteArray jsonText(const QJsonValue& value)
{
    const QByteArray array = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

std::optional<QUuid> parseUuid(const QString& text)
{
    // The canonical form only: 36 characters, hyphens, no braces (either case is read).
    if (text.size() != 36)
        return std::nullopt;
    const QUuid id = QUuid::fromString(text);
    if (id.isNull() && text != u"00000000-0000-0000-0000-000000000000"_s)
        return std::nullopt;
    return id;
}

std::optional<HistoryEntry> decodeEntry(const QJsonValue& value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const QJsonValue id = object.value(u"id"_s);
    const QJsonValue text = object.value(u"text"_s);
    const QJsonValue date = object.value(u"date"_s);
    if (!id.isString() || !text.isString() || !date.isDouble())
        return std::nullopt;
    const std::optional<QUuid> uuid = parseUuid(id.toString());
    const double seconds = date.toDouble();
    // Beyond some 30,000 years either way a date has no QDateTime.
    if (!uuid || !std::isfinite(seconds) || std::abs(seconds) > kLargestSeconds)
        return std::nullopt;
    const auto msecs = static_cast<qint64>(std::llround(seconds * 1000.0)) + kReferenceDateMSecs;
    return HistoryEntry { *uuid, text.toString(), QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC) };
}

} // namespace

HistoryManager::HistoryManager(std::unique_ptr<QSettings> settings)
    : m_settings(std::move(settings))
{ }

HistoryManager& HistoryManager::shared()
{
    std::unique_ptr<HistoryManager>& slot = sharedSlot();
    if (!slot)
        slot = std::make_unique<HistoryManager>(std::make_unique<QSettings>(u"Quillet"_s, u"Quillet"_s));
    return *slot;
}

void HistoryManager::resetShared(std::unique_ptr<HistoryManager> manager)
{
    sharedSlot() = std::move(manager);
}

QList<HistoryEntry> HistoryManager::entries() const
{
    const QVariant value = m_settings->value(key);
    if (value.typeId() != QMetaType::QByteArray)
        return {};
    // A blob that is not an array at all stays where it is until the next add replaces it.
    qsizetype skipped = 0;
    QList<HistoryEntry> list = decode(value.toByteArray(), &skipped).value_or(QList<HistoryEntry> {});
    if (skipped > 0)
        Log::write(Log::Symbol::Warning,
            u"history: skipped %1 unreadable entr%2, kept %3"_s.arg(skipped)
                .arg(skipped == 1 ? u"y"_s : u"ies"_s)
                .arg(list.size()));
    return list;
}

bool HistoryManager::add(const QString& text)
{
    QList<HistoryEntry> list = entries();
    list.prepend(HistoryEntry { QUuid::createUuid(), text, QDateTime::currentDateTimeUtc() });
    if (list.size() > maxEntries)
        list.resize(maxEntries);
    m_settings->setValue(key, encode(list));
    m_settings->sync();
    // An unwritable or full configuration folder: the text is not kept, and the user
    // must learn it from the log rather than find an empty history later.
    if (m_settings->status() != QSettings::NoError) {
        const QString reason
            = m_settings->status() == QSettings::AccessError ? u"cannot write the file"_s : u"the file is damaged"_s;
        Log::write(Log::Symbol::Failure,
            u"could not save the dictation to the history (%1: %2)"_s.arg(m_settings->fileName(), reason));
        return false;
    }
    return true;
}

QByteArray HistoryManager::encode(const QList<HistoryEntry>& entries)
{
    // Written by hand because QJsonObject sorts its keys, and the stored form lists
    // "id", "text", "date" in that order.
    QByteArray out;
    out.reserve(entries.size() * 128);
    out += '[';
    for (qsizetype i = 0; i < entries.size(); ++i) {
        const HistoryEntry& entry = entries.at(i);
        if (i > 0)
            out += ',';
        const double seconds = static_cast<double>(entry.date.toMSecsSinceEpoch() - kReferenceDateMSecs) / 1000.0;
        out += R"({"id":)";
        out += jsonText(entry.id.toString(QUuid::WithoutBraces).toUpper());
        out += R"(,"text":)";
        out += jsonText(entry.text);
        out += R"(,"date":)";
        out += jsonText(seconds);
        out += '}';
    }
    out += ']';
    return out;
}

std::optional<QList<HistoryEntry>> HistoryManager::decode(const QByteArray& data, qsizetype* skipped)
{
    if (skipped)
        *skipped = 0;
    QJsonParseError error {};
    const QJsonDocument doc = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !doc.isArray())
        return std::nullopt;
    const QJsonArray array = doc.array();
    QList<HistoryEntry> list;
    list.reserve(array.size());
    for (const QJsonValue& value : array) {
        // One damaged entry (hand-edited, written by another tool) costs that entry
        // alone: the others are what the user said, and may be all that is left of it.
        std::optional<HistoryEntry> entry = decodeEntry(value);
        if (!entry) {
            if (skipped)
                ++*skipped;
            continue;
        }
        list.append(std::move(*entry));
    }
    return list;
}
