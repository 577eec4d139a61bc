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

    // Newest first; empty when nothing is stored or the stored blob is not a JSON array.
    // Entries that cannot be read are skipped (with a log line); the others are kept.
    QList<HistoryEntry> entries() const;
    // Records `text` (unchanged, even empty) as the newest entry, drops what falls beyond
    // the 50th, and writes the settings to disk before returning: the caller inserts the
    // text afterwards, and a crash there must not lose it. False (with a log line) when
    // the settings could not be written.
    bool add(const QString& text);

    // The stored form: a JSON array of {"id","text","date"} objects, keys in that order,
    // "id" the upper-case hyphenated UUID, "date" seconds since 2001-01-01T00:00:00Z.
    static QByteArray encode(const QList<HistoryEntry>& entries);
    // The readable entries of a stored blob, in order; nothing when it is not a JSON array.
    // An entry without all three keys in the right form (an id that is not a bare
    // UUID, a date that is not a number of seconds) is left out and counted in skipped.
    static std::optional<QList<HistoryEntry>> decode(const QByteArray& data, qsizetype* skipped = nullptr);

private:
    std::unique_ptr<QSettings> m_settings;
};
