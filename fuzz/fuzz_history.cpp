// Feeds arbitrary bytes to the history's decoder, as a damaged or hand-edited settings
// file would. Beyond not crashing: no entry comes out with an id or a date that the
// stored form cannot hold; every readable entry of an array survives, in order, and
// only unreadable ones are skipped; and what comes out is written back and read again
// unchanged.
#include "services/HistoryManager.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace {

// The stored form, judged independently of the decoder.
bool isReadableEntry(const QJsonValue& value)
{
    if (!value.isObject())
        return false;
    const QJsonObject object = value.toObject();
    const QJsonValue id = object.value(QStringLiteral("id"));
    const QJsonValue text = object.value(QStringLiteral("text"));
    const QJsonValue date = object.value(QStringLiteral("date"));
    if (!id.isString() || !text.isString() || !date.isDouble())
        return false;
    const QString idText = id.toString();
    if (idText.size() != 36 || idText.startsWith(u'{'))
        return false;
    if (QUuid::fromString(idText).isNull() && idText != QStringLiteral("00000000-0000-0000-0000-000000000000"))
        return false;
    const double seconds = date.toDouble();
    return std::isfinite(seconds) && std::abs(seconds) <= 1e12;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray blob(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    qsizetype skipped = -1;
    const std::optional<QList<HistoryEntry>> entries = HistoryManager::decode(blob, &skipped);

    QJsonParseError error {};
    const QJsonDocument doc = QJsonDocument::fromJson(blob, &error);
    const bool isArray = error.error == QJsonParseError::NoError && doc.isArray();
    if (entries.has_value() != isArray)
        __builtin_trap();
    if (!entries)
        return 0;

    const QJsonArray array = doc.array();
    if (entries->size() + skipped != array.size())
        __builtin_trap();
    qsizetype next = 0;
    for (const QJsonValue& value : array) {
        if (!isReadableEntry(value))
            continue;
        if (next >= entries->size())
            __builtin_trap();
        const HistoryEntry& entry = entries->at(next++);
        if (entry.text != value.toObject().value(QStringLiteral("text")).toString())
            __builtin_trap();
        if (QUuid::fromString(value.toObject().value(QStringLiteral("id")).toString()) != entry.id)
            __builtin_trap();
    }
    if (next != entries->size())
        __builtin_trap();

    for (const HistoryEntry& entry : *entries) {
        if (!entry.date.isValid())
            __builtin_trap();
    }
    // Written back, it reads the same: the next add keeps every entry it was given.
    qsizetype skippedAgain = -1;
    const std::optional<QList<HistoryEntry>> again
        = HistoryManager::decode(HistoryManager::encode(*entries), &skippedAgain);
    if (!again || *again != *entries || skippedAgain != 0)
        __builtin_trap();
    return 0;
}
