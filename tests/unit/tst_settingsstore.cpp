#include "services/SettingsStore.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace Qt::StringLiterals;

class TestSettingsStore : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_counter = 0;
    QString m_path;

    std::unique_ptr<QSettings> settings() { return std::make_unique<QSettings>(m_path, QSettings::IniFormat); }

private Q_SLOTS:
    void init() { m_path = m_dir.filePath(u"settings-%1.ini"_s.arg(++m_counter)); }

    void noStoredValues()
    {
        SettingsStore store(settings());
        QCOMPARE(store.hotkey(), Hotkey::fn);
        QVERIFY(store.micDeviceUID().isNull());
        QVERIFY(store.dictionary().isEmpty());
        // Creation writes nothing back.
        QVERIFY(settings()->allKeys().isEmpty());
    }
    void storedValuesAreLoaded()
    {
        {
            auto s = settings();
            s->setValue(u"hotkey"_s, u"rightCommand"_s);
            s->setValue(u"micDeviceUID"_s, u"alsa_input.usb-mic"_s);
            s->setValue(u"dictionary"_s, QByteArray(R"(["Quillet","PocketSphinx","a, b"])"));
        }
        SettingsStore store(settings());
        QCOMPARE(store.hotkey(), Hotkey::rightCommand);
        QCOMPARE(store.micDeviceUID(), u"alsa_input.usb-mic"_s);
        QCOMPARE(store.dictionary(), (QStringList { u"Quillet"_s, u"PocketSphinx"_s, u"a, b"_s }));
    }
    void unknownHotkeyTextGivesFn()
    {
        settings()->setValue(u"hotkey"_s, u"leftControl"_s);
        SettingsStore store(settings());
        QCOMPARE(store.hotkey(), Hotkey::fn);
        // The bad value stays until the next write.
        QCOMPARE(settings()->value(u"hotkey"_s).toString(), u"leftControl"_s);
    }
    void badDictionaryDataGivesEmptyListAndStays_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::newRow("not json") << QByteArray("Quillet, PocketSphinx");
        QTest::newRow("object") << QByteArray(R"({"a":"b"})");
        QTest::newRow("numbers") << QByteArray("[1,2]");
        QTest::newRow("mixed") << QByteArray(R"(["a",2])");
        QTest::newRow("string") << QByteArray(R"("a")");
    }
    void badDictionaryDataGivesEmptyListAndStays()
    {
        QFETCH(QByteArray, data);
        settings()->setValue(u"dictionary"_s, data);
        SettingsStore store(settings());
        QVERIFY(store.dictionary().isEmpty());
        QCOMPARE(settings()->value(u"dictionary"_s).toByteArray(), data);
        store.setDictionary({ u"Quillet"_s });
        QCOMPARE(settings()->value(u"dictionary"_s).toByteArray(), QByteArray(R"(["Quillet"])"));
    }
    void dictionaryIsOneJsonArray()
    {
        SettingsStore store(settings());
        const QStringList words { u"a, b"_s, u"semi;colon"_s, u"naïve"_s, u""_s };
        store.setDictionary(words);
        QCOMPARE(SettingsStore::decodeDictionary(settings()->value(u"dictionary"_s).toByteArray()), words);
        SettingsStore again(settings());
        QCOMPARE(again.dictionary(), words);
    }
    void systemDefaultRemovesTheKey()
    {
        SettingsStore store(settings());
        store.setMicDeviceUID(u"usb-mic"_s);
        QCOMPARE(settings()->value(u"micDeviceUID"_s).toString(), u"usb-mic"_s);
        store.setMicDeviceUID(QString());
        QVERIFY(!settings()->contains(u"micDeviceUID"_s));
        QVERIFY(store.micDeviceUID().isNull());
    }
    void emptyDeviceTextIsStoredAsText()
    {
        SettingsStore store(settings());
        store.setMicDeviceUID(u""_s);
        QVERIFY(settings()->contains(u"micDeviceUID"_s));
    }
    void everyAssignmentPersistsAndNotifies()
    {
        SettingsStore store(settings());
        QSignalSpy hotkeySpy(&store, &SettingsStore::hotkeyChanged);
        QSignalSpy uidSpy(&store, &SettingsStore::micDeviceUIDChanged);
        QSignalSpy dictionarySpy(&store, &SettingsStore::dictionaryChanged);

        store.setHotkey(Hotkey::fn); // equal to the current value
        QCOMPARE(hotkeySpy.count(), 1);
        QCOMPARE(settings()->value(u"hotkey"_s).toString(), u"fn"_s);

        // Someone else changed the stored entry; assigning the same value writes it again.
        settings()->setValue(u"hotkey"_s, u"junk"_s);
        store.setHotkey(Hotkey::fn);
        QCOMPARE(hotkeySpy.count(), 2);
        QCOMPARE(settings()->value(u"hotkey"_s).toString(), u"fn"_s);

        store.setHotkey(Hotkey::capsLock);
        QCOMPARE(hotkeySpy.count(), 3);
        QCOMPARE(settings()->value(u"hotkey"_s).toString(), u"capsLock"_s);

        store.setMicDeviceUID(QString());
        store.setMicDeviceUID(QString());
        QCOMPARE(uidSpy.count(), 2);
        store.setDictionary({});
        QCOMPARE(dictionarySpy.count(), 1);
        QCOMPARE(settings()->value(u"dictionary"_s).toByteArray(), QByteArray("[]"));
    }
    void propertiesAreObservable()
    {
        SettingsStore store(settings());
        QSignalSpy spy(&store, &SettingsStore::hotkeyChanged);
        QVERIFY(store.setProperty("hotkey", QVariant::fromValue(Hotkey::rightOption)));
        QCOMPARE(store.hotkey(), Hotkey::rightOption);
        QCOMPARE(spy.count(), 1);
        QCOMPARE(store.property("micDeviceUID").toString(), QString());
    }
    void sharedInstanceReadsTheUsersSettings()
    {
        QStandardPaths::setTestModeEnabled(true);
        QSettings(u"Quillet"_s, u"Quillet"_s).setValue(u"hotkey"_s, u"capsLock"_s);
        SettingsStore::resetShared();
        QCOMPARE(SettingsStore::shared().hotkey(), Hotkey::capsLock);
        QCOMPARE(&SettingsStore::shared(), &SettingsStore::shared());
        QSettings(u"Quillet"_s, u"Quillet"_s).clear();
        SettingsStore::resetShared();
    }
};

QTEST_GUILESS_MAIN(TestSettingsStore)
#include "tst_settingsstore.moc"
