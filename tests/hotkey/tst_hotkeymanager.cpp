#include "FakeKeyEventSource.h"
#include "StdoutCapture.h"
#include "dictation/HotkeyManager.h"
#include "services/Log.h"
#include "services/SettingsStore.h"

#include <QTemporaryDir>
#include <QtTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr quint64 kFn = 0x800000;
constexpr quint64 kAlt = 0x80000;
constexpr quint64 kCommand = 0x100000;
constexpr quint64 kAlphaShift = 0x10000;
constexpr quint64 kShift = 0x20000;

const auto down = KeyEventType::keyDown;
const auto up = KeyEventType::keyUp;
const auto flags = KeyEventType::flagsChanged;
const auto pass = KeyEventDisposition::pass;
const auto drop = KeyEventDisposition::drop;

class RecordingDelegate : public QObject, public HotkeyManagerDelegate
{
public:
    QStringList calls;
    void hotkeyBegan(bool isToneMode) override { calls << (isToneMode ? u"began(tone)"_s : u"began"_s); }
    void hotkeyEnded() override { calls << u"ended"_s; }
};

} // namespace

class TestHotkeyManager : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_counter = 0;
    std::chrono::steady_clock::time_point m_now;
    std::shared_ptr<FakeKeyEventSource::Record> m_record;
    FakeKeyEventSource* m_source = nullptr; // owned by m_manager
    std::unique_ptr<HotkeyManager> m_manager;
    std::unique_ptr<RecordingDelegate> m_delegate;

    void makeManager(KeyEventSourceStatus answer = KeyEventSourceStatus::started)
    {
        m_record = std::make_shared<FakeKeyEventSource::Record>();
        auto source = std::make_unique<FakeKeyEventSource>(m_record, answer);
        m_source = source.get();
        m_manager = std::make_unique<HotkeyManager>(std::move(source), [this] { return m_now; });
        m_delegate = std::make_unique<RecordingDelegate>();
        m_manager->setDelegate(m_delegate.get());
    }
    void selectHotkey(Hotkey hotkey) { SettingsStore::shared().setHotkey(hotkey); }
    void registerQuietly()
    {
        StdoutCapture out;
        m_manager->registerTap();
    }
    // One tap of fn at the current time: down now, up `held` later.
    void tapFn(std::chrono::milliseconds held = 50ms)
    {
        m_source->send(flags, 63, kFn);
        m_now += held;
        m_source->send(flags, 63, 0);
    }

private Q_SLOTS:
    void initTestCase() { Log::makeStdoutUnbuffered(); }
    void init()
    {
        const QString path = m_dir.filePath(u"settings-%1.ini"_s.arg(++m_counter));
        SettingsStore::resetShared(
            std::make_unique<SettingsStore>(std::make_unique<QSettings>(path, QSettings::IniFormat)));
        m_now = std::chrono::steady_clock::time_point(1000s);
        makeManager();
    }
    void cleanup()
    {
        m_manager.reset();
        SettingsStore::resetShared();
    }

    void registrationStartsTheSourceAndSaysSo()
    {
        StdoutCapture out;
        m_manager->registerTap();
        QCOMPARE(
            out.lines(), QStringList { u"✅ [Quillet] Event tap created (defaultTap) — hotkey monitoring active"_s });
        QCOMPARE(m_record->starts, 1);
        QVERIFY(m_manager->isRegistered());
        QVERIFY(m_source->listening());
        // Once only.
        m_manager->registerTap();
        QCOMPARE(m_record->starts, 1);
        QCOMPARE(out.lines().size(), 1);
    }
    void failedRegistrationLogsTwoLinesAndStaysInert_data()
    {
        QTest::addColumn<KeyEventSourceStatus>("answer");
        QTest::newRow("no display") << KeyEventSourceStatus::noDisplay;
        QTest::newRow("no XInput2") << KeyEventSourceStatus::unsupported;
    }
    void failedRegistrationLogsTwoLinesAndStaysInert()
    {
        QFETCH(KeyEventSourceStatus, answer);
        makeManager(answer);
        StdoutCapture out;
        m_manager->registerTap();
        QCOMPARE(out.lines(),
            (QStringList { u"⚠️ [Quillet] Event tap FAILED — Accessibility permission missing or revoked"_s,
                u"   System Settings → Privacy & Security → Accessibility → enable Quillet"_s }));
        QVERIFY(!m_manager->isRegistered());
        QVERIFY(!m_source->listening());
        m_source->send(flags, 63, kFn);
        QVERIFY(m_delegate->calls.isEmpty());
    }
    void noSourceAtAllIsAFailureToo()
    {
        HotkeyManager manager(nullptr);
        StdoutCapture out;
        manager.registerTap();
        QCOMPARE(out.lines().size(), 2);
        QVERIFY(out.lines().constFirst().startsWith(u"⚠️ [Quillet] Event tap FAILED"_s));
    }
    void theFnKeyIsKeptFromApplicationsOnlyWhileItIsTheHotkey()
    {
        selectHotkey(Hotkey::fn);
        registerQuietly();
        QVERIFY(m_record->fnReserved);
        selectHotkey(Hotkey::rightOption);
        QVERIFY(!m_record->fnReserved);
        selectHotkey(Hotkey::fn);
        QVERIFY(m_record->fnReserved);
    }
    void anotherHotkeyLeavesTheFnKeyAlone()
    {
        selectHotkey(Hotkey::capsLock);
        registerQuietly();
        QVERIFY(!m_record->fnReserved);
    }
    void doubleTapIntervalIsPointFour() { QCOMPARE(m_manager->doubleTapInterval(), 0.4); }

    void everyFlagsChangedEventIsLogged_data()
    {
        QTest::addColumn<Hotkey>("hotkey");
        QTest::addColumn<QString>("raw");
        QTest::newRow("fn") << Hotkey::fn << u"fn"_s;
        QTest::newRow("rightOption") << Hotkey::rightOption << u"rightOption"_s;
        QTest::newRow("rightCommand") << Hotkey::rightCommand << u"rightCommand"_s;
        QTest::newRow("capsLock") << Hotkey::capsLock << u"capsLock"_s;
    }
    void everyFlagsChangedEventIsLogged()
    {
        QFETCH(Hotkey, hotkey);
        QFETCH(QString, raw);
        selectHotkey(hotkey);
        registerQuietly();
        StdoutCapture out;
        m_source->send(flags, 56, kShift);
        m_source->send(down, 1000, kShift);
        m_source->send(up, 1000, kShift);
        m_source->send(flags, 56, 0);
        m_source->send(flags, 61, kAlt | kAlphaShift | kFn | kCommand);
        // 0x80000 + 0x10000 + 0x800000 + 0x100000 = 524288 + 65536 + 8388608 + 1048576
        QCOMPARE(out.lines(),
            (QStringList { u"🔑 [Quillet] flagsChanged keyCode=56 flags=131072 hotkey="_s + raw,
                u"🔑 [Quillet] flagsChanged keyCode=56 flags=0 hotkey="_s + raw,
                u"🔑 [Quillet] flagsChanged keyCode=61 flags=10027008 hotkey="_s + raw }));
    }

    // fn and its double tap.
    void fnPressesCloserThanPointFourAskForToneMode()
    {
        registerQuietly();
        tapFn(100ms);
        m_now += 290ms; // down edges 0.39 s apart
        m_source->send(flags, 63, kFn);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s, u"began(tone)"_s }));
        QVERIFY(m_manager->isHolding());
    }
    void fnPressesPointFourOrMoreApartDoNot_data()
    {
        QTest::addColumn<int>("gapMs");
        QTest::newRow("0.4 s") << 400;
        QTest::newRow("0.41 s") << 410;
        QTest::newRow("3 s") << 3000;
    }
    void fnPressesPointFourOrMoreApartDoNot()
    {
        QFETCH(int, gapMs);
        registerQuietly();
        tapFn(100ms);
        m_now += std::chrono::milliseconds(gapMs) - 100ms;
        m_source->send(flags, 63, kFn);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s, u"began"_s }));
    }
    void theIntervalRunsFromPressToPress()
    {
        registerQuietly();
        // A long first hold: the second press is 0.45 s after the first press,
        // although only 0.05 s after the release.
        tapFn(400ms);
        m_now += 50ms;
        m_source->send(flags, 63, kFn);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s, u"began"_s }));
    }
    void threeQuickTapsMakeOnePairAndAFreshStart()
    {
        registerQuietly();
        tapFn(50ms);
        m_now += 100ms;
        tapFn(50ms);
        m_now += 100ms;
        m_source->send(flags, 63, kFn);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s, u"began(tone)"_s, u"ended"_s, u"began"_s }));
        // ...and the third tap starts a pair of its own with a fourth.
        m_now += 50ms;
        m_source->send(flags, 63, 0);
        m_now += 100ms;
        m_source->send(flags, 63, kFn);
        QCOMPARE(m_delegate->calls.constLast(), u"began(tone)"_s);
    }
    void fnFlagEventsWhileHeldAreNotNewPresses()
    {
        registerQuietly();
        m_source->send(flags, 63, kFn);
        m_source->send(flags, 56, kFn | kShift);
        m_source->send(flags, 56, kFn);
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
        // Any flags event without the fn bit ends the hold, whichever key it came from.
        m_source->send(flags, 56, kShift);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
        // Without a hold, a clear flag reports nothing.
        m_source->send(flags, 56, 0);
        QCOMPARE(m_delegate->calls.size(), 2);
    }
    void fnIgnoresKeyDownAndUpAndPassesEverything()
    {
        registerQuietly();
        QCOMPARE(m_source->send(down, 63, kFn), pass);
        QCOMPARE(m_source->send(up, 63, kFn), pass);
        QVERIFY(m_delegate->calls.isEmpty());
        QVERIFY(!m_manager->isHolding());
        QCOMPARE(m_source->send(flags, 63, kFn), pass);
        QCOMPARE(m_source->send(flags, 63, 0), pass);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
    }
    void onlyFnHasADoubleTap()
    {
        selectHotkey(Hotkey::rightOption);
        registerQuietly();
        for (int i = 0; i < 3; ++i) {
            m_source->send(flags, 61, kAlt);
            m_now += 50ms;
            m_source->send(flags, 61, 0);
            m_now += 50ms;
        }
        QCOMPARE(m_delegate->calls,
            (QStringList { u"began"_s, u"ended"_s, u"began"_s, u"ended"_s, u"began"_s, u"ended"_s }));
    }

    // The modifier hotkeys.
    void rightOptionFollowsItsFlagAndPassesTheEvents()
    {
        selectHotkey(Hotkey::rightOption);
        registerQuietly();
        QCOMPARE(m_source->send(flags, 61, kAlt), pass);
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
        QCOMPARE(m_source->send(flags, 61, kAlt), pass);
        QCOMPARE(m_delegate->calls.size(), 1);
        QCOMPARE(m_source->send(flags, 61, 0), pass);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
    }
    void leftOptionChangesNothing()
    {
        selectHotkey(Hotkey::rightOption);
        registerQuietly();
        QCOMPARE(m_source->send(flags, 58, kAlt), pass);
        QCOMPARE(m_source->send(flags, 58, 0), pass);
        QVERIFY(m_delegate->calls.isEmpty());
        QVERIFY(!m_manager->isHolding());
    }
    void releasingRightOptionWhileLeftIsHeldDoesNotEndTheHold()
    {
        selectHotkey(Hotkey::rightOption);
        registerQuietly();
        m_source->send(flags, 61, kAlt); // right down
        m_source->send(flags, 58, kAlt); // left down
        m_source->send(flags, 61, kAlt); // right up: the left still sets the flag
        m_source->send(flags, 58, 0); // left up: not our key code
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
        QVERIFY(m_manager->isHolding());
        m_source->send(flags, 61, kAlt); // right down again
        m_source->send(flags, 61, 0); // and up, flag clear at last
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
    }
    void rightCommandUsesTheCommandFlag()
    {
        selectHotkey(Hotkey::rightCommand);
        registerQuietly();
        m_source->send(flags, 55, kCommand); // the left one
        m_source->send(flags, 55, 0);
        m_source->send(flags, 54, kAlt); // our key, but another flag
        QVERIFY(m_delegate->calls.isEmpty());
        m_source->send(flags, 54, kCommand);
        m_source->send(flags, 54, 0);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
    }
    void capsLockBeginsOnOnePressAndEndsOnTheNext()
    {
        selectHotkey(Hotkey::capsLock);
        registerQuietly();
        // The lock flag toggles with each press; releases bring no flag change.
        m_source->send(flags, 57, kAlphaShift);
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
        m_source->send(flags, 57, 0);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
        // Other modifiers during the hold carry the lock bit along and change nothing.
        m_source->send(flags, 57, kAlphaShift);
        m_source->send(flags, 56, kAlphaShift | kShift);
        QCOMPARE(m_delegate->calls.size(), 3);
    }

    // Key-down and key-up of the watched key code.
    void keyDownAndUpOfTheWatchedCodeAreSwallowedOnceEach()
    {
        selectHotkey(Hotkey::rightCommand);
        registerQuietly();
        QCOMPARE(m_source->send(down, 54, 0), drop);
        QCOMPARE(m_source->send(down, 54, 0), pass); // auto-repeat while held
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
        QCOMPARE(m_source->send(up, 54, 0), drop);
        QCOMPARE(m_source->send(up, 54, 0), pass); // not holding
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
        // Another key's events are passed and change nothing.
        QCOMPARE(m_source->send(down, 1038, 0), pass);
        QCOMPARE(m_delegate->calls.size(), 2);
    }
    void aGoneDelegateIsSkippedButTheStateStillChanges()
    {
        selectHotkey(Hotkey::rightCommand);
        registerQuietly();
        m_delegate.reset();
        QCOMPARE(m_source->send(down, 54, 0), drop); // swallowed even without a delegate
        QVERIFY(m_manager->isHolding());
        m_delegate = std::make_unique<RecordingDelegate>();
        m_manager->setDelegate(m_delegate.get());
        m_source->send(up, 54, 0);
        QCOMPARE(m_delegate->calls, QStringList { u"ended"_s });
    }
    void unknownEventTypesArePassedUnchanged()
    {
        selectHotkey(Hotkey::rightCommand);
        registerQuietly();
        StdoutCapture out;
        QCOMPARE(m_source->send(static_cast<KeyEventType>(14), 54, kCommand), pass);
        selectHotkey(Hotkey::fn);
        QCOMPARE(m_source->send(static_cast<KeyEventType>(0xFFFFFFFE), 63, kFn), pass);
        QVERIFY(m_delegate->calls.isEmpty());
        QVERIFY(!m_manager->isHolding());
        QVERIFY(out.lines().isEmpty());
    }
    void changingTheHotkeyWhileHoldingDoesNotEndTheHold()
    {
        selectHotkey(Hotkey::rightOption);
        registerQuietly();
        m_source->send(flags, 61, kAlt);
        selectHotkey(Hotkey::rightCommand);
        QVERIFY(m_manager->isHolding());
        // The next event is judged by the new hotkey: right Option's release is another key now.
        StdoutCapture out;
        m_source->send(flags, 61, 0);
        QCOMPARE(out.lines(), QStringList { u"🔑 [Quillet] flagsChanged keyCode=61 flags=0 hotkey=rightCommand"_s });
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
        QVERIFY(m_manager->isHolding());
        m_source->send(flags, 54, kCommand); // already holding: no second begin
        m_source->send(flags, 54, 0);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
    }
    void theSettingIsReadAfreshOnEveryEvent()
    {
        selectHotkey(Hotkey::capsLock);
        registerQuietly();
        m_source->send(flags, 63, kFn);
        QVERIFY(m_delegate->calls.isEmpty());
        selectHotkey(Hotkey::fn);
        m_source->send(flags, 63, kFn);
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
    }
    void shortcutEdgesHoldTheChosenHotkey_data()
    {
        QTest::addColumn<Hotkey>("hotkey");
        QTest::newRow("fn") << Hotkey::fn;
        QTest::newRow("rightOption") << Hotkey::rightOption;
        QTest::newRow("rightCommand") << Hotkey::rightCommand;
    }
    void shortcutEdgesHoldTheChosenHotkey()
    {
        QFETCH(Hotkey, hotkey);
        selectHotkey(hotkey);
        registerQuietly();
        StdoutCapture out;
        QCOMPARE(m_source->send(KeyEventType::shortcutPressed, 0, 0), pass);
        m_source->send(KeyEventType::shortcutPressed, 0, 0); // a binding that repeats while held
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
        QVERIFY(m_manager->isHolding());
        QCOMPARE(m_source->send(KeyEventType::shortcutReleased, 0, 0), pass);
        m_source->send(KeyEventType::shortcutReleased, 0, 0);
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
        QVERIFY(out.lines().contains(u"🔑 [Quillet] shortcut pressed hotkey=%1"_s.arg(Hotkeys::rawValue(hotkey))));
    }
    void shortcutPressesCountForTheDoubleTapOfFn()
    {
        registerQuietly();
        m_manager->shortcutPressed(); // from `quillet --press`
        m_now += 50ms;
        m_manager->shortcutReleased();
        m_now += 250ms;
        m_source->send(KeyEventType::shortcutPressed, 0, 0); // from the portal
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s, u"began(tone)"_s }));
        m_source->send(KeyEventType::shortcutReleased, 0, 0);
        m_now += 100ms;
        m_source->send(flags, 63, kFn); // a key press after a shortcut pair starts afresh
        QCOMPARE(m_delegate->calls.last(), u"began"_s);
    }
    void shortcutPressesOfAnotherHotkeyNeverAskForToneMode()
    {
        selectHotkey(Hotkey::rightOption);
        registerQuietly();
        m_manager->shortcutPressed();
        m_manager->shortcutReleased();
        m_manager->shortcutPressed();
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s, u"began"_s }));
    }
    void capsLockStartsAndStopsOnPressesOnly()
    {
        selectHotkey(Hotkey::capsLock);
        registerQuietly();
        m_manager->shortcutPressed();
        m_manager->shortcutReleased();
        QCOMPARE(m_delegate->calls, QStringList { u"began"_s });
        m_manager->shortcutPressed();
        m_manager->shortcutReleased();
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
    }
    void toggleStartsWhenIdleAndStopsWhenHolding()
    {
        selectHotkey(Hotkey::rightCommand);
        registerQuietly();
        m_manager->shortcutToggled();
        QVERIFY(m_manager->isHolding());
        m_manager->shortcutToggled();
        QVERIFY(!m_manager->isHolding());
        QCOMPARE(m_delegate->calls, (QStringList { u"began"_s, u"ended"_s }));
    }
    void aDesktopThatBindsTheKeyIsToldTheChosenOneAndItsNoticesAreLogged()
    {
        selectHotkey(Hotkey::rightOption);
        registerQuietly();
        QCOMPARE(m_record->preferredTrigger, u"Alt_R"_s);
        QVERIFY(m_record->notice);
        StdoutCapture out;
        m_record->notice(u"GlobalShortcuts portal: \"Hold to dictate\" is bound to Alt_R"_s);
        QCOMPARE(out.lines(),
            QStringList { u"🔑 [Quillet] GlobalShortcuts portal: \"Hold to dictate\" is bound to Alt_R"_s });
        QCOMPARE(HotkeyManager::shortcutTrigger(Hotkey::fn), u"Menu"_s);
        QCOMPARE(HotkeyManager::shortcutTrigger(Hotkey::rightCommand), u"Super_R"_s);
        QCOMPARE(HotkeyManager::shortcutTrigger(Hotkey::capsLock), u"Caps_Lock"_s);
    }
    void destructionStopsTheSource()
    {
        registerQuietly();
        const auto record = m_record;
        m_manager.reset();
        QCOMPARE(record->stops, 1);
    }
};

QTEST_GUILESS_MAIN(TestHotkeyManager)
#include "tst_hotkeymanager.moc"
