#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QSettings>
#include <QString>
#include <QUuid>

#include <memory>
#include <optional>

// One remembered insertion.
struct HistoryEntry {
    QUuid id; // fresh for each entry
    QString text; // exactly what was inserted
    QDateTime date; // when it was added (UTC)

    friend bool operator==(const HistoryEntry&, const HistoryEntry&) = default;
};

// The most recent inserted texts, newest first, kept in the settings as one JSON blob.
// Nothing is cached: every read decodes the stored blob afresh and every add rewrites
// it whole, so the settings file is the only truth.
class HistoryManager
{
public:
    static const QString key; // "corvel.history"
    static constexpr qsizetype maxEntries = 50;

    // Works on `settings` (the manager takes it over).
    explicit HistoryManager(std::unique_ptr<QSettings> settings);

    // The instance the program uses, on the user's own settings ("Quillet"/"Quillet").
    static HistoryManager& shared();
    // Replaces the shared instance (tests); null makes the next shared() open the user's settings anew.
    static void resetShared(std::unique_ptr<HistoryManager> manager = nullptr);

    // Newest first; empty when nothing is stored or the stored blob cannot be read.
    QList<HistoryEntry> entries() const;
    // Records `text` (unchanged, even empty) as the newest entry, drops what falls beyond
    // the 50th, and writes the settings to disk before returning: the caller inserts the
    // text afterwards, and a crash there must not lose it.
    void add(const QString& text);

    // The stored form: a JSON array of {"id","text","date"} objects, keys in that order,
    // "id" the upper-case hyphenated UUID, "date" seconds since 2001-01-01T00:00:00Z.
    static QByteArray encode(const QList<HistoryEntry>& entries);
    // The entries of a stored blob; nothing unless every entry has all three keys with the right types.
    static std::optional<QList<HistoryEntry>> decode(const QByteArray& data);

private:
    std::unique_ptr<QSettings> m_settings;
};
