#include "platform/DesktopShortcut.h"
#include "ui/HotkeySelection.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace Qt::StringLiterals;

// What the hotkey pickers of the settings and first-run windows say about the desktop's
// shortcut, fed by a DesktopShortcut of the test's own in place of the session's.
class TestHotkeySelection : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_counter = 0;

    std::unique_ptr<SettingsStore> freshStore()
    {
        return std::make_unique<SettingsStore>(
            std::make_unique<QSettings>(m_dir.filePath(u"settings-%1.ini"_s.arg(++m_counter)), QSettings::IniFormat));
    }

private Q_SLOTS:
    void x11SaysNothingAboutTheDesktop()
    {
        auto store = freshStore();
        DesktopShortcut desktop;
        HotkeySelection selection(*store, nullptr, desktop);
        QCOMPARE(selection.desktopNote(), QString());
        QCOMPARE(selection.bindingSnippet(), QString());
        QVERIFY(!selection.keyboardNote().isEmpty());
        // A hotkey change is no desktop change that would bring any text.
        store->setHotkey(Hotkey::capsLock);
        QCOMPARE(selection.desktopNote(), QString());
        QCOMPARE(selection.property("desktopNote").toString(), QString());
    }

    void waylandShowsTheBoundTriggerAndFollowsItsChanges()
    {
        auto store = freshStore();
        DesktopShortcut desktop;
        HotkeySelection selection(*store, nullptr, desktop);
        QSignalSpy noteChanged(&selection, &HotkeySelection::desktopNoteChanged);

        desktop.setAsking();
        QCOMPARE(noteChanged.size(), 1);
        QVERIFY(selection.desktopNote().contains(u"asking"_s));
        QVERIFY(!selection.desktopNote().contains(u"Menu"_s));
        QCOMPARE(selection.bindingSnippet(), QString());

        // The portal's answer arrives after the window opened.
        desktop.setBound(u"Menu"_s);
        QCOMPARE(noteChanged.size(), 2);
        QVERIFY2(selection.desktopNote().contains(u"hold Menu to dictate"_s), qPrintable(selection.desktopNote()));
        QCOMPARE(selection.property("desktopNote").toString(), selection.desktopNote());
        QCOMPARE(selection.bindingSnippet(), QString());

        // The user gives the shortcut another key in the desktop's settings.
        desktop.setBound(u"Ctrl+Alt+D"_s);
        QCOMPARE(noteChanged.size(), 3);
        QVERIFY2(
            selection.desktopNote().contains(u"hold Ctrl+Alt+D to dictate"_s), qPrintable(selection.desktopNote()));
        QVERIFY(!selection.desktopNote().contains(u"Menu"_s));

        // The same answer again changes nothing.
        desktop.setBound(u"Ctrl+Alt+D"_s);
        QCOMPARE(noteChanged.size(), 3);
    }

    void waylandWithoutABindingSaysHowToBindOne()
    {
        auto store = freshStore();
        DesktopShortcut desktop;
        HotkeySelection selection(*store, nullptr, desktop);
        QSignalSpy noteChanged(&selection, &HotkeySelection::desktopNoteChanged);

        desktop.setAsking();
        desktop.setUnbound(); // no portal
        QCOMPARE(noteChanged.size(), 2);
        QVERIFY2(selection.desktopNote().contains(u"run quillet --toggle"_s), qPrintable(selection.desktopNote()));
        QCOMPARE(selection.bindingSnippet(),
            u"bindsym --no-repeat Menu exec quillet --press\nbindsym --release Menu exec quillet --release"_s);

        // The lines name the key of the chosen hotkey.
        store->setHotkey(Hotkey::rightOption);
        QVERIFY(noteChanged.size() >= 3);
        QCOMPARE(selection.bindingSnippet(),
            u"bindsym --no-repeat Alt_R exec quillet --press\nbindsym --release Alt_R exec quillet --release"_s);
    }

    void aBindingWithoutAKeyIsNoBinding()
    {
        auto store = freshStore();
        DesktopShortcut desktop;
        HotkeySelection selection(*store, nullptr, desktop);
        desktop.setBound(QString()); // registered, but the desktop names no key
        QCOMPARE(desktop.status(), DesktopShortcut::Status::unbound);
        QVERIFY(selection.desktopNote().contains(u"bound no key"_s));
        QVERIFY(selection.bindingSnippet().contains(u"bindsym --release Menu exec quillet --release"_s));

        // A key bound later replaces the instructions.
        desktop.setBound(u"Super+D"_s);
        QVERIFY(selection.desktopNote().contains(u"hold Super+D to dictate"_s));
        QCOMPARE(selection.bindingSnippet(), QString());
    }
};

QTEST_GUILESS_MAIN(TestHotkeySelection)
#include "tst_hotkeyselection.moc"
