// The real key event source in a headless X session: keys pressed through XTest
// (xdotool) must arrive as the flags-changed and key events the hotkey monitor expects.
#include "StdoutCapture.h"
#include "dictation/HotkeyManager.h"
#include "platform/KeyEventSource.h"
#include "platform/PasteKeystroke.h"
#include "services/Log.h"
#include "services/SettingsStore.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <map>
#include <vector>

#include <X11/XF86keysym.h>
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>
#include <X11/keysym.h>

using namespace Qt::StringLiterals;

namespace {

QString describe(const KeyEvent& event)
{
    switch (event.type) {
    case KeyEventType::keyDown:
        return u"down %1 flags=0x%2"_s.arg(event.keyCode).arg(event.flags, 0, 16);
    case KeyEventType::keyUp:
        return u"up %1 flags=0x%2"_s.arg(event.keyCode).arg(event.flags, 0, 16);
    case KeyEventType::flagsChanged:
        return u"flagsChanged %1 flags=0x%2"_s.arg(event.keyCode).arg(event.flags, 0, 16);
    }
    return u"type %1"_s.arg(static_cast<quint32>(event.type));
}

bool run(const QString& program, const QStringList& args)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(20000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        qWarning().noquote() << program << args.join(u' ') << "failed:" << process.readAllStandardError();
        return false;
    }
    return true;
}

bool xdotool(const QStringList& args)
{
    return run(u"xdotool"_s, args);
}

// Counts the raw key presses the X server sends, repeats included, on a
// connection of its own: the witness that keys really repeated or were sent.
class RawPressCounter
{
public:
    RawPressCounter()
        : m_display(XOpenDisplay(nullptr))
    {
        if (!m_display)
            return;
        unsigned char mask[XIMaskLen(XI_LASTEVENT)] = {};
        XISetMask(mask, XI_RawKeyPress);
        XIEventMask eventMask { XIAllMasterDevices, static_cast<int>(sizeof mask), mask };
        XISelectEvents(m_display, DefaultRootWindow(m_display), &eventMask, 1);
        XSync(m_display, False);
    }
    ~RawPressCounter()
    {
        if (m_display)
            XCloseDisplay(m_display);
    }
    RawPressCounter(const RawPressCounter&) = delete;
    RawPressCounter& operator=(const RawPressCounter&) = delete;

    // Raw presses of the X keycode seen so far.
    int presses(unsigned keycode)
    {
        if (!m_display)
            return -1;
        XSync(m_display, False);
        while (XPending(m_display) > 0) {
            XEvent event;
            XNextEvent(m_display, &event);
            if (event.xcookie.type == GenericEvent && XGetEventData(m_display, &event.xcookie)) {
                if (event.xcookie.evtype == XI_RawKeyPress)
                    ++m_counts[static_cast<const XIRawEvent*>(event.xcookie.data)->detail];
                XFreeEventData(m_display, &event.xcookie);
            }
        }
        return m_counts[static_cast<int>(keycode)];
    }

private:
    Display* m_display;
    std::map<int, int> m_counts;
};

class RecordingDelegate : public QObject, public HotkeyManagerDelegate
{
public:
    QStringList calls;
    void hotkeyBegan(bool isToneMode) override { calls << (isToneMode ? u"began(tone)"_s : u"began"_s); }
    void hotkeyEnded() override { calls << u"ended"_s; }
};

} // namespace

class TestHotkeyXInput2 : public QObject
{
    Q_OBJECT

    Display* m_x = nullptr; // this test's own connection: keymap checks and XTest presses
    std::unique_ptr<KeyEventSource> m_source;
    std::vector<KeyEvent> m_events;
    qint64 m_sentinelCode = 0;
    QTemporaryDir m_dir;

    void startSource()
    {
        m_events.clear();
        m_source = makeSystemKeyEventSource();
        const KeyEventSourceStatus status = m_source->start([this](const KeyEvent& event) {
            m_events.push_back(event);
            return KeyEventDisposition::pass;
        });
        QCOMPARE(status, KeyEventSourceStatus::started);
        QVERIFY(!m_source->canDrop());
    }

    // What the source reported since the last call. A tap of the sentinel key (F12)
    // goes after everything pressed so far; once its release is in, so is all the rest.
    QStringList settle()
    {
        const size_t from = m_events.size();
        if (!xdotool({ u"key"_s, u"F12"_s }))
            return { u"xdotool failed"_s };
        const auto sentinelUp = [&] {
            for (size_t i = from; i < m_events.size(); ++i) {
                if (m_events[i].type == KeyEventType::keyUp && m_events[i].keyCode == m_sentinelCode)
                    return true;
            }
            return false;
        };
        if (!QTest::qWaitFor(sentinelUp, 10000))
            return { u"the sentinel key never arrived"_s };
        QStringList seen;
        for (const KeyEvent& event : m_events) {
            if (event.keyCode != m_sentinelCode)
                seen << describe(event);
        }
        m_events.clear();
        qInfo().noquote() << "seen:" << seen.join(u", ");
        return seen;
    }

    unsigned keycodeNamed(const char* xkbName)
    {
        XkbDescPtr desc = XkbGetMap(m_x, 0, XkbUseCoreKbd);
        if (!desc)
            return 0;
        unsigned found = 0;
        if (XkbGetNames(m_x, XkbKeyNamesMask, desc) == Success) {
            for (unsigned code = desc->min_key_code; code <= desc->max_key_code; ++code) {
                if (std::strncmp(desc->names->keys[code].name, xkbName, XkbKeyNameLength) == 0)
                    found = code;
            }
        }
        XkbFreeKeyboard(desc, 0, True);
        return found;
    }

    // A physical key for xdotool, by its X keycode. Given a modifier's symbol
    // (Alt_R), xdotool also presses and releases the first key of that modifier
    // (left Alt) around it, which is not what a user does.
    QString key(const char* xkbName)
    {
        const unsigned code = keycodeNamed(xkbName);
        return code ? QString::number(code) : u"NoSuchKey"_s;
    }

    KeySym firstSymbolOf(unsigned keycode)
    {
        XkbDescPtr desc = XkbGetMap(m_x, XkbKeySymsMask, XkbUseCoreKbd);
        if (!desc)
            return NoSymbol;
        const KeySym sym = XkbKeyNumSyms(desc, keycode) > 0 ? XkbKeySymEntry(desc, keycode, 0, 0) : NoSymbol;
        XkbFreeKeyboard(desc, 0, True);
        return sym;
    }

    bool capsLockedOnServer()
    {
        XkbStateRec state {};
        XkbGetState(m_x, XkbUseCoreKbd, &state);
        return (state.locked_mods & LockMask) != 0;
    }

    QString keymapFile() const { return m_dir.filePath(u"original.xkb"_s); }

private Q_SLOTS:
    void initTestCase()
    {
        Log::makeStdoutUnbuffered();
        QVERIFY2(qEnvironmentVariableIsSet("DISPLAY"), "run me inside scripts/desktop-session.sh");
        m_x = XOpenDisplay(nullptr);
        QVERIFY(m_x);
        // The keymap as the session started, to put back after the tests that change it.
        QVERIFY(run(u"xkbcomp"_s, { u"-xkb"_s, qEnvironmentVariable("DISPLAY"), keymapFile() }));
        startSource();
        QVERIFY(xdotool({ u"key"_s, u"F12"_s }));
        QVERIFY(QTest::qWaitFor([&] { return m_events.size() >= 2; }, 10000));
        QCOMPARE(m_events[0].type, KeyEventType::keyDown);
        QCOMPARE(m_events[1].type, KeyEventType::keyUp);
        QCOMPARE(m_events[1].keyCode, m_events[0].keyCode);
        m_sentinelCode = m_events[0].keyCode;
        for (qint64 code : { 54, 55, 56, 57, 58, 59, 60, 61, 62, 63 })
            QVERIFY(m_sentinelCode != code);
        m_source.reset();
    }
    void init() { startSource(); }
    void cleanup()
    {
        m_source.reset();
        // Whatever a failed test left held or switched, release it.
        xdotool({ u"keyup"_s, key("RALT"), key("LALT"), key("RWIN"), u"a"_s });
        if (capsLockedOnServer())
            xdotool({ u"key"_s, u"Caps_Lock"_s });
        SettingsStore::resetShared();
    }
    void cleanupTestCase()
    {
        if (m_x)
            XCloseDisplay(m_x);
    }

    void modifiersComeAsFlagsChangedWithEveryHeldModifier()
    {
        QVERIFY(xdotool({ u"keydown"_s, key("RALT") }));
        QVERIFY(xdotool({ u"keyup"_s, key("RALT") }));
        QVERIFY(xdotool({ u"keydown"_s, key("LALT") }));
        QVERIFY(xdotool({ u"keyup"_s, key("LALT") }));
        QVERIFY(xdotool({ u"keydown"_s, key("RWIN") }));
        QVERIFY(xdotool({ u"keydown"_s, key("RALT") }));
        QVERIFY(xdotool({ u"keyup"_s, key("RWIN") }));
        QVERIFY(xdotool({ u"keyup"_s, key("RALT") }));
        QCOMPARE(settle(),
            (QStringList { u"flagsChanged 61 flags=0x80000"_s, u"flagsChanged 61 flags=0x0"_s,
                u"flagsChanged 58 flags=0x80000"_s, u"flagsChanged 58 flags=0x0"_s, u"flagsChanged 54 flags=0x100000"_s,
                u"flagsChanged 61 flags=0x180000"_s, u"flagsChanged 54 flags=0x80000"_s,
                u"flagsChanged 61 flags=0x0"_s }));
    }
    void xdotoolsOwnWayWithModifierSymbolsIsHandledToo()
    {
        // xdotool keydown Alt_R: left Alt down, right Alt down, left Alt up.
        QVERIFY(xdotool({ u"keydown"_s, u"Alt_R"_s }));
        QVERIFY(xdotool({ u"keyup"_s, u"Alt_R"_s }));
        const QStringList seen = settle();
        QVERIFY2(seen.contains(u"flagsChanged 61 flags=0x80000"_s), qPrintable(seen.join(u", ")));
        QCOMPARE(seen.constLast(), u"flagsChanged 61 flags=0x0"_s);
    }
    void capsLockFollowsTheLockState()
    {
        QVERIFY(!capsLockedOnServer());
        QVERIFY(xdotool({ u"key"_s, u"Caps_Lock"_s }));
        QCOMPARE(settle(), QStringList { u"flagsChanged 57 flags=0x10000"_s });
        QVERIFY(capsLockedOnServer());
        // Other events carry the lock bit while it is on.
        QVERIFY(xdotool({ u"key"_s, key("RALT") }));
        QCOMPARE(settle(), (QStringList { u"flagsChanged 61 flags=0x90000"_s, u"flagsChanged 61 flags=0x10000"_s }));
        QVERIFY(xdotool({ u"key"_s, u"Caps_Lock"_s }));
        QCOMPARE(settle(), QStringList { u"flagsChanged 57 flags=0x0"_s });
        QVERIFY(!capsLockedOnServer());
    }
    void aSourceStartedWithCapsLockOnKnowsIt()
    {
        QVERIFY(xdotool({ u"key"_s, u"Caps_Lock"_s }));
        settle();
        QVERIFY(capsLockedOnServer());
        startSource();
        QVERIFY(xdotool({ u"key"_s, u"Caps_Lock"_s }));
        QCOMPARE(settle(), QStringList { u"flagsChanged 57 flags=0x0"_s });
    }
    void theWakeUpKeyAndTheMenuKeyAreBothFn()
    {
        if (XKeysymToKeycode(m_x, XF86XK_WakeUp) == 0)
            QSKIP("this X server's keymap has no XF86WakeUp key");
        QVERIFY(xdotool({ u"keydown"_s, u"XF86WakeUp"_s }));
        QVERIFY(xdotool({ u"keyup"_s, u"XF86WakeUp"_s }));
        QVERIFY(xdotool({ u"keydown"_s, u"Menu"_s }));
        QVERIFY(xdotool({ u"keyup"_s, u"Menu"_s }));
        QCOMPARE(settle(),
            (QStringList { u"flagsChanged 63 flags=0x800000"_s, u"flagsChanged 63 flags=0x0"_s,
                u"flagsChanged 63 flags=0x800000"_s, u"flagsChanged 63 flags=0x0"_s }));
    }
    void withoutAnFnKeyMenuStandsIn()
    {
        // The same keymap with the wake-up key's symbol taken away, loaded while the source runs.
        QFile original(keymapFile());
        QVERIFY(original.open(QIODevice::ReadOnly));
        QByteArray keymap = original.readAll();
        QVERIFY(keymap.contains("XF86WakeUp"));
        keymap.replace("XF86WakeUp", "NoSymbol");
        const QString edited = m_dir.filePath(u"no-fn.xkb"_s);
        QFile out(edited);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(keymap);
        out.close();
        QVERIFY(run(u"xkbcomp"_s, { u"-w"_s, u"0"_s, edited, qEnvironmentVariable("DISPLAY") }));
        const unsigned menu = keycodeNamed("COMP") ? keycodeNamed("COMP") : keycodeNamed("MENU");
        QVERIFY(menu != 0);

        QVERIFY(xdotool({ u"keydown"_s, u"Menu"_s }));
        QVERIFY(xdotool({ u"keyup"_s, u"Menu"_s }));
        const QStringList seen = settle();
        QVERIFY(run(u"xkbcomp"_s, { u"-w"_s, u"0"_s, keymapFile(), qEnvironmentVariable("DISPLAY") }));
        QCOMPARE(seen, (QStringList { u"flagsChanged 63 flags=0x800000"_s, u"flagsChanged 63 flags=0x0"_s }));
    }
    void rightAltIsKnownByItsPlaceOnAGermanLayout()
    {
        QVERIFY(run(u"setxkbmap"_s, { u"-layout"_s, u"de"_s }));
        const unsigned ralt = keycodeNamed("RALT");
        QVERIFY(ralt != 0);
        // Right Alt is AltGr here: the layout no longer calls it Alt_R.
        QCOMPARE(firstSymbolOf(ralt), static_cast<KeySym>(XK_ISO_Level3_Shift));
        QVERIFY(xdotool({ u"keydown"_s, QString::number(ralt) }));
        QVERIFY(xdotool({ u"keyup"_s, QString::number(ralt) }));
        const QStringList seen = settle();
        QVERIFY(run(u"setxkbmap"_s, { u"-layout"_s, u"us"_s }));
        QCOMPARE(seen, (QStringList { u"flagsChanged 61 flags=0x80000"_s, u"flagsChanged 61 flags=0x0"_s }));
    }
    void aHeldKeyArrivesOnceThoughItRepeats()
    {
        RawPressCounter counter;
        // Fast repeat, and repeat for right Alt too (modifiers do not repeat by default).
        const unsigned ralt = keycodeNamed("RALT");
        const unsigned a = XKeysymToKeycode(m_x, XK_a);
        QVERIFY(run(u"xset"_s, { u"r"_s, u"rate"_s, u"200"_s, u"30"_s }));
        QVERIFY(run(u"xset"_s, { u"r"_s, QString::number(ralt) }));
        QVERIFY(xdotool({ u"keydown"_s, QString::number(ralt) }));
        QTest::qWait(1000);
        QVERIFY(xdotool({ u"keyup"_s, QString::number(ralt) }));
        QVERIFY(xdotool({ u"keydown"_s, u"a"_s }));
        QTest::qWait(1000);
        QVERIFY(xdotool({ u"keyup"_s, u"a"_s }));
        QCOMPARE(settle(),
            (QStringList { u"flagsChanged 61 flags=0x80000"_s, u"flagsChanged 61 flags=0x0"_s,
                u"down %1 flags=0x0"_s.arg(1000 + a), u"up %1 flags=0x0"_s.arg(1000 + a) }));
        qInfo("raw presses during the one-second holds (more than 1 means the server repeated): right Alt %d, a %d",
            counter.presses(ralt), counter.presses(a));
        run(u"xset"_s, { u"-r"_s, QString::number(ralt) });
        // Xvfb does not repeat keys held through XTest, nor does it pass on a second
        // XTest press of a held key; tst_keyboardstate covers repeated raw presses.
    }
    void ourOwnPasteKeystrokeNeitherBeginsNorEnds()
    {
        m_source.reset();
        SettingsStore::resetShared(std::make_unique<SettingsStore>(
            std::make_unique<QSettings>(m_dir.filePath(u"paste.ini"_s), QSettings::IniFormat)));
        SettingsStore::shared().setHotkey(Hotkey::rightOption);
        RawPressCounter counter;
        RecordingDelegate delegate;
        StdoutCapture out;
        HotkeyManager manager(makeSystemKeyEventSource());
        manager.setDelegate(&delegate);
        manager.registerTap();
        QVERIFY(manager.isRegistered());

        // The user holds right Alt and dictates; the text goes in with a synthetic
        // Control+V, which lets go of right Alt and presses it again around the chord.
        QVERIFY(xdotool({ u"keydown"_s, key("RALT") }));
        QTRY_COMPARE(delegate.calls, QStringList { u"began"_s });
        makeSystemPasteKeystroke()->post();
        // The user's own Control press afterwards, through the same XTest device, is not ours.
        QVERIFY(xdotool({ u"key"_s, key("LCTL") }));
        const QString lastLine = u"🔑 [Quillet] flagsChanged keyCode=59 flags=524288 hotkey=rightOption"_s;
        QTRY_VERIFY(out.lines().contains(lastLine));
        QCOMPARE(delegate.calls, QStringList { u"began"_s });
        QVERIFY(manager.isHolding());
        // The paste really went out: the X server saw its V.
        QCOMPARE(counter.presses(XKeysymToKeycode(m_x, XK_v)), 1);
        QCOMPARE(counter.presses(XKeysymToKeycode(m_x, XK_Control_L)), 2);

        QVERIFY(xdotool({ u"keyup"_s, key("RALT") }));
        QTRY_COMPARE(delegate.calls, (QStringList { u"began"_s, u"ended"_s }));
        QCOMPARE(out.lines(),
            (QStringList { u"✅ [Quillet] Event tap created (defaultTap) — hotkey monitoring active"_s,
                u"🔑 [Quillet] flagsChanged keyCode=61 flags=524288 hotkey=rightOption"_s,
                u"🔑 [Quillet] flagsChanged keyCode=59 flags=786432 hotkey=rightOption"_s, lastLine,
                u"🔑 [Quillet] flagsChanged keyCode=61 flags=0 hotkey=rightOption"_s }));
    }
    void fnDoubleTapThroughTheRealSource()
    {
        if (XKeysymToKeycode(m_x, XF86XK_WakeUp) == 0)
            QSKIP("this X server's keymap has no XF86WakeUp key");
        m_source.reset();
        SettingsStore::resetShared(std::make_unique<SettingsStore>(
            std::make_unique<QSettings>(m_dir.filePath(u"fn.ini"_s), QSettings::IniFormat)));
        // A clock that moves only when told, so the taps are 0.1 s apart whatever the machine does.
        auto now = std::chrono::steady_clock::time_point(std::chrono::seconds(50));
        RecordingDelegate delegate;
        StdoutCapture out;
        HotkeyManager manager(makeSystemKeyEventSource(), [&now] { return now; });
        manager.setDelegate(&delegate);
        manager.registerTap();
        QVERIFY(xdotool({ u"key"_s, u"XF86WakeUp"_s }));
        QTRY_COMPARE(delegate.calls.size(), 2);
        now += std::chrono::milliseconds(100);
        QVERIFY(xdotool({ u"key"_s, u"XF86WakeUp"_s }));
        QTRY_COMPARE(delegate.calls, (QStringList { u"began"_s, u"ended"_s, u"began(tone)"_s, u"ended"_s }));
    }
    void withoutADisplayNothingStartsAndNothingCrashes()
    {
        m_source.reset();
        const QByteArray display = qgetenv("DISPLAY");
        qunsetenv("DISPLAY");
        StdoutCapture out;
        {
            HotkeyManager manager(makeSystemKeyEventSource());
            manager.registerTap();
            QVERIFY(!manager.isRegistered());
        }
        qputenv("DISPLAY", display);
        QCOMPARE(out.lines(),
            (QStringList { u"⚠️ [Quillet] Event tap FAILED — Accessibility permission missing or revoked"_s,
                u"   System Settings → Privacy & Security → Accessibility → enable Quillet"_s }));
    }
};

QTEST_GUILESS_MAIN(TestHotkeyXInput2)
#include "tst_hotkey_xinput2.moc"
