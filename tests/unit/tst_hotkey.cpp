#include "services/Hotkey.h"

#include <QSet>
#include <QtTest>

using namespace Qt::StringLiterals;

class TestHotkey : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void allCasesInPickerOrder()
    {
        QCOMPARE(Hotkeys::allCases.size(), size_t(4));
        QCOMPARE(Hotkeys::allCases[0], Hotkey::fn);
        QCOMPARE(Hotkeys::allCases[1], Hotkey::rightOption);
        QCOMPARE(Hotkeys::allCases[2], Hotkey::rightCommand);
        QCOMPARE(Hotkeys::allCases[3], Hotkey::capsLock);
    }
    void table_data()
    {
        QTest::addColumn<Hotkey>("hotkey");
        QTest::addColumn<QString>("raw");
        QTest::addColumn<QString>("display");
        QTest::addColumn<qint64>("keyCode");
        QTest::addColumn<quint64>("flag");
        QTest::newRow("fn") << Hotkey::fn << u"fn"_s << u"fn"_s << qint64(-1) << quint64(0x800000);
        QTest::newRow("rightOption") << Hotkey::rightOption << u"rightOption"_s << u"Right Option (⌥)"_s << qint64(61)
                                     << quint64(0x80000);
        QTest::newRow("rightCommand") << Hotkey::rightCommand << u"rightCommand"_s << u"Right Command (⌘)"_s
                                      << qint64(54) << quint64(0x100000);
        QTest::newRow("capsLock") << Hotkey::capsLock << u"capsLock"_s << u"Caps Lock"_s << qint64(57)
                                  << quint64(0x10000);
    }
    void table()
    {
        QFETCH(Hotkey, hotkey);
        QFETCH(QString, raw);
        QFETCH(QString, display);
        QFETCH(qint64, keyCode);
        QFETCH(quint64, flag);
        QCOMPARE(Hotkeys::rawValue(hotkey), raw);
        QCOMPARE(Hotkeys::displayName(hotkey), display);
        QCOMPARE(Hotkeys::keyCode(hotkey), keyCode);
        QCOMPARE(Hotkeys::modifierFlag(hotkey), flag);
        QCOMPARE(Hotkeys::fromRawValue(raw), std::optional<Hotkey>(hotkey));
    }
    void unknownTextGivesNoHotkey_data()
    {
        QTest::addColumn<QString>("raw");
        for (const char* raw : { "", "Fn", "FN", " fn", "fn ", "rightoption", "leftOption", "capslock", "f" })
            QTest::newRow(raw) << QString::fromLatin1(raw);
    }
    void unknownTextGivesNoHotkey()
    {
        QFETCH(QString, raw);
        QCOMPARE(Hotkeys::fromRawValue(raw), std::nullopt);
    }
    void equalityAndHashingFollowTheRawValue()
    {
        QSet<Hotkey> set;
        for (Hotkey key : Hotkeys::allCases)
            set.insert(*Hotkeys::fromRawValue(Hotkeys::rawValue(key)));
        set.insert(Hotkey::fn);
        QCOMPARE(set.size(), 4);
        QVERIFY(Hotkeys::fromRawValue(u"capsLock"_s) == Hotkey::capsLock);
        QVERIFY(Hotkeys::fromRawValue(u"capsLock"_s) != Hotkey::fn);
    }
};

QTEST_GUILESS_MAIN(TestHotkey)
#include "tst_hotkey.moc"
