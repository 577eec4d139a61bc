#include "WindowTestTools.h"

#include "TestInfoFile.h"
#include "platform/DesktopShortcut.h"
#include "services/SettingsStore.h"
#include "ui/OnboardingState.h"
#include "ui/OnboardingWindow.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
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

const QString kCheck = u"\u2705"_s;

// The desktop's accessibility switch, flipped the way a settings panel does it.
bool setAccessibilityEnabled(bool enabled)
{
    QDBusMessage set = QDBusMessage::createMethodCall(
        u"org.a11y.Bus"_s, u"/org/a11y/bus"_s, u"org.freedesktop.DBus.Properties"_s, u"Set"_s);
    set << u"org.a11y.Status"_s << u"IsEnabled"_s << QVariant::fromValue(QDBusVariant(enabled));
    return QDBusConnection::sessionBus().call(set).type() == QDBusMessage::ReplyMessage;
}

std::optional<bool> accessibilityEnabled()
{
    QDBusMessage get = QDBusMessage::createMethodCall(
        u"org.a11y.Bus"_s, u"/org/a11y/bus"_s, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    get << u"org.a11y.Status"_s << u"IsEnabled"_s;
    const QDBusMessage reply = QDBusConnection::sessionBus().call(get);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return std::nullopt;
    return reply.arguments().first().value<QDBusVariant>().variant().toBool();
}

QString text(QQuickItem* item)
{
    return item ? item->property("text").toString() : u"<missing>"_s;
}

} // namespace

class TestOnboardingWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void windowIsFixedTitledAndCentred();
    void walkThroughEveryStep();
    void microphoneStepOffersAllowWhenTheDefaultSourceIsNoMicrophone();
    void openSystemSettingsSwitchesAccessibilityOn();
    void waylandHotkeyStepSaysWhatTheDesktopBound();
    void closeButtonEmitsClosed();

private:
    void showWindow();
    QQuickItem* root() const { return m_window->rootItem(); }
    QQuickItem* stepPage(const QString& name) const { return findItem(root(), name); }
    QQuickItem* in(const QString& page, const QString& name) const { return findItem(stepPage(page), name); }
    int step() const { return root()->property("step").toInt(); }

    std::unique_ptr<OnboardingWindow> m_window;
    int m_completions = 0;
    QList<QUrl> m_opened;
};

void TestOnboardingWindow::initTestCase()
{
    QVERIFY(qEnvironmentVariableIsSet("QUILLET_DESKTOP_SESSION"));
    QStandardPaths::setTestModeEnabled(true);
}

void TestOnboardingWindow::init()
{
    QSettings(u"Quillet"_s, u"Quillet"_s).clear();
    SettingsStore::resetShared();
    m_completions = 0;
    m_opened.clear();
    // This session starts with assistive technologies switched off (--no-a11y).
    QVERIFY(setAccessibilityEnabled(false));
}

void TestOnboardingWindow::cleanup()
{
    m_window.reset();
    DesktopShortcut::shared().setKeyboard();
}

void TestOnboardingWindow::showWindow()
{
    OnboardingServices services = OnboardingServices::system();
    services.openUrl = [this](const QUrl& url) { m_opened.append(url); };
    services.accessibilityPollInterval = std::chrono::milliseconds(50);
    m_window = std::make_unique<OnboardingWindow>([this] { ++m_completions; }, services);
    QVERIFY(root());
    m_window->showAndRaise();
    QVERIFY(QTest::qWaitForWindowActive(m_window->window()));
}

void TestOnboardingWindow::windowIsFixedTitledAndCentred()
{
    SHOW_WINDOW();
    QQuickWindow* window = m_window->window();
    QCOMPARE(window->title(), u"Welcome to Quillet"_s);
    QCOMPARE(window->size(), QSize(520, 560));
    QCOMPARE(window->minimumSize(), QSize(520, 560));
    QCOMPARE(window->maximumSize(), QSize(520, 560));
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    QVERIFY((window->geometry().center() - area.center()).manhattanLength() <= 2);
}

void TestOnboardingWindow::walkThroughEveryStep()
{
    TestInfoFile info(QJsonObject { { u"SITE_URL"_s, u"http://127.0.0.1:3999"_s } });
    SHOW_WINDOW();
    QQuickItem* progress = findItem(root(), u"progress"_s);
    QVERIFY(progress);
    QCOMPARE(progress->property("to").toDouble(), 6.0);

    // 0: welcome
    QCOMPARE(step(), 0);
    QCOMPARE(progress->property("value").toDouble(), 1.0);
    QCOMPARE(text(in(u"welcomeStep"_s, u"emoji"_s)), u"\U0001F399\uFE0F"_s);
    QCOMPARE(text(in(u"welcomeStep"_s, u"title"_s)), u"Welcome to Quillet"_s);
    QCOMPARE(text(in(u"welcomeStep"_s, u"subtitle"_s)),
        u"Hold a key, speak, and get polished text at your cursor \u2014 in any app."_s);
    QCOMPARE(text(in(u"welcomeStep"_s, u"primaryButton"_s)), u"Get started"_s);
    QVERIFY(!in(u"welcomeStep"_s, u"secondaryButton"_s)->isVisible());
    QVERIFY(!m_window->model().watchingAccessibility());
    click(in(u"welcomeStep"_s, u"primaryButton"_s));
    QCOMPARE(step(), 1);
    QCOMPARE(progress->property("value").toDouble(), 2.0);

    // 1: microphone; the session's default source (vmic) opens, so it is granted.
    QCOMPARE(text(in(u"microphoneStep"_s, u"title"_s)), u"Microphone access"_s);
    QCOMPARE(text(in(u"microphoneStep"_s, u"subtitle"_s)),
        u"Quillet needs your mic to transcribe speech. Audio is never stored on our servers."_s);
    QTRY_COMPARE_WITH_TIMEOUT(text(in(u"microphoneStep"_s, u"emoji"_s)), kCheck, 10000);
    QCOMPARE(text(in(u"microphoneStep"_s, u"primaryButton"_s)), u"Continue"_s);
    QVERIFY(!in(u"microphoneStep"_s, u"secondaryButton"_s)->isVisible());
    click(in(u"microphoneStep"_s, u"primaryButton"_s));
    QCOMPARE(step(), 2);

    // 2: accessibility, switched off: the step asks the bus until it is switched on.
    QCOMPARE(text(in(u"accessibilityStep"_s, u"title"_s)), u"Accessibility access"_s);
    QCOMPARE(text(in(u"accessibilityStep"_s, u"subtitle"_s)),
        u"Required to insert text at your cursor in other apps. Grant it in System Settings."_s);
    QCOMPARE(text(in(u"accessibilityStep"_s, u"emoji"_s)), u"\u267F"_s);
    QCOMPARE(text(in(u"accessibilityStep"_s, u"primaryButton"_s)), u"Open System Settings"_s);
    QCOMPARE(text(in(u"accessibilityStep"_s, u"secondaryButton"_s)), u"Skip for now"_s);
    QVERIFY(in(u"accessibilityStep"_s, u"secondaryButton"_s)->isVisible());
    QVERIFY(m_window->model().watchingAccessibility());
    QTest::qWait(200); // several polls, all of them "no"
    QVERIFY(!m_window->model().accessibilityGranted());
    QVERIFY(m_window->model().watchingAccessibility());
    QVERIFY(setAccessibilityEnabled(true));
    QTRY_COMPARE(text(in(u"accessibilityStep"_s, u"emoji"_s)), kCheck);
    QCOMPARE(text(in(u"accessibilityStep"_s, u"primaryButton"_s)), u"Continue"_s);
    QVERIFY(!in(u"accessibilityStep"_s, u"secondaryButton"_s)->isVisible());
    // The first "yes" ends the polling.
    QTRY_VERIFY(!m_window->model().watchingAccessibility());
    QCOMPARE(step(), 2);
    click(in(u"accessibilityStep"_s, u"primaryButton"_s));
    QCOMPARE(step(), 3);

    // 3: hotkey
    QCOMPARE(text(in(u"hotkeyStep"_s, u"emoji"_s)), u"\u2328\uFE0F"_s);
    QCOMPARE(text(in(u"hotkeyStep"_s, u"title"_s)), u"Choose your hotkey"_s);
    QCOMPARE(text(in(u"hotkeyStep"_s, u"subtitle"_s)), u"Hold this key anywhere to start recording."_s);
    QCOMPARE(text(in(u"hotkeyStep"_s, u"hotkeyChoice0"_s)), u"fn"_s);
    QCOMPARE(text(in(u"hotkeyStep"_s, u"hotkeyChoice3"_s)), u"Caps Lock"_s);
    QVERIFY(in(u"hotkeyStep"_s, u"hotkeyChoice0"_s)->property("checked").toBool());
    click(in(u"hotkeyStep"_s, u"hotkeyChoice1"_s));
    QCOMPARE(SettingsStore::shared().hotkey(), Hotkey::rightOption);
    QCOMPARE(QSettings(u"Quillet"_s, u"Quillet"_s).value(u"hotkey"_s).toString(), u"rightOption"_s);
    QQuickItem* indicator = in(u"hotkeyStep"_s, u"hotkeyIndicator"_s);
    QCOMPARE(text(indicator), u"Hold it now to check that it works."_s);
    // What the application does when its key monitor sees the key go down and up.
    OnboardingState::shared().setHotkeyHeld(true);
    QCOMPARE(text(indicator), u"\u25CF Right Option (\u2325) pressed"_s);
    OnboardingState::shared().setHotkeyHeld(false);
    QCOMPARE(text(indicator), u"\u2713 Right Option (\u2325) works"_s);
    // Another key has not been tried yet.
    click(in(u"hotkeyStep"_s, u"hotkeyChoice3"_s));
    QCOMPARE(text(indicator), u"Hold it now to check that it works."_s);
    QCOMPARE(text(in(u"hotkeyStep"_s, u"primaryButton"_s)), u"Continue"_s);
    click(in(u"hotkeyStep"_s, u"primaryButton"_s));
    QCOMPARE(step(), 4);

    // 4: practice; the box has the keyboard as soon as the step shows.
    QQuickItem* box = in(u"practiceStep"_s, u"practiceBox"_s);
    QVERIFY(box);
    QTRY_VERIFY(box->hasActiveFocus());
    QCOMPARE(text(in(u"practiceStep"_s, u"emoji"_s)), u"\U0001F5E3\uFE0F"_s);
    QCOMPARE(text(in(u"practiceStep"_s, u"title"_s)), u"Try it out"_s);
    QCOMPARE(text(in(u"practiceStep"_s, u"subtitle"_s)), u"Click the box below, then hold your hotkey and speak."_s);
    QCOMPARE(text(in(u"practiceStep"_s, u"placeholder"_s)), u"Dictated text will appear here\u2026"_s);
    QVERIFY(in(u"practiceStep"_s, u"placeholder"_s)->isVisible());
    QCOMPARE(text(in(u"practiceStep"_s, u"primaryButton"_s)), u"Skip"_s);
    for (char key : { 'h', 'e', 'l', 'l', 'o' })
        QTest::keyClick(m_window->window(), key);
    QCOMPARE(text(box), u"hello"_s);
    QCOMPARE(text(in(u"practiceStep"_s, u"primaryButton"_s)), u"Continue"_s);
    QVERIFY(!in(u"practiceStep"_s, u"placeholder"_s)->isVisible());
    click(in(u"practiceStep"_s, u"primaryButton"_s));
    QCOMPARE(step(), 5);

    // 5: sign in
    QCOMPARE(progress->property("value").toDouble(), 6.0);
    QCOMPARE(text(in(u"signInStep"_s, u"emoji"_s)), u"\U0001F510"_s);
    QVERIFY(!text(in(u"signInStep"_s, u"title"_s)).isEmpty());
    QVERIFY(!in(u"signInStep"_s, u"subtitle"_s)->isVisible());
    QCOMPARE(text(in(u"signInStep"_s, u"primaryButton"_s)), u"Sign in or create account"_s);
    QCOMPARE(text(in(u"signInStep"_s, u"secondaryButton"_s)), u"Skip for now"_s);
    click(in(u"signInStep"_s, u"primaryButton"_s));
    QCOMPARE(m_opened, (QList<QUrl> { QUrl(u"http://127.0.0.1:3999/signin?source=mac-app"_s) }));
    QCOMPARE(m_completions, 0);
    QVERIFY(!OnboardingState::isComplete());

    click(in(u"signInStep"_s, u"secondaryButton"_s));
    QCOMPARE(m_completions, 1);
    QVERIFY(OnboardingState::isComplete());
    QCOMPARE(QSettings(u"Quillet"_s, u"Quillet"_s).value(u"onboarding.complete"_s).toBool(), true);
    QCOMPARE(step(), 5);
}

void TestOnboardingWindow::microphoneStepOffersAllowWhenTheDefaultSourceIsNoMicrophone()
{
    // With only an output's monitor as the default there is no microphone to open.
    QVERIFY(run(u"pactl"_s, { u"set-default-source"_s, u"mic_feed.monitor"_s }));
    SHOW_WINDOW();
    QSignalSpy answered(&m_window->model(), &OnboardingModel::microphoneGrantedChanged);
    root()->setProperty("step", 1);
    QTest::qWait(3000); // the check opens nothing; give it time to say so
    const QString emoji = text(in(u"microphoneStep"_s, u"emoji"_s));
    const QString primary = text(in(u"microphoneStep"_s, u"primaryButton"_s));
    const bool skipVisible = in(u"microphoneStep"_s, u"secondaryButton"_s)->isVisible();
    const QString skip = text(in(u"microphoneStep"_s, u"secondaryButton"_s));
    QVERIFY(run(u"pactl"_s, { u"set-default-source"_s, u"vmic"_s }));
    QCOMPARE(answered.count(), 0);
    QCOMPARE(emoji, u"\U0001F3A4"_s);
    QCOMPARE(primary, u"Allow microphone"_s);
    QVERIFY(skipVisible);
    QCOMPARE(skip, u"Skip"_s);

    // Asking again now that a microphone is the default: granted, but the step stays.
    click(in(u"microphoneStep"_s, u"primaryButton"_s));
    QTRY_COMPARE_WITH_TIMEOUT(text(in(u"microphoneStep"_s, u"emoji"_s)), kCheck, 10000);
    QCOMPARE(step(), 1);
}

void TestOnboardingWindow::openSystemSettingsSwitchesAccessibilityOn()
{
    SHOW_WINDOW();
    root()->setProperty("step", 2);
    QCOMPARE(accessibilityEnabled(), std::optional<bool>(false));
    QCOMPARE(text(in(u"accessibilityStep"_s, u"emoji"_s)), u"\u267F"_s);
    click(in(u"accessibilityStep"_s, u"primaryButton"_s));
    QTRY_COMPARE(accessibilityEnabled(), std::optional<bool>(true));
    QTRY_COMPARE(text(in(u"accessibilityStep"_s, u"emoji"_s)), kCheck);
    QCOMPARE(step(), 2);
}

void TestOnboardingWindow::waylandHotkeyStepSaysWhatTheDesktopBound()
{
    // As on a Wayland session whose desktop has no GlobalShortcuts portal.
    DesktopShortcut::shared().setUnbound();
    SHOW_WINDOW();
    root()->setProperty("step", 3);
    QQuickItem* page = stepPage(u"hotkeyStep"_s);
    const QRectF window(QPointF(0, 0), root()->size());
    const auto inside = [&](QQuickItem* it) { return window.contains(it->mapRectToItem(root(), it->boundingRect())); };
    QQuickItem* note = in(u"hotkeyStep"_s, u"desktopNote"_s);
    QQuickItem* snippet = in(u"hotkeyStep"_s, u"bindingSnippet"_s);
    QTRY_VERIFY(page->isVisible() && note->isVisible() && snippet->isVisible());
    QVERIFY(!in(u"hotkeyStep"_s, u"keyboardNote"_s)->isVisible());
    QVERIFY(text(note).contains(u"run quillet --toggle"_s));
    QCOMPARE(text(snippet),
        u"bindsym --no-repeat Menu exec quillet --press\nbindsym --release Menu exec quillet --release"_s);
    QCOMPARE(snippet->property("lineCount").toInt(), 2);
    for (const QString& name : { u"bindingSnippet"_s, u"hotkeyIndicator"_s, u"primaryButton"_s })
        QVERIFY2(inside(in(u"hotkeyStep"_s, name)), qPrintable(name));

    // The portal's answer arrives while the step shows.
    DesktopShortcut::shared().setBound(u"Menu"_s);
    QTRY_VERIFY(!snippet->isVisible());
    QVERIFY2(text(note).contains(u"hold Menu to dictate"_s), qPrintable(text(note)));
}

void TestOnboardingWindow::closeButtonEmitsClosed()
{
    SHOW_WINDOW();
    QSignalSpy closed(m_window.get(), &FormWindow::closed);
    QVERIFY(sendCloseRequest(m_window->window()));
    QTRY_COMPARE(closed.count(), 1);
    QVERIFY(!m_window->isVisible());
    QCOMPARE(m_completions, 0);
}

QTEST_MAIN(TestOnboardingWindow)
#include "tst_onboardingwindow.moc"
