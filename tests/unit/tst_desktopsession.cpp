#include "platform/DesktopSession.h"
#include "platform/PasteKeystroke.h"

#include <QtTest>

using namespace Qt::StringLiterals;
using DesktopSession::Routes;
using DesktopSession::Type;

// The choice of session and routes, from the environment and what the compositor offers.
class TestDesktopSession : public QObject
{
    Q_OBJECT
private:
    static Routes waylandWithEverything()
    {
        Routes routes;
        routes.type = Type::wayland;
        routes.xDisplay = true;
        routes.dataControl = true;
        routes.clipboardTools = true;
        routes.virtualKeyboard = true;
        routes.keystrokeTool = true;
        return routes;
    }

private Q_SLOTS:
    void sessionType_data()
    {
        QTest::addColumn<QString>("waylandDisplay");
        QTest::addColumn<QString>("sessionType");
        QTest::addColumn<Type>("expected");
        QTest::newRow("plain X") << QString() << QString() << Type::x11;
        QTest::newRow("X named") << QString() << u"x11"_s << Type::x11;
        QTest::newRow("compositor socket") << u"wayland-0"_s << QString() << Type::wayland;
        QTest::newRow("session says wayland") << QString() << u"wayland"_s << Type::wayland;
        QTest::newRow("either is enough") << u"wayland-1"_s << u"x11"_s << Type::wayland;
        QTest::newRow("tty login") << QString() << u"tty"_s << Type::x11;
    }
    void sessionType()
    {
        QFETCH(QString, waylandDisplay);
        QFETCH(QString, sessionType);
        QFETCH(Type, expected);
        QCOMPARE(DesktopSession::typeFrom(waylandDisplay, sessionType), expected);
    }

    void windowsGoThroughXwaylandOnlyWhereItRunsAndNobodyChoseOtherwise()
    {
        QCOMPARE(DesktopSession::guiPlatformFor(Type::wayland, true, false), u"xcb"_s);
        QCOMPARE(DesktopSession::guiPlatformFor(Type::wayland, false, false), u"wayland;offscreen"_s);
        QCOMPARE(DesktopSession::guiPlatformFor(Type::wayland, true, true), QString());
        QCOMPARE(DesktopSession::guiPlatformFor(Type::x11, true, false), QString());
    }

    void x11NamesItsRoutesAndLacksNone()
    {
        Routes routes;
        routes.xDisplay = true;
        QCOMPARE(DesktopSession::describe(routes),
            u"desktop session x11: hotkey from XInput2 raw key events; text through AT-SPI, else the clipboard and an "
            "XTest paste keystroke; capsule as an override-redirect window"_s);
        QVERIFY(DesktopSession::missingRoutes(routes).isEmpty());
    }

    void waylandWithEveryRoute()
    {
        const Routes routes = waylandWithEverything();
        QCOMPARE(DesktopSession::describe(routes),
            u"desktop session wayland: hotkey from the GlobalShortcuts portal where the desktop has one, and from "
            "compositor bindings (quillet --press, --release, --toggle); text through AT-SPI, else wl-copy and a wtype "
            "paste keystroke; capsule as an override-redirect window "
            "through Xwayland"_s);
        QVERIFY(DesktopSession::missingRoutes(routes).isEmpty());
    }

    void waylandWithoutXwaylandHasNoCapsule()
    {
        Routes routes = waylandWithEverything();
        routes.xDisplay = false;
        QVERIFY(DesktopSession::describe(routes).endsWith(u"; no capsule"_s));
        const QStringList missing = DesktopSession::missingRoutes(routes);
        QCOMPARE(missing.size(), 1);
        QVERIFY(missing.first().startsWith(u"no Xwayland (DISPLAY is not set): dictation runs without its capsule"_s));
    }

    void waylandWithoutDataControlKeepsTheTextInTheHistory()
    {
        // GNOME's compositor: no data-control and no virtual keyboard, though the tools are installed.
        Routes routes = waylandWithEverything();
        routes.dataControl = false;
        routes.virtualKeyboard = false;
        QVERIFY(DesktopSession::describe(routes).contains(u"text through AT-SPI; capsule"_s));
        QCOMPARE(DesktopSession::missingRoutes(routes),
            QStringList { u"the compositor offers no data-control clipboard: text AT-SPI cannot insert is kept in the "
                          "history only (quillet --history)"_s });
    }

    void waylandWithoutWtypeLeavesTheTextOnTheClipboard()
    {
        Routes routes = waylandWithEverything();
        routes.keystrokeTool = false;
        QVERIFY(DesktopSession::describe(routes).contains(u"else left on the clipboard by wl-copy"_s));
        QCOMPARE(DesktopSession::missingRoutes(routes),
            QStringList { u"wtype is missing (package wtype): text AT-SPI cannot insert is left on the clipboard, "
                          "to paste by hand"_s });
        routes.keystrokeTool = true;
        routes.virtualKeyboard = false;
        QCOMPARE(DesktopSession::missingRoutes(routes),
            QStringList { u"the compositor accepts no virtual keyboard and the desktop offers no RemoteDesktop "
                          "portal: text AT-SPI cannot insert is left on the clipboard, to paste by hand"_s });
    }

    void kdeTypesThroughTheRemoteDesktopPortal()
    {
        // KWin: data-control but no virtual keyboard; its portal offers a keyboard.
        Routes routes = waylandWithEverything();
        routes.virtualKeyboard = false;
        routes.remoteDesktopKeyboard = true;
        QVERIFY(routes.portalKeystroke());
        QVERIFY(!routes.wtypeKeystroke());
        QCOMPARE(DesktopSession::describe(routes),
            u"desktop session wayland: hotkey from the GlobalShortcuts portal where the desktop has one, and from "
            "compositor bindings (quillet --press, --release, --toggle); text through AT-SPI, else wl-copy and a paste "
            "keystroke through the RemoteDesktop portal; capsule as an override-redirect window through Xwayland"_s);
        QVERIFY(DesktopSession::missingRoutes(routes).isEmpty());
        // Without wtype on the PATH it is the same.
        routes.keystrokeTool = false;
        QVERIFY(routes.portalKeystroke());
        QVERIFY(DesktopSession::missingRoutes(routes).isEmpty());
    }

    void aVirtualKeyboardWinsOverThePortal()
    {
        // A compositor with both (Hyprland with a portal that offers RemoteDesktop): wtype, as on sway.
        Routes routes = waylandWithEverything();
        routes.remoteDesktopKeyboard = true;
        QVERIFY(routes.wtypeKeystroke());
        QVERIFY(!routes.portalKeystroke());
        QVERIFY(DesktopSession::describe(routes).contains(u"else wl-copy and a wtype paste keystroke;"_s));
        // Where wtype is missing there, installing it is the advice, not the portal.
        routes.keystrokeTool = false;
        QVERIFY(!routes.portalKeystroke());
        QCOMPARE(DesktopSession::missingRoutes(routes),
            QStringList { u"wtype is missing (package wtype): text AT-SPI cannot insert is left on the clipboard, "
                          "to paste by hand"_s });
    }

    void thePortalKeystrokeNeedsTheClipboard()
    {
        // Mutter: a RemoteDesktop portal, but no data-control to put the text on the clipboard.
        Routes routes = waylandWithEverything();
        routes.dataControl = false;
        routes.virtualKeyboard = false;
        routes.remoteDesktopKeyboard = true;
        QVERIFY(!routes.portalKeystroke());
        QVERIFY(!routes.waylandKeystroke());
        QVERIFY(DesktopSession::describe(routes).contains(u"text through AT-SPI; capsule"_s));
        QCOMPARE(DesktopSession::missingRoutes(routes),
            QStringList { u"the compositor offers no data-control clipboard: text AT-SPI cannot insert is kept in the "
                          "history only (quillet --history)"_s });
    }

    void thePasteChordKeyByKey()
    {
        // X keysyms: Control_L, Shift_L, v.
        const QList<PasteKeyEdge> plain { { 0xffe3, true }, { 0x76, true }, { 0x76, false }, { 0xffe3, false } };
        QCOMPARE(pasteChordKeysyms(false), plain);
        const QList<PasteKeyEdge> terminal { { 0xffe3, true }, { 0xffe1, true }, { 0x76, true }, { 0x76, false },
            { 0xffe1, false }, { 0xffe3, false } };
        QCOMPARE(pasteChordKeysyms(true), terminal);
    }

    void waylandWithoutTheClipboardClients()
    {
        Routes routes = waylandWithEverything();
        routes.clipboardTools = false;
        QCOMPARE(DesktopSession::missingRoutes(routes),
            QStringList { u"wl-copy or wl-paste is missing (package wl-clipboard): text AT-SPI cannot insert is kept "
                          "in the history only (quillet --history)"_s });
    }
};

QTEST_GUILESS_MAIN(TestDesktopSession)
#include "tst_desktopsession.moc"
