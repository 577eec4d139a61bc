#include "WindowTestTools.h"

#include "TestInfoFile.h"
#include "platform/DesktopShortcut.h"
#include "services/SettingsStore.h"
#include "ui/SettingsWindow.h"

#include <QCoreApplication>
#include <QFile>
#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickWindow>
#include <QScreen>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace WindowTestTools;

// A failed check inside the helper ends the test function too.
#define SHOW_WINDOW()                                                                                                  \
    do {                                                                                                               \
        showWindow();                                                                                                  \
        if (QTest::currentTestFailed())                                                                                \
            return;                                                                                                    \
    } while (false)

namespace {

QStringList pickerTexts(QQuickItem* picker)
{
    QStringList texts;
    const int count = picker->property("count").toInt();
    for (int i = 0; i < count; ++i) {
        QString text;
        QMetaObject::invokeMethod(picker, "textAt", Q_RETURN_ARG(QString, text), Q_ARG(int, i));
        texts.append(text);
    }
    return texts;
}

// What the user's choice in the picker does: the control announces the choice.
void choose(QQuickItem* picker, int index)
{
    QMetaObject::invokeMethod(picker, "activated", Q_ARG(int, index));
}

QSettings userSettings()
{
    return QSettings(u"Quillet"_s, u"Quillet"_s);
}

} // namespace

class TestSettingsWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void windowIsFixedTitledAndCentred();
    void hotkeyRadiosWriteTheStore();
    void waylandHotkeyTextFitsAndFollowsTheDesktop();
    void deviceListHasTheSessionMicrophoneAndNoMonitor();
    void choosingADeviceStoresItsNameAndSystemDefaultRemovesIt();
    void aDeviceThatIsGoneKeepsItsValue();
    void deviceListIsReadAgainEachTimeTheWindowShows();
    void versionComesFromTheInformationFile();
    void checkForUpdatesIsThereAndDoesNothing();
    void startAtLoginWritesAndRemovesTheAutostartEntry();
    void closeButtonEmitsClosed();

private:
    // Shows a fresh window and waits until it is on screen and its device list came in.
    void showWindow();
    QQuickItem* item(const QString& name) { return findItem(m_window->rootItem(), name); }

    std::unique_ptr<SettingsWindow> m_window;
};

void TestSettingsWindow::initTestCase()
{
    // The session gives a temporary home; test mode keeps the settings inside it even so.
    QVERIFY(qEnvironmentVariableIsSet("QUILLET_DESKTOP_SESSION"));
    QStandardPaths::setTestModeEnabled(true);
}

void TestSettingsWindow::init()
{
    userSettings().clear();
    SettingsStore::resetShared();
}

void TestSettingsWindow::cleanup()
{
    m_window.reset();
    DesktopShortcut::shared().setKeyboard();
}

void TestSettingsWindow::showWindow()
{
    m_window = std::make_unique<SettingsWindow>();
    QVERIFY(m_window->rootItem());
    QSignalSpy devices(&m_window->model(), &SettingsViewModel::devicesChanged);
    m_window->showAndRaise();
    QVERIFY(QTest::qWaitForWindowExposed(m_window->window()));
    QTRY_VERIFY_WITH_TIMEOUT(!devices.isEmpty(), 10000);
}

void TestSettingsWindow::windowIsFixedTitledAndCentred()
{
    SHOW_WINDOW();
    QQuickWindow* window = m_window->window();
    QCOMPARE(window->title(), u"Quillet Settings"_s);
    QCOMPARE(window->size(), QSize(460, 380));
    QCOMPARE(window->minimumSize(), QSize(460, 380));
    QCOMPARE(window->maximumSize(), QSize(460, 380));
    QCOMPARE(m_window->rootItem()->size(), QSizeF(460, 380));
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    QVERIFY((window->geometry().center() - area.center()).manhattanLength() <= 2);
    // Unlike the capsule, this window takes the keyboard.
    QVERIFY(QTest::qWaitForWindowActive(window));
}

void TestSettingsWindow::hotkeyRadiosWriteTheStore()
{
    SHOW_WINDOW();
    const QStringList expected { u"fn"_s, u"Right Option (\u2325)"_s, u"Right Command (\u2318)"_s, u"Caps Lock"_s };
    for (int i = 0; i < expected.size(); ++i) {
        QQuickItem* radio = item(u"hotkeyChoice%1"_s.arg(i));
        QVERIFY(radio);
        QCOMPARE(radio->property("text").toString(), expected[i]);
        QCOMPARE(radio->property("checked").toBool(), i == 0);
    }
    const QString note = item(u"keyboardNote"_s)->property("text").toString();
    QVERIFY2(note.contains(u"right Alt"_s) && note.contains(u"right Super"_s)
            && note.contains(u"Menu key on keyboards without Fn"_s),
        qPrintable(note));

    click(item(u"hotkeyChoice2"_s));
    QCOMPARE(SettingsStore::shared().hotkey(), Hotkey::rightCommand);
    QCOMPARE(userSettings().value(u"hotkey"_s).toString(), u"rightCommand"_s);
    QVERIFY(item(u"hotkeyChoice2"_s)->property("checked").toBool());
    QVERIFY(!item(u"hotkeyChoice0"_s)->property("checked").toBool());

    // A change made elsewhere (the first-run window) shows here at once.
    SettingsStore::shared().setHotkey(Hotkey::capsLock);
    QVERIFY(item(u"hotkeyChoice3"_s)->property("checked").toBool());
    QVERIFY(!item(u"hotkeyChoice2"_s)->property("checked").toBool());
}

void TestSettingsWindow::waylandHotkeyTextFitsAndFollowsTheDesktop()
{
    // As on a Wayland session whose desktop has no GlobalShortcuts portal.
    DesktopShortcut::shared().setAsking();
    DesktopShortcut::shared().setUnbound();
    SHOW_WINDOW();
    QQuickItem* root = m_window->rootItem();
    const QRectF window(QPointF(0, 0), root->size());
    const auto inside = [&](QQuickItem* it) {
        const QRectF rect = it->mapRectToItem(root, it->boundingRect());
        return window.contains(rect);
    };
    QVERIFY(!item(u"keyboardNote"_s)->isVisible());
    QQuickItem* note = item(u"desktopNote"_s);
    QQuickItem* snippet = item(u"bindingSnippet"_s);
    QVERIFY(note->isVisible() && snippet->isVisible());
    QVERIFY2(note->property("text").toString().contains(u"run quillet --toggle"_s),
        qPrintable(note->property("text").toString()));
    QCOMPARE(snippet->property("text").toString(),
        u"bindsym --no-repeat Menu exec quillet --press\nbindsym --release Menu exec quillet --release"_s);
    // Text to copy into a configuration file.
    QVERIFY(snippet->property("selectByMouse").toBool());
    QVERIFY(snippet->property("readOnly").toBool());
    // Everything stays inside the fixed window, the last row included.
    for (const QString& name : { u"desktopNote"_s, u"bindingSnippet"_s, u"inputDevicePicker"_s, u"startAtLoginSwitch"_s,
             u"checkForUpdatesButton"_s })
        QVERIFY2(inside(item(name)),
            qPrintable(u"%1 at %2,%3 %4x%5"_s.arg(name)
                           .arg(item(name)->mapRectToItem(root, item(name)->boundingRect()).x())
                           .arg(item(name)->mapRectToItem(root, item(name)->boundingRect()).y())
                           .arg(item(name)->width())
                           .arg(item(name)->height())));
    // The snippet's lines are not wrapped: one line of text each.
    QVERIFY2(snippet->property("lineCount").toInt() == 2, qPrintable(snippet->property("lineCount").toString()));

    // The desktop binds the shortcut while the window is open, then the user changes its key.
    DesktopShortcut::shared().setBound(u"Menu"_s);
    QTRY_VERIFY(!snippet->isVisible());
    QVERIFY2(note->property("text").toString().contains(u"hold Menu to dictate"_s),
        qPrintable(note->property("text").toString()));
    DesktopShortcut::shared().setBound(u"Ctrl+Alt+D"_s);
    QTRY_VERIFY(note->property("text").toString().contains(u"hold Ctrl+Alt+D to dictate"_s));
    QVERIFY(inside(note) && inside(item(u"checkForUpdatesButton"_s)));

    // The longest key name's lines still fit, unwrapped.
    SettingsStore::shared().setHotkey(Hotkey::capsLock);
    DesktopShortcut::shared().setUnbound();
    QTRY_VERIFY(snippet->isVisible());
    QVERIFY(snippet->property("text").toString().startsWith(u"bindsym --no-repeat Caps_Lock exec quillet --press\n"_s));
    QTRY_COMPARE(snippet->property("lineCount").toInt(), 2);
    QVERIFY(inside(snippet) && inside(item(u"checkForUpdatesButton"_s)));
}

void TestSettingsWindow::deviceListHasTheSessionMicrophoneAndNoMonitor()
{
    SHOW_WINDOW();
    // The session's sound server has one microphone (vmic, "VirtualMicrophone") and
    // two outputs whose monitors are sources too; those must not be offered.
    const QStringList texts = pickerTexts(item(u"inputDevicePicker"_s));
    QCOMPARE(texts, (QStringList { u"System default"_s, u"VirtualMicrophone"_s }));
    QCOMPARE(m_window->model().devices(), (QList<Microphone> { { u"vmic"_s, u"VirtualMicrophone"_s } }));
    const std::optional<QString> sources = run(u"pactl"_s, { u"list"_s, u"short"_s, u"sources"_s });
    QVERIFY(sources);
    QVERIFY2(sources->contains(u"mic_feed.monitor"_s), qPrintable(*sources));
    QCOMPARE(item(u"inputDevicePicker"_s)->property("currentIndex").toInt(), 0);
}

void TestSettingsWindow::choosingADeviceStoresItsNameAndSystemDefaultRemovesIt()
{
    SHOW_WINDOW();
    QQuickItem* picker = item(u"inputDevicePicker"_s);
    choose(picker, 1);
    QCOMPARE(SettingsStore::shared().micDeviceUID(), u"vmic"_s);
    QCOMPARE(userSettings().value(u"micDeviceUID"_s).toString(), u"vmic"_s);
    QCOMPARE(picker->property("currentIndex").toInt(), 1);

    choose(picker, 0);
    QVERIFY(SettingsStore::shared().micDeviceUID().isNull());
    QVERIFY(!userSettings().contains(u"micDeviceUID"_s));
    QCOMPARE(picker->property("currentIndex").toInt(), 0);
}

void TestSettingsWindow::aDeviceThatIsGoneKeepsItsValue()
{
    SettingsStore::shared().setMicDeviceUID(u"usb-headset-unplugged"_s);
    SHOW_WINDOW();
    QCOMPARE(item(u"inputDevicePicker"_s)->property("currentIndex").toInt(), -1);
    QCOMPARE(pickerTexts(item(u"inputDevicePicker"_s)).size(), 2);
    QCOMPARE(SettingsStore::shared().micDeviceUID(), u"usb-headset-unplugged"_s);
    QCOMPARE(userSettings().value(u"micDeviceUID"_s).toString(), u"usb-headset-unplugged"_s);
}

void TestSettingsWindow::deviceListIsReadAgainEachTimeTheWindowShows()
{
    SHOW_WINDOW();
    QCOMPARE(pickerTexts(item(u"inputDevicePicker"_s)).size(), 2);
    m_window->close();

    const std::optional<QString> module = run(u"pactl"_s,
        { u"load-module"_s, u"module-null-source"_s, u"source_name=desk_mic"_s, u"description=DeskMicrophone"_s });
    QVERIFY(module);
    QSignalSpy devices(&m_window->model(), &SettingsViewModel::devicesChanged);
    m_window->showAndRaise();
    QTRY_VERIFY_WITH_TIMEOUT(!devices.isEmpty(), 10000);
    const QStringList texts = pickerTexts(item(u"inputDevicePicker"_s));
    QVERIFY(run(u"pactl"_s, { u"unload-module"_s, module->trimmed() }));
    QCOMPARE(texts, (QStringList { u"System default"_s, u"VirtualMicrophone"_s, u"DeskMicrophone"_s }));
}

void TestSettingsWindow::versionComesFromTheInformationFile()
{
    {
        TestInfoFile info(QJsonObject { { u"CFBundleShortVersionString"_s, u"4.5.6"_s } });
        SHOW_WINDOW();
        QCOMPARE(item(u"versionValue"_s)->property("text").toString(), u"4.5.6"_s);
        m_window->close();
    }
    {
        TestInfoFile info(QJsonObject { { u"SITE_URL"_s, u"http://127.0.0.1:3000"_s } });
        m_window->showAndRaise();
        QTRY_COMPARE(item(u"versionValue"_s)->property("text").toString(), u"\u2014"_s);
    }
}

void TestSettingsWindow::checkForUpdatesIsThereAndDoesNothing()
{
    SHOW_WINDOW();
    QQuickItem* button = item(u"checkForUpdatesButton"_s);
    QVERIFY(button);
    QCOMPARE(button->property("text").toString(), u"Check for updates"_s);
    QVERIFY(button->isEnabled());
    // The button is a QML control: its signal is known by name only.
    QSignalSpy clicked(button, SIGNAL(clicked()));
    const QStringList keysBefore = userSettings().allKeys();
    click(button);
    QCOMPARE(clicked.count(), 1);
    QTest::qWait(50);
    QCOMPARE(userSettings().allKeys(), keysBefore);
    QVERIFY(m_window->isVisible());
}

void TestSettingsWindow::startAtLoginWritesAndRemovesTheAutostartEntry()
{
    const QString entry = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
        + u"/autostart/app.quillet.Quillet.desktop"_s;
    QFile::remove(entry);
    SHOW_WINDOW();
    QQuickItem* box = item(u"startAtLoginSwitch"_s);
    QVERIFY(box);
    QCOMPARE(box->property("text").toString(), u"Start Quillet at login"_s);
    QVERIFY(!box->property("checked").toBool());
    // The switch and the form's last control are inside the fixed window, where the user
    // can reach them.
    for (QQuickItem* control : { box, item(u"checkForUpdatesButton"_s) }) {
        const QRectF inWindow = control->mapRectToScene(QRectF(0, 0, control->width(), control->height()));
        QVERIFY2(QRectF(0, 0, 460, 380).contains(inWindow),
            qPrintable(control->objectName()
                + u" at %1,%2 %3x%4"_s.arg(inWindow.x())
                      .arg(inWindow.y())
                      .arg(inWindow.width())
                      .arg(inWindow.height())));
    }

    click(box);
    QTRY_VERIFY(box->property("checked").toBool());
    QVERIFY(QFile::exists(entry));
    QFile file(entry);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QVERIFY(file.readAll().contains("\nExec=" + QCoreApplication::applicationFilePath().toUtf8() + '\n'));

    click(box);
    QTRY_VERIFY(!box->property("checked").toBool());
    QVERIFY(!QFile::exists(entry));

    // What the folder holds is what a new window shows.
    QVERIFY(m_window->model().property("startAtLogin").isValid());
    m_window->model().setStartAtLogin(true);
    m_window.reset();
    SHOW_WINDOW();
    QVERIFY(item(u"startAtLoginSwitch"_s)->property("checked").toBool());
    QVERIFY(QFile::remove(entry));
}

void TestSettingsWindow::closeButtonEmitsClosed()
{
    SHOW_WINDOW();
    QSignalSpy closed(m_window.get(), &FormWindow::closed);
    QVERIFY(sendCloseRequest(m_window->window()));
    QTRY_COMPARE(closed.count(), 1);
    QVERIFY(!m_window->isVisible());
}

QTEST_MAIN(TestSettingsWindow)
#include "tst_settingswindow.moc"
