// Every window of Quillet, alone and side by side with the others, read back from
// the X server's screen: not blank, its main text drawn where the view puts it, and
// of the size it should have. A window whose frames never reach the screen (black,
// or whatever lies beneath) fails here even while its QML properties are all right.
#include "ScreenPixels.h"

#include "ui/HUDWindowController.h"
#include "ui/OnboardingWindow.h"
#include "ui/SettingsWindow.h"

#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSGRendererInterface>
#include <QTest>

#include <chrono>
#include <cmath>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Generous: a loaded machine may take seconds for a first frame; a window that
// never draws fails after this.
constexpr int drawTimeoutMs = 20000;
// Fewer differing pixels than this in a text's box means the text is not there.
constexpr int minimumInk = 30;
// A window drawn over something else changes at least this share of the pixels in
// its rectangle. One that never draws (X leaves what was beneath) changes none.
constexpr double minimumChangedShare = 0.005;

// The first visible item of this objectName under `root` (root included): the
// current page's, not a hidden page's.
QQuickItem* findVisible(QQuickItem* root, const QString& objectName)
{
    if (!root || !root->isVisible())
        return nullptr;
    if (root->objectName() == objectName)
        return root;
    const QList<QQuickItem*> children = root->childItems();
    for (QQuickItem* child : children) {
        if (QQuickItem* found = findVisible(child, objectName))
            return found;
    }
    return nullptr;
}

// The item's box in its window's coordinates.
QRect boxInWindow(const QQuickItem* item)
{
    return item->mapRectToScene(QRectF(0, 0, item->width(), item->height())).toAlignedRect();
}

// What one check looks at: a part of a window that must carry ink.
struct Part {
    QString name;
    const QQuickItem* item;
};

// The window as the screen shows it; `problem` is empty when it is drawn: viewable at
// the expected size, not of one colour, and every part with enough ink.
struct Reading {
    std::optional<QRect> rect;
    QImage image;
    QRgb background = 0;
    QList<int> ink;
    QString problem;
};

Reading read(const QWindow* window, QSize expectedSize, const QList<Part>& parts)
{
    Reading reading;
    reading.rect = ScreenPixels::rectOnScreen(window);
    if (!reading.rect) {
        reading.problem = u"the window is not viewable"_s;
        return reading;
    }
    if (reading.rect->size() != expectedSize) {
        reading.problem = u"the window is %1 x %2, not %3 x %4"_s.arg(reading.rect->width())
                              .arg(reading.rect->height())
                              .arg(expectedSize.width())
                              .arg(expectedSize.height());
        return reading;
    }
    reading.image = ScreenPixels::grabScreen(*reading.rect);
    if (reading.image.size() != expectedSize) {
        reading.problem = u"the screen could not be read in the window's rectangle"_s;
        return reading;
    }
    if (ScreenPixels::isOneColour(reading.image)) {
        reading.problem = u"the window is blank: all of it is #%1"_s.arg(
            uint(reading.image.pixel(0, 0) & 0xffffff), 6, 16, QChar(u'0'));
        return reading;
    }
    reading.background = ScreenPixels::dominantColour(reading.image);
    for (const Part& part : parts) {
        const QRect box = boxInWindow(part.item);
        const int ink = ScreenPixels::inkPixels(reading.image, box, reading.background);
        reading.ink.append(ink);
        if (ink < minimumInk && reading.problem.isEmpty())
            reading.problem = u"%1 is not drawn: %2 pixels of ink in its box %3,%4 %5x%6"_s.arg(part.name)
                                  .arg(ink)
                                  .arg(box.x())
                                  .arg(box.y())
                                  .arg(box.width())
                                  .arg(box.height());
    }
    return reading;
}

// Waits until the window reads as drawn; what is wrong when it never does. Then the
// window's pixels and the whole screen go to the screenshots folder.
// `screenBefore` is the whole screen as it was before the window showed (or changed
// its step): the window's rectangle must now differ from it, so that what lay
// beneath an undrawn window, or a step no longer current, does not pass for it.
QString drawnProblem(const QWindow* window, QSize expectedSize, const QList<Part>& parts, const QString& name,
    const QImage& screenBefore)
{
    Reading reading;
    const bool drawn = QTest::qWaitFor(
        [&] {
            reading = read(window, expectedSize, parts);
            if (reading.problem.isEmpty() && !screenBefore.isNull()) {
                const QImage before = screenBefore.copy(*reading.rect);
                const int changed = ScreenPixels::differingPixels(reading.image, before);
                const int needed = int(minimumChangedShare * reading.image.width() * reading.image.height());
                if (changed < needed)
                    reading.problem
                        = u"the window's rectangle shows what was there before it (%1 pixels changed)"_s.arg(changed);
            }
            return reading.problem.isEmpty();
        },
        drawTimeoutMs);
    if (drawn)
        return {};
    const QString shot = ScreenPixels::keepForInspection(reading.image, name);
    const QString screen
        = ScreenPixels::keepForInspection(ScreenPixels::grabScreen(QRect(0, 0, 1 << 14, 1 << 14)), name + u"-screen"_s);
    return u"%1: %2 (look at %3 and %4)"_s.arg(name, reading.problem, shot, screen);
}

#define VERIFY_DRAWN(window, expectedSize, parts, name)                                                                \
    do {                                                                                                               \
        const QString problem_ = drawnProblem((window), (expectedSize), (parts), (name), m_screenBefore);              \
        QVERIFY2(problem_.isEmpty(), qPrintable(problem_));                                                            \
    } while (false)

// Items the checks need; a missing one fails the test function.
#define REQUIRE_ITEM(variable, root, objectName)                                                                       \
    QQuickItem* variable = findVisible((root), (objectName));                                                          \
    QVERIFY2(variable, qPrintable(u"no visible item \"%1\""_s.arg(objectName)))

HUDTiming lastingTiming()
{
    // Success and error stay up for the whole check; only a new test takes them away.
    return { .fadeIn = 150ms, .fadeOut = 200ms, .errorDismissal = 10min, .successDismissal = 10min };
}

OnboardingServices quietServices()
{
    OnboardingServices services = OnboardingServices::system();
    // The sign-in step opens nothing in these tests.
    services.openUrl = [](const QUrl&) {};
    return services;
}

// The capsule's size as its controller promises: 320 wide, 56 high or as tall as its
// content needs.
QSize capsuleSize(const HUDWindowController& hud)
{
    const int content = int(std::ceil(hud.rootItem()->implicitHeight()));
    return { HUDWindowController::panelSize.width(), std::max(HUDWindowController::panelSize.height(), content) };
}

} // namespace

class TestWindowPixels : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup();
    void aWindowThatNeverDrawsIsCaught();
    void welcomeSteps_data();
    void welcomeSteps();
    void walkingThroughTheStepsRedrawsEachOne();
    void settingsAlone();
    void settingsOverTheWelcomeWindow();
    void welcomeAndSettingsApart();
    void settingsBeforeWelcome();
    void capsuleStates_data();
    void capsuleStates();
    void capsuleBesideSettings();
    void capsuleWithThePracticeBox();

private:
    std::unique_ptr<OnboardingWindow> showWelcome();
    std::unique_ptr<SettingsWindow> showSettings();
    std::unique_ptr<HUDWindowController> showCapsule(const HUDMode& mode);
    QList<Part> settingsParts(SettingsWindow& settings);
    QList<Part> welcomeParts(OnboardingWindow& welcome);

    // The screen before the window under check showed: taken by the show helpers.
    QImage m_screenBefore;
    std::unique_ptr<OnboardingWindow> m_welcome;
    std::unique_ptr<SettingsWindow> m_settings;
    std::unique_ptr<HUDWindowController> m_capsule;
};

void TestWindowPixels::cleanup()
{
    m_capsule.reset();
    m_settings.reset();
    m_welcome.reset();
    // The next test starts on an empty screen.
    static_cast<void>(QTest::qWaitFor([] { return QGuiApplication::topLevelWindows().isEmpty(); }, 5000));
}

std::unique_ptr<OnboardingWindow> TestWindowPixels::showWelcome()
{
    m_screenBefore = ScreenPixels::grabWholeScreen();
    auto window = std::make_unique<OnboardingWindow>([] {}, quietServices());
    if (window->rootItem())
        window->showAndRaise();
    return window;
}

std::unique_ptr<SettingsWindow> TestWindowPixels::showSettings()
{
    m_screenBefore = ScreenPixels::grabWholeScreen();
    auto window = std::make_unique<SettingsWindow>();
    if (window->rootItem())
        window->showAndRaise();
    return window;
}

std::unique_ptr<HUDWindowController> TestWindowPixels::showCapsule(const HUDMode& mode)
{
    m_screenBefore = ScreenPixels::grabWholeScreen();
    auto hud = std::make_unique<HUDWindowController>(lastingTiming());
    hud->show(mode);
    return hud;
}

QList<Part> TestWindowPixels::settingsParts(SettingsWindow& settings)
{
    QQuickItem* radios = findVisible(settings.rootItem(), u"hotkeyGroup"_s);
    QQuickItem* picker = findVisible(settings.rootItem(), u"inputDevicePicker"_s);
    QQuickItem* button = findVisible(settings.rootItem(), u"checkForUpdatesButton"_s);
    if (!radios || !picker || !button)
        return {};
    return { { u"the hotkey choices"_s, radios }, { u"the input device picker"_s, picker },
        { u"the \"Check for updates\" button"_s, button } };
}

QList<Part> TestWindowPixels::welcomeParts(OnboardingWindow& welcome)
{
    QQuickItem* emoji = findVisible(welcome.rootItem(), u"emoji"_s);
    QQuickItem* title = findVisible(welcome.rootItem(), u"title"_s);
    QQuickItem* button = findVisible(welcome.rootItem(), u"primaryButton"_s);
    if (!emoji || !title || !button)
        return {};
    return { { u"the step's picture"_s, emoji }, { u"the step's title"_s, title }, { u"the step's button"_s, button } };
}

void TestWindowPixels::aWindowThatNeverDrawsIsCaught()
{
    // The checks themselves: a mapped window that nothing ever draws into shows what
    // lies beneath it, and must not pass for a drawn one.
    QWindow bare;
    bare.setFlags(Qt::Window | Qt::FramelessWindowHint);
    bare.setGeometry(100, 100, 240, 120);
    bare.show();
    QVERIFY(QTest::qWaitFor([&] { return ScreenPixels::rectOnScreen(&bare).has_value(); }, drawTimeoutMs));
    const Reading reading = read(&bare, QSize(240, 120), {});
    QVERIFY2(reading.problem.startsWith(u"the window is blank"_s), qPrintable(reading.problem));
}

void TestWindowPixels::welcomeSteps_data()
{
    QTest::addColumn<int>("step");
    QTest::addColumn<QString>("title");
    QTest::newRow("welcome") << 0 << u"Welcome to Quillet"_s;
    QTest::newRow("microphone") << 1 << u"Microphone access"_s;
    QTest::newRow("accessibility") << 2 << u"Accessibility access"_s;
    QTest::newRow("hotkey") << 3 << u"Choose your hotkey"_s;
    QTest::newRow("practice") << 4 << u"Try it out"_s;
    QTest::newRow("sign-in") << 5 << u"Sign in to start dictating"_s;
}

void TestWindowPixels::welcomeSteps()
{
    QFETCH(int, step);
    QFETCH(QString, title);
    m_welcome = showWelcome();
    QVERIFY(m_welcome->rootItem());
    m_welcome->rootItem()->setProperty("step", step);
    REQUIRE_ITEM(titleItem, m_welcome->rootItem(), u"title"_s);
    QCOMPARE(titleItem->property("text").toString(), title);
    REQUIRE_ITEM(progress, m_welcome->rootItem(), u"progress"_s);
    QList<Part> parts = welcomeParts(*m_welcome);
    QVERIFY(!parts.isEmpty());
    parts.append({ u"the progress bar"_s, progress });
    if (step == 4) {
        REQUIRE_ITEM(placeholder, m_welcome->rootItem(), u"placeholder"_s);
        parts.append({ u"the practice box's placeholder"_s, placeholder });
    }
    VERIFY_DRAWN(m_welcome->window(), OnboardingWindow::windowSize, parts, u"welcome-step-%1"_s.arg(step));
}

void TestWindowPixels::walkingThroughTheStepsRedrawsEachOne()
{
    // One window from the first step to the last, as a new user goes: each step
    // replaces the last one on the screen.
    m_welcome = showWelcome();
    QVERIFY(m_welcome->rootItem());
    for (int step = 0; step < 6; ++step) {
        if (step > 0) {
            m_screenBefore = ScreenPixels::grabWholeScreen();
            m_welcome->rootItem()->setProperty("step", step);
        }
        const QList<Part> parts = welcomeParts(*m_welcome);
        QVERIFY2(!parts.isEmpty(), qPrintable(u"step %1 lacks its picture, title or button"_s.arg(step)));
        VERIFY_DRAWN(m_welcome->window(), OnboardingWindow::windowSize, parts, u"welcome-walk-step-%1"_s.arg(step));
    }
}

void TestWindowPixels::settingsAlone()
{
    m_settings = showSettings();
    QVERIFY(m_settings->rootItem());
    const QList<Part> parts = settingsParts(*m_settings);
    QVERIFY(!parts.isEmpty());
    VERIFY_DRAWN(m_settings->window(), SettingsWindow::windowSize, parts, u"settings"_s);
}

void TestWindowPixels::settingsOverTheWelcomeWindow()
{
    // As a new user meets it: the welcome window is up, then Settings opens (the
    // tray's "Settings…" or a second start), centred over it.
    m_welcome = showWelcome();
    QVERIFY(m_welcome->rootItem());
    VERIFY_DRAWN(m_welcome->window(), OnboardingWindow::windowSize, welcomeParts(*m_welcome), u"welcome-first"_s);
    m_settings = showSettings();
    QVERIFY(m_settings->rootItem());
    const QList<Part> parts = settingsParts(*m_settings);
    QVERIFY(!parts.isEmpty());
    VERIFY_DRAWN(m_settings->window(), SettingsWindow::windowSize, parts, u"settings-over-welcome"_s);
    // What still shows of the welcome window around it is drawn too.
    REQUIRE_ITEM(progress, m_welcome->rootItem(), u"progress"_s);
    REQUIRE_ITEM(button, m_welcome->rootItem(), u"primaryButton"_s);
    VERIFY_DRAWN(m_welcome->window(), OnboardingWindow::windowSize,
        (QList<Part> { { u"the progress bar"_s, progress }, { u"the \"Get started\" button"_s, button } }),
        u"welcome-under-settings"_s);
}

void TestWindowPixels::welcomeAndSettingsApart()
{
    m_welcome = showWelcome();
    m_settings = showSettings();
    QVERIFY(m_welcome->rootItem());
    QVERIFY(m_settings->rootItem());
    m_welcome->window()->setPosition(40, 60);
    m_settings->window()->setPosition(700, 60);
    VERIFY_DRAWN(m_welcome->window(), OnboardingWindow::windowSize, welcomeParts(*m_welcome), u"welcome-apart"_s);
    VERIFY_DRAWN(m_settings->window(), SettingsWindow::windowSize, settingsParts(*m_settings), u"settings-apart"_s);
    // Moving on to another step redraws the welcome window beside Settings.
    m_screenBefore = ScreenPixels::grabWholeScreen();
    m_welcome->rootItem()->setProperty("step", 3);
    VERIFY_DRAWN(
        m_welcome->window(), OnboardingWindow::windowSize, welcomeParts(*m_welcome), u"welcome-apart-hotkey-step"_s);
}

void TestWindowPixels::settingsBeforeWelcome()
{
    // The other order of creation: Settings first, the welcome window on top.
    m_settings = showSettings();
    QVERIFY(m_settings->rootItem());
    VERIFY_DRAWN(
        m_settings->window(), SettingsWindow::windowSize, settingsParts(*m_settings), u"settings-before-welcome"_s);
    m_welcome = showWelcome();
    QVERIFY(m_welcome->rootItem());
    VERIFY_DRAWN(
        m_welcome->window(), OnboardingWindow::windowSize, welcomeParts(*m_welcome), u"welcome-over-settings"_s);
}

void TestWindowPixels::capsuleStates_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("part");
    for (const char* state : { "dictating", "tone", "cleaning", "tonePicker", "rewriting", "success", "error" })
        QTest::newRow(state) << QString::fromLatin1(state)
                             << (qstrcmp(state, "tonePicker") == 0 ? u"toneGrid"_s : u"hudText"_s);
}

void TestWindowPixels::capsuleStates()
{
    QFETCH(QString, state);
    QFETCH(QString, part);
    // The listening modes come through show(); the session sets the others on the
    // state of a capsule already up, and success and error through their calls.
    const bool listening = state == u"dictating"_s || state == u"tone"_s;
    m_capsule = showCapsule(state == u"tone"_s ? HUDMode::tone() : HUDMode::dictating());
    QVERIFY(m_capsule->window());
    if (!listening) {
        // Up and drawn first, so that the new mode has to be drawn over it.
        REQUIRE_ITEM(first, m_capsule->rootItem(), u"hudText"_s);
        VERIFY_DRAWN(m_capsule->window(), capsuleSize(*m_capsule), (QList<Part> { { u"the capsule's text"_s, first } }),
            u"capsule-before-"_s + state);
        m_screenBefore = ScreenPixels::grabWholeScreen();
    }
    if (state == u"cleaning"_s)
        m_capsule->hudState().setMode(HUDMode::cleaning());
    else if (state == u"tonePicker"_s)
        m_capsule->hudState().setMode(HUDMode::tonePicker([](Tone) {}));
    else if (state == u"rewriting"_s)
        m_capsule->hudState().setMode(HUDMode::rewriting(Tone::friendly));
    else if (state == u"success"_s)
        m_capsule->showSuccess(u"the inserted text"_s, std::nullopt);
    else if (state == u"error"_s)
        m_capsule->showError(u"Couldn't reach the transcription service."_s);
    REQUIRE_ITEM(text, m_capsule->rootItem(), part);
    VERIFY_DRAWN(m_capsule->window(), capsuleSize(*m_capsule), (QList<Part> { { u"the capsule's "_s + part, text } }),
        u"capsule-"_s + state);
}

void TestWindowPixels::capsuleBesideSettings()
{
    m_settings = showSettings();
    QVERIFY(m_settings->rootItem());
    m_capsule = showCapsule(HUDMode::dictating());
    QVERIFY(m_capsule->window());
    REQUIRE_ITEM(text, m_capsule->rootItem(), u"hudText"_s);
    VERIFY_DRAWN(m_capsule->window(), capsuleSize(*m_capsule), (QList<Part> { { u"the capsule's text"_s, text } }),
        u"capsule-beside-settings"_s);
    VERIFY_DRAWN(
        m_settings->window(), SettingsWindow::windowSize, settingsParts(*m_settings), u"settings-beside-capsule"_s);
    m_screenBefore = ScreenPixels::grabWholeScreen();
    m_capsule->hudState().setMode(HUDMode::tonePicker([](Tone) {}));
    REQUIRE_ITEM(grid, m_capsule->rootItem(), u"toneGrid"_s);
    VERIFY_DRAWN(m_capsule->window(), capsuleSize(*m_capsule), (QList<Part> { { u"the tone buttons"_s, grid } }),
        u"tone-picker-beside-settings"_s);
}

void TestWindowPixels::capsuleWithThePracticeBox()
{
    // The first dictation of a new user: the welcome window's practice step, and the
    // capsule listening, then done.
    m_welcome = showWelcome();
    QVERIFY(m_welcome->rootItem());
    m_welcome->rootItem()->setProperty("step", 4);
    REQUIRE_ITEM(placeholder, m_welcome->rootItem(), u"placeholder"_s);
    QList<Part> parts = welcomeParts(*m_welcome);
    parts.append({ u"the practice box's placeholder"_s, placeholder });
    VERIFY_DRAWN(m_welcome->window(), OnboardingWindow::windowSize, parts, u"practice"_s);
    m_capsule = showCapsule(HUDMode::dictating());
    QVERIFY(m_capsule->window());
    REQUIRE_ITEM(text, m_capsule->rootItem(), u"hudText"_s);
    VERIFY_DRAWN(m_capsule->window(), capsuleSize(*m_capsule), (QList<Part> { { u"the capsule's text"_s, text } }),
        u"capsule-with-practice"_s);
    // The practice step is still drawn with the capsule up.
    const Reading practice = read(m_welcome->window(), OnboardingWindow::windowSize, parts);
    QVERIFY2(practice.problem.isEmpty(), qPrintable(practice.problem));
    m_screenBefore = ScreenPixels::grabWholeScreen();
    m_capsule->hudState().setPartialText(u"hello from the practice box"_s);
    m_capsule->showSuccess(u"hello from the practice box"_s, std::nullopt);
    REQUIRE_ITEM(done, m_capsule->rootItem(), u"hudText"_s);
    VERIFY_DRAWN(m_capsule->window(), capsuleSize(*m_capsule), (QList<Part> { { u"the capsule's text"_s, done } }),
        u"capsule-success-with-practice"_s);
}

int main(int argc, char* argv[])
{
    // The scene graph the program itself uses (main.cpp): software, unless the
    // environment asks for another.
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(u"Quillet"_s);
    QGuiApplication::setOrganizationName(u"Quillet"_s);
    TestWindowPixels test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_windowpixels.moc"
