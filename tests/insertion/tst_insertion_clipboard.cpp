// The clipboard path in a real desktop whose accessibility is switched off: the
// text is pasted with a synthetic Control+V, and 0.3 s later the clipboard holds
// what it held before (or nothing, when that was not text).
#include "FieldApp.h"
#include "StdoutCapture.h"
#include "dictation/TextInserter.h"
#include "platform/PasteKeystroke.h"
#include "platform/Pasteboard.h"
#include "platform/TextAccessibility.h"
#include "services/Log.h"

#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

QStringList fallbackLog(qint64 characters)
{
    return { u"✏️ [Quillet] TextInserter.insert(%1 chars)"_s.arg(characters), u"   AX: process not trusted"_s,
        u"   → AX failed, falling back to clipboard paste"_s };
}

} // namespace

class TestInsertionClipboard : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TextAccessibility> m_accessibility;
    std::unique_ptr<Pasteboard> m_pasteboard;
    std::unique_ptr<PasteKeystroke> m_keystroke;
    std::unique_ptr<TextInserter> m_inserter;
    std::unique_ptr<FieldApp> m_gtk;
    std::unique_ptr<FieldApp> m_qt;

private Q_SLOTS:
    void initTestCase()
    {
        Log::makeStdoutUnbuffered();
        m_accessibility = makeSystemTextAccessibility();
        m_pasteboard = makeSystemPasteboard();
        m_keystroke = makeSystemPasteKeystroke();
        m_inserter = std::make_unique<TextInserter>(*m_accessibility, *m_pasteboard, *m_keystroke);
        QVERIFY2(!m_accessibility->isTrusted(), "this session should have accessibility switched off");

        m_gtk = std::make_unique<FieldApp>(QStringLiteral(QUILLET_GTK_FIELDS));
        QVERIFY(m_gtk->start());
        m_qt = std::make_unique<FieldApp>(QStringLiteral(QUILLET_QT_FIELDS));
        QVERIFY(m_qt->start());
    }

    void cleanupTestCase()
    {
        m_gtk.reset();
        m_qt.reset();
    }

    void pastesAtTheCaretAndRestoresThePreviousText_data()
    {
        QTest::addColumn<bool>("qt");
        QTest::addColumn<QString>("field");
        QTest::newRow("GTK entry") << false << u"entry"_s;
        QTest::newRow("GTK text view") << false << u"textview"_s;
        QTest::newRow("Qt line edit") << true << u"entry"_s;
        QTest::newRow("Qt text edit") << true << u"textview"_s;
    }
    void pastesAtTheCaretAndRestoresThePreviousText()
    {
        QFETCH(bool, qt);
        QFETCH(QString, field);
        FieldApp& app = qt ? *m_qt : *m_gtk;
        QVERIFY(Desktop::setClipboard("previous words", u"UTF8_STRING"_s));
        QCOMPARE(Desktop::clipboardText(), u"previous words"_s);
        QVERIFY(app.focus(field));
        QVERIFY(app.set(field, u"Hello world"_s, 5, 5));

        StdoutCapture out;
        m_inserter->insert(u" big"_s);
        QCOMPARE(out.lines(), fallbackLog(4));
        const auto shown = app.waitForText(field, u"Hello big world"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"Hello big world"_s);
        QCOMPARE(shown->beforeCaret, u"Hello big"_s);
        QTRY_COMPARE(Desktop::clipboardText(), u"previous words"_s);
    }

    void pasteReplacesTheSelection()
    {
        QVERIFY(m_gtk->focus(u"entry"_s));
        QVERIFY(m_gtk->set(u"entry"_s, u"The quick fox jumps"_s, 5, 8));
        m_inserter->insert(u"slow"_s);
        const auto shown = m_gtk->waitForText(u"entry"_s, u"The qslowk fox jumps"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"The qslowk fox jumps"_s);
        QCOMPARE(shown->beforeCaret, u"The qslow"_s);
    }

    void clipboardThatHeldOnlyAnImageIsLeftEmpty()
    {
        // A picture copied in an application: the clipboard offers image types only.
        QVERIFY(m_gtk->copyImage());
        const QStringList offered = Desktop::clipboardTargets();
        QVERIFY2(offered.contains(u"image/png"_s), qPrintable(offered.join(u' ')));
        QVERIFY2(!offered.contains(u"UTF8_STRING"_s), qPrintable(offered.join(u' ')));
        QVERIFY(m_gtk->focus(u"entry"_s));
        QVERIFY(m_gtk->set(u"entry"_s, QString(), 0, 0));

        StdoutCapture out;
        m_inserter->insert(u"a caption"_s);
        QCOMPARE(out.lines(), fallbackLog(9));
        QCOMPARE(m_gtk->waitForText(u"entry"_s, u"a caption"_s)->text, u"a caption"_s);
        QTRY_VERIFY(Desktop::clipboardTargets().isEmpty());
        QCOMPARE(Desktop::clipboardText(), std::nullopt);
    }

    void keystrokeCarriesOnlyControlWhileTheUserHoldsShift_data()
    {
        QTest::addColumn<bool>("qt");
        QTest::newRow("GTK") << false;
        QTest::newRow("Qt") << true;
    }
    void keystrokeCarriesOnlyControlWhileTheUserHoldsShift()
    {
        QFETCH(bool, qt);
        FieldApp& app = qt ? *m_qt : *m_gtk;
        QVERIFY(app.focus(u"entry"_s));
        QVERIFY(app.set(u"entry"_s, QString(), 0, 0));
        QCOMPARE(Desktop::run(u"xdotool"_s, { u"keydown"_s, u"Shift_L"_s }), 0);
        auto releaseShift = qScopeGuard([] { Desktop::run(u"xdotool"_s, { u"keyup"_s, u"Shift_L"_s }); });
        app.takeEvents();

        m_inserter->insert(u"held"_s);
        QCOMPARE(app.waitForText(u"entry"_s, u"held"_s)->text, u"held"_s);
        const QStringList keys = app.takeEvents().filter(QRegularExpression(u"^key v "_s));
        QCOMPARE(keys, QStringList { u"key v control"_s });

        // The user's Shift is down again afterwards: the next letter comes out capital.
        QCOMPARE(Desktop::run(u"xdotool"_s, { u"key"_s, u"a"_s }), 0);
        QCOMPARE(app.waitForText(u"entry"_s, u"heldA"_s)->text, u"heldA"_s);
    }
};

QTEST_MAIN(TestInsertionClipboard)
#include "tst_insertion_clipboard.moc"
