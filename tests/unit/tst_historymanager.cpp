#include "StdoutCapture.h"
#include "services/HistoryManager.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

using namespace Qt::StringLiterals;

// The history on a private settings file in the same format the program uses.
class TestHistoryManager : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_counter = 0;
    QString m_path;

    std::unique_ptr<QSettings> settings() { return std::make_unique<QSettings>(m_path, QSettings::IniFormat); }
    QByteArray storedBlob() { return settings()->value(HistoryManager::key).toByteArray(); }
    void store(const QByteArray& blob) { settings()->setValue(HistoryManager::key, blob); }
    QJsonArray storedArray() { return QJsonDocument::fromJson(storedBlob()).array(); }

private Q_SLOTS:
    void init() { m_path = m_dir.filePath(u"settings-%1.ini"_s.arg(++m_counter)); }
    void cleanup() { HistoryManager::resetShared(); }

    void nothingStoredIsEmptyAndFirstAddStoresOne()
    {
        HistoryManager history(settings());
        QVERIFY(history.entries().isEmpty());
        QVERIFY(!settings()->contains(u"corvel.history"_s)); // reading writes nothing

        const QDateTime before = QDateTime::currentDateTimeUtc();
        history.add(u"Hello world."_s);
        const QDateTime after = QDateTime::currentDateTimeUtc();

        const QList<HistoryEntry> entries = history.entries();
        QCOMPARE(entries.size(), 1);
        QCOMPARE(entries.first().text, u"Hello world."_s);
        QVERIFY(!entries.first().id.isNull());
        QVERIFY(entries.first().date >= before.addMSecs(-1) && entries.first().date <= after.addMSecs(1));
        QCOMPARE(storedArray().size(), 1);
        QCOMPARE(settings()->value(u"corvel.history"_s).typeId(), QMetaType::QByteArray);
    }

    void keepsTheNewestFifty()
    {
        HistoryManager history(settings());
        for (int i = 1; i <= 51; ++i)
            history.add(u"entry %1"_s.arg(i));
        const QList<HistoryEntry> entries = history.entries();
        QCOMPARE(entries.size(), 50);
        QCOMPARE(entries.first().text, u"entry 51"_s);
        QCOMPARE(entries.last().text, u"entry 2"_s);
        for (const HistoryEntry& entry : entries)
            QVERIFY(entry.text != u"entry 1"_s);
        for (qsizetype i = 0; i < entries.size(); ++i)
            QCOMPARE(entries.at(i).text, u"entry %1"_s.arg(51 - i));
        QCOMPARE(storedArray().size(), 50);
    }

    void blobThatIsNotAnArrayReadsEmptyAndIsReplaced_data()
    {
        QTest::addColumn<QByteArray>("blob");
        const QByteArray good = R"({"id":"2F1A0B4C-8D3E-4F5A-9B6C-7D8E9F0A1B2C","text":"kept?","date":700000000.5})";
        QTest::newRow("not an array") << QByteArray("{\"entries\":[" + good + "]}");
        QTest::newRow("not json") << QByteArray("history");
        QTest::newRow("truncated") << QByteArray("[" + good);
    }
    void blobThatIsNotAnArrayReadsEmptyAndIsReplaced()
    {
        QFETCH(QByteArray, blob);
        store(blob);
        HistoryManager history(settings());
        QVERIFY(history.entries().isEmpty());
        QCOMPARE(storedBlob(), blob); // left as it is until the next add

        history.add(u"after"_s);
        const QJsonArray array = storedArray();
        QCOMPARE(array.size(), 1);
        QCOMPARE(array.first().toObject().value(u"text"_s).toString(), u"after"_s);
        QCOMPARE(history.entries().size(), 1);
    }

    void oneBadEntryCostsThatEntryAlone_data()
    {
        QTest::addColumn<QByteArray>("bad");
        QTest::newRow("entry without id") << QByteArray(R"({"text":"a","date":1})");
        QTest::newRow("entry without text") << QByteArray(R"({"id":"0A1B2C3D-8D3E-4F5A-9B6C-7D8E9F0A1B2C","date":1})");
        QTest::newRow("entry without date")
            << QByteArray(R"({"id":"0A1B2C3D-8D3E-4F5A-9B6C-7D8E9F0A1B2C","text":"a"})");
        QTest::newRow("id not a uuid") << QByteArray(R"({"id":"entry-1","text":"a","date":1})");
        QTest::newRow("id with braces") << QByteArray(
            R"({"id":"{0A1B2C3D-8D3E-4F5A-9B6C-7D8E9F0A1B2C}","text":"a","date":1})");
        QTest::newRow("id a number") << QByteArray(R"({"id":7,"text":"a","date":1})");
        QTest::newRow("text a number") << QByteArray(
            R"({"id":"0A1B2C3D-8D3E-4F5A-9B6C-7D8E9F0A1B2C","text":5,"date":1})");
        QTest::newRow("date a string") << QByteArray(
            R"({"id":"0A1B2C3D-8D3E-4F5A-9B6C-7D8E9F0A1B2C","text":"a","date":"2024-01-01"})");
        QTest::newRow("date out of range")
            << QByteArray(R"({"id":"0A1B2C3D-8D3E-4F5A-9B6C-7D8E9F0A1B2C","text":"a","date":1e300})");
        QTest::newRow("entry not an object") << QByteArray(R"("a")");
        QTest::newRow("entry null") << QByteArray("null");
    }
    void oneBadEntryCostsThatEntryAlone()
    {
        QFETCH(QByteArray, bad);
        const QByteArray first = R"({"id":"2F1A0B4C-8D3E-4F5A-9B6C-7D8E9F0A1B2C","text":"newest","date":700000002})";
        const QByteArray last = R"({"id":"3F1A0B4C-8D3E-4F5A-9B6C-7D8E9F0A1B2C","text":"oldest","date":700000000})";
        store("[" + first + "," + bad + "," + last + "]");
        HistoryManager history(settings());
        QList<HistoryEntry> entries = history.entries();
        QCOMPARE(entries.size(), 2);
        QCOMPARE(entries.at(0).text, u"newest"_s);
        QCOMPARE(entries.at(1).text, u"oldest"_s);

        // The next dictation is added in front of them instead of replacing them.
        QVERIFY(history.add(u"after"_s));
        entries = history.entries();
        QCOMPARE(entries.size(), 3);
        QCOMPARE(entries.at(0).text, u"after"_s);
        QCOMPARE(entries.at(1).text, u"newest"_s);
        QCOMPARE(entries.at(2).text, u"oldest"_s);
        QCOMPARE(entries.at(2).id, QUuid::fromString(u"3F1A0B4C-8D3E-4F5A-9B6C-7D8E9F0A1B2C"_s));

        qsizetype skipped = -1;
        const auto decoded = HistoryManager::decode("[" + first + "," + bad + "," + last + "]", &skipped);
        QVERIFY(decoded.has_value());
        QCOMPARE(decoded->size(), 2);
        QCOMPARE(skipped, 1);
    }

    void aFailedWriteIsReportedAndLogged()
    {
        // The settings file's folder cannot be made (its parent is a file): as an
        // unwritable or full configuration folder, the write fails. Root ignores modes,
        // so a mode would not do here.
        const QString blocker = m_dir.filePath(u"not-a-folder"_s);
        QFile file(blocker);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        const QString path = blocker + u"/Quillet/Quillet.conf"_s;
        HistoryManager history(std::make_unique<QSettings>(path, QSettings::IniFormat));
        StdoutCapture out;
        QVERIFY(!history.add(u"lost?"_s));
        const QString log = out.text();
        QVERIFY2(log.contains(u"\u2717 [Quillet] could not save the dictation to the history ("_s + path
                     + u": cannot write the file)\n"_s),
            qPrintable(log));
    }

    void valueThatIsNotDataReadsEmpty()
    {
        settings()->setValue(HistoryManager::key, u"[]"_s);
        HistoryManager history(settings());
        QVERIFY(history.entries().isEmpty());
    }

    void extraKeysAndLowerCaseIdsAreRead()
    {
        store(R"([{"date":1.5,"text":"x","id":"2f1a0b4c-8d3e-4f5a-9b6c-7d8e9f0a1b2c","app":"editor"}])");
        HistoryManager history(settings());
        const QList<HistoryEntry> entries = history.entries();
        QCOMPARE(entries.size(), 1);
        QCOMPARE(entries.first().id, QUuid::fromString(u"2F1A0B4C-8D3E-4F5A-9B6C-7D8E9F0A1B2C"_s));
        QCOMPARE(entries.first().date, QDateTime(QDate(2001, 1, 1), QTime(0, 0, 1, 500), Qt::UTC));
    }

    void sameTextTwiceGivesTwoEntries()
    {
        HistoryManager history(settings());
        history.add(u"again"_s);
        history.add(u"again"_s);
        const QList<HistoryEntry> entries = history.entries();
        QCOMPARE(entries.size(), 2);
        QCOMPARE(entries.at(0).text, u"again"_s);
        QCOMPARE(entries.at(1).text, u"again"_s);
        QVERIFY(entries.at(0).id != entries.at(1).id);
    }

    void textIsStoredUnchanged()
    {
        HistoryManager history(settings());
        const QStringList texts { QString(), u"  padded  "_s, u"quotes \" and \\ backslash"_s, u"line\nbreak\ttab"_s,
            u"ünïcödé 🎤 \u2028"_s, u"</script>"_s };
        for (const QString& text : texts)
            history.add(text);
        const QList<HistoryEntry> entries = history.entries();
        QCOMPARE(entries.size(), texts.size());
        for (qsizetype i = 0; i < texts.size(); ++i)
            QCOMPARE(entries.at(i).text, texts.at(texts.size() - 1 - i));
        QCOMPARE(entries.last().text, QString());
        // The stored bytes are valid JSON with the same texts.
        const QJsonArray array = storedArray();
        QCOMPARE(array.size(), texts.size());
        QCOMPARE(array.at(0).toObject().value(u"text"_s).toString(), texts.last());
    }

    void dateZeroIsTheReferenceDate()
    {
        store(R"([{"id":"2F1A0B4C-8D3E-4F5A-9B6C-7D8E9F0A1B2C","text":"epoch","date":0}])");
        HistoryManager history(settings());
        const QList<HistoryEntry> entries = history.entries();
        QCOMPARE(entries.size(), 1);
        QCOMPARE(entries.first().date, QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC));
        QCOMPARE(entries.first().date.toString(Qt::ISODate), u"2001-01-01T00:00:00Z"_s);
    }

    void storedFormHasOrderedKeysUpperCaseIdsAndReferenceSeconds()
    {
        HistoryManager history(settings());
        const QDateTime before = QDateTime::currentDateTimeUtc();
        history.add(u"first"_s);
        history.add(u"second"_s);
        const QByteArray blob = storedBlob();

        static const QRegularExpression entry(
            uR"re(\{"id":"([0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12})","text":"(\w+)","date":([0-9.e+]+)\})re"_s);
        QVERIFY2(QRegularExpression(u"^\\[%1,%1\\]$"_s.arg(entry.pattern())).match(QString::fromUtf8(blob)).hasMatch(),
            blob.constData());
        const QList<HistoryEntry> entries = history.entries();
        auto it = entry.globalMatch(QString::fromUtf8(blob));
        for (const HistoryEntry& expected : entries) {
            const auto match = it.next();
            QCOMPARE(match.captured(1), expected.id.toString(QUuid::WithoutBraces).toUpper());
            QCOMPARE(match.captured(2), expected.text);
            const double seconds = match.captured(3).toDouble();
            const double expectedSeconds = static_cast<double>(before.toSecsSinceEpoch() - 978'307'200);
            QVERIFY2(seconds >= expectedSeconds - 1 && seconds <= expectedSeconds + 60, match.captured(3).toUtf8());
        }
    }

    void encodeDecodeRoundTrip()
    {
        const QList<HistoryEntry> entries {
            { QUuid::createUuid(), u"a"_s, QDateTime(QDate(2024, 5, 17), QTime(9, 30, 12, 345), Qt::UTC) },
            { QUuid::createUuid(), u"b"_s, QDateTime(QDate(1999, 12, 31), QTime(23, 59, 59), Qt::UTC) },
        };
        const QByteArray blob = HistoryManager::encode(entries);
        QCOMPARE(HistoryManager::decode(blob), std::optional<QList<HistoryEntry>>(entries));
        // Whole seconds before the reference date are written as a plain negative number.
        QVERIFY2(blob.contains(R"("date":-31622401})"), blob.constData());
        QVERIFY2(blob.contains(R"("date":737631012.345})"), blob.constData());
    }

    void addWritesToDiskBeforeReturning()
    {
        auto owned = settings();
        HistoryManager history(std::move(owned));
        history.add(u"survives a crash"_s);
        // Read the file itself, not through any QSettings object that may still cache it.
        QFile file(m_path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(file.readAll().contains("survives a crash"));
    }

    void historyOutlivesTheManager()
    {
        {
            HistoryManager history(settings());
            history.add(u"yesterday"_s);
        }
        HistoryManager later(settings());
        QCOMPARE(later.entries().size(), 1);
        QCOMPARE(later.entries().first().text, u"yesterday"_s);
    }

    void sharedInstanceIsOneAndReplaceable()
    {
        auto replacement = std::make_unique<HistoryManager>(settings());
        HistoryManager* raw = replacement.get();
        HistoryManager::resetShared(std::move(replacement));
        QCOMPARE(&HistoryManager::shared(), raw);
        HistoryManager::shared().add(u"through shared"_s);
        QCOMPARE(HistoryManager(settings()).entries().first().text, u"through shared"_s);
    }
};

QTEST_GUILESS_MAIN(TestHistoryManager)
#include "tst_historymanager.moc"
