#include "StdoutCapture.h"
#include "WindowTestTools.h"
#include "dictation/DictationSession.h"
#include "services/Log.h"
#include "ui/OnboardingWindow.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickWindow>
#include <QtTest>

using namespace Qt::StringLiterals;

// The first-run practice box takes its first dictation like any field, but from our
// own process: the text goes straight into it rather than through the accessibility
// bus, which would have Quillet wait for an answer only its own busy thread can give.
class TestPracticeBox : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void aDictationLandsInThePracticeBox()
    {
        OnboardingWindow window([] {});
        window.showAndRaise();
        QQuickItem* root = window.rootItem();
        QVERIFY(root);
        root->setProperty("step", 4);
        QQuickItem* step = WindowTestTools::findItem(root, u"practiceStep"_s);
        QVERIFY(step);
        QQuickItem* box = WindowTestTools::findItem(step, u"practiceBox"_s);
        QVERIFY(box);
        QTRY_VERIFY(box->hasActiveFocus());
        QTRY_VERIFY(QGuiApplication::focusWindow() != nullptr);

        const QString dictated = u"Hello from the practice box."_s;
        DictationEnvironment::system().insert(dictated);
        QCOMPARE(box->property("text").toString(), dictated);
        QCOMPARE(WindowTestTools::findItem(step, u"primaryButton"_s)->property("text").toString(), u"Continue"_s);
    }

    void withoutATextFieldTheClipboardIsLeftAlone()
    {
        const QString before = u"What the user copied earlier."_s;
        QGuiApplication::clipboard()->setText(before);
        QTRY_COMPARE(QGuiApplication::clipboard()->text(), before);
        OnboardingWindow window([] {});
        window.showAndRaise();
        QQuickItem* root = window.rootItem();
        QVERIFY(root);
        root->setProperty("step", 0); // the welcome: buttons, no text field
        QTRY_VERIFY(QGuiApplication::focusWindow() != nullptr);
        QQuickItem* focused = window.rootItem()->window()->activeFocusItem();
        QVERIFY(!focused || !focused->inputMethodQuery(Qt::ImEnabled).toBool());

        const QString dictated = u"Nowhere to type this."_s;
        StdoutCapture out;
        DictationEnvironment::system().insert(dictated);
        QVERIFY(out.lines().contains(
            u"⚠️ [Quillet] Quillet's own window has the focus but no text field: the text is only in the history"_s));
        // Long past the paste fallback's restore: what the user had copied is still there.
        QTest::qWait(2 * 300);
        QCOMPARE(QGuiApplication::clipboard()->text(), before);
    }
};

QTEST_MAIN(TestPracticeBox)
#include "tst_practicebox.moc"
