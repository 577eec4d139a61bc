// The capsule in a real X server: where it appears, what it draws for each mode,
// and when it goes away. Durations are shortened through HUDTiming.
#include "HUDProbe.h"
#include "platform/WindowCompositing.h"
#include "ui/HUDWindowController.h"
#include "ui/TextFit.h"

#include <QAccessible>
#include <QCursor>
#include <QGuiApplication>
#include <QQmlEngine>
#include <QScreen>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

using namespace Qt::StringLiterals;
using namespace HUDProbe;

namespace {

const QChar ellipsis(0x2026);

QString longText(int words)
{
    QString text;
    for (int i = 0; i < words; ++i)
        text += (i ? u" "_s : QString()) + u"w"_s + QString::number(i);
    return text;
}

// The screen the pointer is on, as the capsule's placement chooses it.
QScreen* screenUnderPointer()
{
    const QPoint pointer = QCursor::pos();
    for (QScreen* screen : QGuiApplication::screens()) {
        if (screen->geometry().contains(pointer))
            return screen;
    }
    return QGuiApplication::primaryScreen();
}

} // namespace

class TestHUDWindow : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QGuiApplication::primaryScreen());
        QCursor::setPos(QPoint(400, 300));
        QTRY_COMPARE(QCursor::pos(), QPoint(400, 300));
    }

    void viewsLoad()
    {
        QVERIFY(HUDWindowController::preload());
        QVERIFY(HUDWindowController::preload()); // and again: the same compiled component
    }

    void noWindowBeforeTheFirstShow()
    {
        HUDWindowController hud(fastTiming());
        QVERIFY(!hud.window());
        QCOMPARE(hud.hudState().kind(), HUDMode::Kind::dictating);
        QVERIFY(hud.hudState().partialText().isEmpty());
    }

    void showPutsTheCapsuleAtTheBottomCentre()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        QQuickWindow* window = hud.window();
        QVERIFY(window->isVisible());
        QVERIFY(window->flags().testFlag(Qt::WindowDoesNotAcceptFocus));
        QVERIFY(window->flags().testFlag(Qt::WindowStaysOnTopHint));
        QCOMPARE(window->width(), 320);
        QCOMPARE(window->height(), 56);
        QCOMPARE(window->opacity(), 1.0); // a new window appears at once

        const QRect area = screenUnderPointer()->availableGeometry();
        const QRect frame = window->geometry();
        QCOMPARE(frame.x(), area.x() + (area.width() - 320) / 2);
        QCOMPARE(frame.y() + frame.height(), area.y() + area.height() - 24);
        QVERIFY(!QGuiApplication::focusWindow());
    }

    void theCapsuleMovesWhenItsBackgroundIsDragged()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        QQuickWindow* window = hud.window();
        const QPoint before = window->position();
        const QPoint grab(window->width() / 2 + 60, window->height() / 2); // on the capsule, right of the text
        // As the window system delivers them: the button held through the move.
        const auto send = [window](QEvent::Type type, QPointF at, Qt::MouseButton button, Qt::MouseButtons held) {
            QMouseEvent event(type, at, window->mapToGlobal(at), button, held, {});
            QCoreApplication::sendEvent(window, &event);
        };
        send(QEvent::MouseButtonPress, grab, Qt::LeftButton, Qt::LeftButton);
        send(QEvent::MouseMove, grab + QPoint(30, -20), Qt::NoButton, Qt::LeftButton);
        send(QEvent::MouseButtonRelease, grab + QPoint(30, -20), Qt::LeftButton, Qt::NoButton);
        QTRY_COMPARE(window->position(), before + QPoint(30, -20));
        QVERIFY(!QGuiApplication::focusWindow()); // dragging takes no focus either
    }

    void xvfbHasNoCompositorSoTheCapsuleIsOpaqueAndShaped()
    {
        QVERIFY(!WindowCompositing::isActive());
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        QCOMPARE(hud.rootItem()->property("translucent").toBool(), false);
        // Cut to the capsule: a corner of the window is outside it, the middle inside.
        const QRegion mask = hud.window()->mask();
        QVERIFY(!mask.isEmpty());
        QVERIFY(!mask.contains(QPoint(0, 0)));
        QVERIFY(mask.contains(QPoint(160, hud.window()->height() / 2)));
    }

    void withACompositorTheCapsuleIsTranslucentWithAShadow()
    {
        // Xvfb has no compositor, so the platform is overridden; the drawing is real.
        HUDWindowController::setTranslucentOverride(true);
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::cleaning());
        HUDWindowController::setTranslucentOverride(std::nullopt);
        QVERIFY(waitForExposed(hud));
        QCOMPARE(hud.rootItem()->property("translucent").toBool(), true);
        QVERIFY(hud.window()->mask().isEmpty());
        QVERIFY(hud.window()->format().alphaBufferSize() >= 8);

        const QImage image = grab(hud);
        keepForViewing(image, u"translucent"_s);
        QVERIFY(image.hasAlphaChannel());
        // Outside the capsule and its shadow: fully transparent.
        QCOMPARE(qAlpha(image.pixel(0, 0)), 0);
        const QRect capsule = hud.rootItem()->property("capsuleRect").toRect();
        QVERIFY(!capsule.isEmpty());
        // The capsule itself is translucent, and a shadow darkens what lies below it.
        const int middle = qAlpha(image.pixel(capsule.center()));
        QVERIFY(middle > 200 && middle < 255);
        const QPoint belowCapsule(capsule.center().x(), capsule.bottom() + 3);
        QVERIFY(qAlpha(image.pixel(belowCapsule)) > 0);
        QVERIFY(qAlpha(image.pixel(capsule.left() - 12, capsule.center().y())) == 0);
    }

    void listeningShowsItsTextInInk()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        QQuickItem* text = item(hud, u"hudText"_s);
        QVERIFY(text);
        QCOMPARE(text->property("text").toString(), u"Listening…"_s);
        QVERIFY(item(hud, u"waveform"_s));

        const QImage image = grab(hud);
        QVERIFY(!image.isNull());
        const QRect textArea = windowRect(text);
        QVERIFY2(countPixels(image, textArea, isInk) > 30, "no glyphs where \"Listening…\" should be");
        // Left of the waveform the capsule is plain background.
        const QRect padding(windowRect(item(hud, u"waveform"_s)).left() - 12, textArea.top(), 8, textArea.height());
        QCOMPARE(countPixels(image, padding, isInk), 0);
    }

    void everyModeHasItsRow_data()
    {
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("fontSize");
        QTest::addColumn<QString>("icon");
        QTest::newRow("tone") << u"Speak for tone rewrite…"_s << 14 << QString();
        QTest::newRow("partial") << u"hello world"_s << 14 << QString();
        QTest::newRow("cleaning") << u"Cleaning…"_s << 14 << u"spinner"_s;
        QTest::newRow("rewriting") << u"Rewriting in Supportive…"_s << 14 << u"spinner"_s;
        QTest::newRow("success") << u"Inserted"_s << 14 << u"successIcon"_s;
        QTest::newRow("success with tone") << u"Rewritten in Firm"_s << 14 << u"successIcon"_s;
        QTest::newRow("error") << u"Could not reach the server"_s << 12 << u"errorIcon"_s;
    }
    void everyModeHasItsRow()
    {
        QFETCH(QString, expected);
        QFETCH(int, fontSize);
        QFETCH(QString, icon);
        const QString row = QString::fromLatin1(QTest::currentDataTag());

        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        const QImage listening = grab(hud);

        HUDState& state = hud.hudState();
        if (row == u"tone")
            hud.show(HUDMode::tone());
        else if (row == u"partial")
            state.setPartialText(u"hello world"_s);
        else if (row == u"cleaning")
            state.setMode(HUDMode::cleaning());
        else if (row == u"rewriting")
            state.setMode(HUDMode::rewriting(Tone::supportive));
        else if (row == u"success")
            hud.showSuccess(u"the text that was inserted"_s, std::nullopt);
        else if (row == u"success with tone")
            hud.showSuccess(u"the text that was inserted"_s, Tone::firm);
        else if (row == u"error")
            hud.showError(u"Could not reach the server"_s);

        QQuickItem* text = item(hud, u"hudText"_s);
        QVERIFY(text);
        QCOMPARE(text->property("text").toString(), expected);
        QCOMPARE(text->property("font").value<QFont>().pixelSize(), fontSize);

        const QImage image = grab(hud);
        keepForViewing(image, row);
        QVERIFY(countPixels(image, windowRect(text), isInk) > 30);
        QVERIFY(image != listening);

        if (!icon.isEmpty()) {
            QQuickItem* picture = item(hud, icon);
            QVERIFY(picture);
            QCOMPARE(picture->property("status").toInt(), 1); // Image.Ready: the SVG loaded
            QVERIFY(picture->width() > 0);
            const QRect where = windowRect(picture);
            if (icon == u"successIcon")
                QVERIFY2(countPixels(image, where, isGreen) > 60, "no green check");
            else if (icon == u"errorIcon")
                QVERIFY2(countPixels(image, where, isOrange) > 60, "no orange warning");
            else
                QCOMPARE(picture->scale(), 0.7);
        }
    }

    void successNeverShowsTheInsertedText()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        hud.hudState().setPartialText(u"some words"_s);
        hud.showSuccess(u"A very long inserted text that the capsule must not show"_s, std::nullopt);
        QCOMPARE(item(hud, u"hudText"_s)->property("text").toString(), u"Inserted"_s);
    }

    void longPartialTextKeepsItsNewestWordsOnTwoLines()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        const QString spoken = longText(80);
        hud.hudState().setPartialText(spoken);

        QQuickItem* text = item(hud, u"hudText"_s);
        const QString shown = text->property("text").toString();
        QVERIFY(shown.startsWith(ellipsis));
        QVERIFY(shown.endsWith(u"w79"_s));
        QVERIFY(spoken.endsWith(shown.mid(1)));
        QVERIFY(shown.size() < spoken.size());
        QCOMPARE(text->property("lineCount").toInt(), 2);
        // It fitted as measured: Text did not have to cut anything itself.
        QCOMPARE(text->property("truncated").toBool(), false);
        // Two lines still fit the window, which grew if it had to.
        QVERIFY(windowRect(text).bottom() < hud.window()->height());
        const QImage image = grab(hud);
        QCOMPARE(image.size(), hud.window()->size());
        keepForViewing(image, u"long-partial"_s);
        QVERIFY(countPixels(image, windowRect(text), isInk) > 100);
    }

    void longErrorIsCutAfterTheSecondLine()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        hud.showError(longText(60));
        QQuickItem* text = item(hud, u"hudText"_s);
        QCOMPARE(text->property("lineCount").toInt(), 2);
        QCOMPARE(text->property("truncated").toBool(), true);
    }

    void showAlwaysClearsThePartialText()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        hud.hudState().setPartialText(u"left over"_s);
        QSignalSpy modeChanged(&hud.hudState(), &HUDState::modeChanged);
        hud.show(HUDMode::dictating());
        QVERIFY(hud.hudState().partialText().isEmpty());
        QCOMPARE(modeChanged.count(), 0);
        QCOMPARE(item(hud, u"hudText"_s)->property("text").toString(), u"Listening…"_s);
    }

    void waveformStartsAtPhaseZero()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QQuickItem* waveform = item(hud, u"waveform"_s);
        QVERIFY(waveform);
        QCOMPARE(waveform->property("phase").toDouble(), 0.0);
        // Bar 0 at phase 0 is the shortest a bar gets.
        QCOMPARE(item(hud, u"bar0"_s)->height(), 6.0);
    }

    void waveformBarsTravel()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        QQuickItem* waveform = item(hud, u"waveform"_s);
        QVERIFY(waveform);
        QCOMPARE(waveform->property("barCount").toInt(), 5);

        QVariant atZero;
        QVERIFY(QMetaObject::invokeMethod(
            waveform, "barHeight", Q_RETURN_ARG(QVariant, atZero), Q_ARG(QVariant, 0), Q_ARG(QVariant, 0.0)));
        QCOMPARE(atZero.toDouble(), 6.0);

        QList<QQuickItem*> bars;
        for (int i = 0; i < 5; ++i) {
            bars << item(hud, u"bar"_s + QString::number(i));
            QVERIFY(bars.last());
            QCOMPARE(bars.last()->width(), 3.0);
        }
        QVERIFY(!item(hud, u"bar5"_s));

        // Ticks of the timer move the phase by 0.4; the heights stay in 6..20.
        const double start = waveform->property("phase").toDouble();
        QList<qreal> first;
        for (QQuickItem* bar : bars)
            first << bar->height();
        for (int tick = 0; tick < 6; ++tick) {
            const double before = waveform->property("phase").toDouble();
            QTRY_VERIFY(waveform->property("phase").toDouble() > before);
            // Whole steps of 0.4: one tick, or more when the wait spanned several.
            const double steps = (waveform->property("phase").toDouble() - before) / 0.4;
            QVERIFY(steps >= 1.0 - 1e-9);
            QCOMPARE(std::round(steps), steps);
            for (QQuickItem* bar : bars) {
                QVERIFY(bar->height() >= 6.0);
                QVERIFY(bar->height() <= 20.0);
            }
        }
        QVERIFY(waveform->property("phase").toDouble() >= start + 2.4 - 1e-9);
        QList<qreal> later;
        for (QQuickItem* bar : bars)
            later << bar->height();
        QVERIFY(later != first);
    }

    void tonePickerLaysOutAsManyColumnsAsFit()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        const int bottom = hud.window()->geometry().bottom();
        hud.hudState().setMode(HUDMode::tonePicker([](Tone) {}));

        QQuickItem* grid = item(hud, u"toneGrid"_s);
        QVERIFY(grid);
        QSet<int> columnXs;
        QStringList labels;
        for (int i = 0; i < 6; ++i) {
            QQuickItem* button = item(hud, u"toneButton"_s + QString::number(i));
            QVERIFY(button);
            QVERIFY(button->width() >= 80);
            columnXs.insert(qRound(button->x()));
            labels << button->property("modelData").toString();
        }
        QVERIFY(!item(hud, u"toneButton6"_s));
        const int columns = (288 + 6) / (80 + 6);
        QCOMPARE(columns, 3);
        QCOMPARE(columnXs.size(), columns);
        QCOMPARE(grid->property("columns").toInt(), columns);
        QCOMPARE(labels,
            QStringList({ u"Professional"_s, u"Friendly"_s, u"Funny"_s, u"Firm"_s, u"Supportive"_s, u"Concise"_s }));
        // Row order: the fourth tone starts the second row.
        QCOMPARE(item(hud, u"toneButton3"_s)->x(), item(hud, u"toneButton0"_s)->x());
        QVERIFY(item(hud, u"toneButton3"_s)->y() > item(hud, u"toneButton0"_s)->y());

        // The window grew upwards to hold the grid; 320 wide, bottom edge in place.
        QTRY_VERIFY(hud.window()->height() > 56);
        QCOMPARE(hud.window()->width(), 320);
        QCOMPARE(hud.window()->geometry().bottom(), bottom);
        const QImage image = grab(hud);
        QCOMPARE(image.size(), hud.window()->size());
        keepForViewing(image, u"tone-picker"_s);
        QVERIFY(countPixels(image, windowRect(item(hud, u"toneButton5"_s)), isInk) > 20);
    }

    // Screen readers see the capsule's controls: the tone buttons and the picker's close
    // control are buttons named as they read, and pressing them through accessibility works.
    void capsuleControlsHaveAccessibleRolesAndNames()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        std::optional<Tone> chosen;
        int closed = 0;
        hud.hudState().setMode(HUDMode::tonePicker([&](Tone tone) { chosen = tone; }, [&] { ++closed; }));
        QTRY_VERIFY(item(hud, u"toneButton5"_s));
        QTRY_VERIFY(item(hud, u"toneCloseButton"_s) && item(hud, u"toneCloseButton"_s)->isVisible());

        QMap<QString, QAccessibleInterface*> buttons;
        QStringList texts;
        const auto walk = [&](auto&& self, QAccessibleInterface* node) -> void {
            if (!node)
                return;
            if (node->role() == QAccessible::Button)
                buttons.insert(node->text(QAccessible::Name), node);
            if (node->role() == QAccessible::StaticText)
                texts << node->text(QAccessible::Name);
            for (int i = 0; i < node->childCount(); ++i)
                self(self, node->child(i));
        };
        walk(walk, QAccessible::queryAccessibleInterface(hud.window()));
        QCOMPARE(QSet<QString>(buttons.keyBegin(), buttons.keyEnd()),
            (QSet<QString> {
                u"Professional"_s, u"Friendly"_s, u"Funny"_s, u"Firm"_s, u"Supportive"_s, u"Concise"_s, u"Close"_s }));
        QVERIFY(texts.contains(u"Choose tone"_s));

        QAccessibleActionInterface* funny = buttons.value(u"Funny"_s)->actionInterface();
        QVERIFY(funny);
        QVERIFY(funny->actionNames().contains(QAccessibleActionInterface::pressAction()));
        funny->doAction(QAccessibleActionInterface::pressAction());
        QCOMPARE(chosen, std::optional<Tone>(Tone::funny));
        buttons.value(u"Close"_s)->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
        QCOMPARE(closed, 1);

        // An error is announced as an alert with its message.
        hud.showError(u"Microphone lost. Your words are in the history."_s);
        QTRY_VERIFY(item(hud, u"errorIcon"_s));
        QStringList alerts;
        const auto findAlerts = [&](auto&& self, QAccessibleInterface* node) -> void {
            if (!node)
                return;
            if (node->role() == QAccessible::AlertMessage)
                alerts << node->text(QAccessible::Name);
            for (int i = 0; i < node->childCount(); ++i)
                self(self, node->child(i));
        };
        findAlerts(findAlerts, QAccessible::queryAccessibleInterface(hud.window()));
        QCOMPARE(alerts, QStringList { u"Microphone lost. Your words are in the history."_s });
    }

    // A megabyte partial (a broken or hostile backend) shows its end at once: the capsule
    // lays out a bounded tail of it, however long it is.
    void aHugePartialShowsItsEndInBoundedWork()
    {
        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        const qint64 before = TextFit::charactersLaidOut();
        hud.hudState().setPartialText(u"x"_s.repeated(1024 * 1024) + u"END"_s);
        QQuickItem* text = item(hud, u"hudText"_s);
        QVERIFY(text);
        QTRY_VERIFY(text->property("text").toString().endsWith(u"END"_s));
        const qsizetype limit = TextFit::tailLimit(254, 2);
        QVERIFY(text->property("text").toString().size() <= limit + 1);
        const qint64 work = TextFit::charactersLaidOut() - before;
        QVERIFY2(work <= 100 * (limit + 1), qPrintable(QString::number(work)));
    }

    void successIsDismissedAfterItsDelay()
    {
        HUDWindowController hud(fastTiming());
        QSignalSpy dismissed(&hud, &HUDWindowController::dismissed);
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        hud.showSuccess(u"done"_s, std::nullopt);
        QVERIFY(hud.window()->isVisible());
        QTRY_VERIFY(!hud.window()->isVisible());
        QCOMPARE(dismissed.count(), 1);
        QCOMPARE(hud.window()->opacity(), 0.0);
        // The state is left as it was.
        QCOMPARE(hud.hudState().kind(), HUDMode::Kind::success);

        // The window is kept; the next show fades it up from 0.
        QQuickWindow* first = hud.window();
        hud.show(HUDMode::dictating());
        QCOMPARE(hud.window(), first);
        QVERIFY(hud.window()->isVisible());
        QVERIFY(hud.window()->opacity() < 1.0);
        QTRY_COMPARE(hud.window()->opacity(), 1.0);
    }

    void errorIsDismissedAfterItsDelay()
    {
        HUDWindowController hud(fastTiming());
        QSignalSpy dismissed(&hud, &HUDWindowController::dismissed);
        hud.show(HUDMode::dictating());
        hud.showError(u"Microphone unavailable"_s);
        QCOMPARE(hud.hudState().message(), u"Microphone unavailable"_s);
        QTRY_COMPARE(dismissed.count(), 1);
        QVERIFY(!hud.window()->isVisible());
    }

    void aLaterShowDoesNotCancelTheDismissal()
    {
        HUDWindowController hud(fastTiming());
        QSignalSpy dismissed(&hud, &HUDWindowController::dismissed);
        hud.show(HUDMode::dictating());
        hud.showSuccess(u"done"_s, std::nullopt);
        hud.show(HUDMode::dictating()); // within the delay
        QVERIFY(hud.window()->isVisible());
        QTRY_COMPARE(dismissed.count(), 1);
        QVERIFY(!hud.window()->isVisible());
        QCOMPARE(hud.hudState().kind(), HUDMode::Kind::dictating);
    }

    void showErrorBeforeAnyShowOnlyChangesTheModel()
    {
        HUDWindowController hud(fastTiming());
        QSignalSpy dismissed(&hud, &HUDWindowController::dismissed);
        QSignalSpy modeChanged(&hud.hudState(), &HUDState::modeChanged);
        hud.showError(u"Not signed in"_s);
        hud.showSuccess(u"x"_s, Tone::concise);
        QCOMPARE(modeChanged.count(), 2);
        QCOMPARE(hud.hudState().kind(), HUDMode::Kind::success);
        // Both timers come and go; nothing is created, nothing is shown.
        QTest::qWait(int(fastTiming().errorDismissal.count()) * 2);
        QVERIFY(!hud.window());
        QCOMPARE(dismissed.count(), 0);
    }

    void controllerGoneBeforeItsTimerIsNothing()
    {
        const QWindowList before = QGuiApplication::topLevelWindows();
        auto hud = std::make_unique<HUDWindowController>(fastTiming());
        hud->show(HUDMode::dictating());
        QVERIFY(waitForExposed(*hud));
        QPointer<QQuickWindow> window = hud->window();
        hud->showSuccess(u"done"_s, std::nullopt);
        hud->showError(u"late"_s);
        hud.reset();
        QVERIFY(!window);
        QTest::qWait(int(fastTiming().errorDismissal.count()) * 2);
        // Still here, and no window came back.
        QCOMPARE(QGuiApplication::topLevelWindows(), before);
    }

    void everyControllerHasItsWindowAndAllShareOneEngine()
    {
        HUDWindowController first(fastTiming());
        HUDWindowController second(fastTiming());
        first.show(HUDMode::dictating());
        second.show(HUDMode::cleaning());
        QVERIFY(first.window() != second.window());
        QVERIFY(qmlEngine(first.rootItem()));
        QCOMPARE(qmlEngine(first.rootItem()), qmlEngine(second.rootItem()));
        QCOMPARE(item(first, u"hudText"_s)->property("text").toString(), u"Listening…"_s);
        QCOMPARE(item(second, u"hudText"_s)->property("text").toString(), u"Cleaning…"_s);
    }
};

QTEST_MAIN(TestHUDWindow)
#include "tst_hudwindow.moc"
