// The capsule never takes the keyboard focus: a real GTK 3 window holds the X
// input focus before, while and after the capsule shows, changes mode and takes a
// click on a tone button, and the keys the user types still land in its entry.
#include "FieldApp.h"
#include "HUDProbe.h"
#include "ui/HUDWindowController.h"

#include <QGuiApplication>
#include <QtTest>

#include <X11/Xlib.h>

#include <vector>

using namespace Qt::StringLiterals;
using namespace HUDProbe;

namespace {

// The window holding the X input focus, as the X server itself says.
Window inputFocus()
{
    static Display* const dpy = XOpenDisplay(nullptr);
    if (!dpy)
        return None;
    Window focus = None;
    int revert = 0;
    XGetInputFocus(dpy, &focus, &revert);
    return focus;
}

} // namespace

class TestHUDFocus : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void neverTakesTheFocusFromTheTextField()
    {
        FieldApp app(QStringLiteral(QUILLET_GTK_FIELDS));
        QVERIFY(app.start());
        QVERIFY(app.focus(u"entry"_s));
        const Window focused = inputFocus();
        QVERIFY(focused != None && focused != PointerRoot);
        const auto stillFocused = [&] { return inputFocus() == focused && app.hasFocus(u"entry"_s); };
        QVERIFY(stillFocused());

        HUDWindowController hud(fastTiming());
        hud.show(HUDMode::dictating());
        QVERIFY(waitForExposed(hud));
        QVERIFY(inputFocus() != Window(hud.window()->winId()));
        QVERIFY(stillFocused());

        hud.hudState().setPartialText(u"hello there"_s);
        hud.hudState().setMode(HUDMode::cleaning());
        QTest::qWait(50); // let the X server see whatever the mode change caused
        QVERIFY(stillFocused());

        std::vector<Tone> chosen;
        hud.hudState().setMode(HUDMode::tonePicker([&](Tone tone) {
            chosen.push_back(tone);
            hud.hudState().setMode(HUDMode::rewriting(tone));
        }));
        QQuickItem* button = item(hud, u"toneButton3"_s);
        QVERIFY(button);
        QCOMPARE(button->property("modelData").toString(), u"Firm"_s);
        // Wait for the grown window to be drawn where the button will be.
        QCOMPARE(grab(hud).size(), hud.window()->size());
        QVERIFY(stillFocused());

        const QPoint centre = button->mapToGlobal(QPointF(button->width() / 2, button->height() / 2)).toPoint();
        QVERIFY(hud.window()->geometry().contains(centre));
        QCOMPARE(Desktop::run(u"xdotool"_s,
                     { u"mousemove"_s, QString::number(centre.x()), QString::number(centre.y()), u"click"_s, u"1"_s }),
            0);
        QTRY_COMPARE(chosen.size(), size_t(1));
        QCOMPARE(chosen.front(), Tone::firm);
        QCOMPARE(hud.hudState().kind(), HUDMode::Kind::rewriting);
        QCOMPARE(item(hud, u"hudText"_s)->property("text").toString(), u"Rewriting in Firm…"_s);
        QVERIFY(stillFocused());

        hud.showSuccess(u"done"_s, Tone::firm);
        QVERIFY(stillFocused());

        // The user types on: the keys reach the entry, not the capsule.
        QCOMPARE(Desktop::run(u"xdotool"_s, { u"type"_s, u"--delay"_s, u"20"_s, u"ok"_s }), 0);
        const auto content = app.waitForText(u"entry"_s, u"ok"_s);
        QVERIFY(content);
        QCOMPARE(content->text, u"ok"_s);

        QTRY_VERIFY(!hud.window()->isVisible());
        QVERIFY(stillFocused());
    }
};

QTEST_MAIN(TestHUDFocus)
#include "tst_hudfocus.moc"
