// The insertion algorithm against recording fakes of the accessibility
// interface, the clipboard and the paste keystroke.
#include "InsertionFakes.h"
#include "StdoutCapture.h"
#include "dictation/TextInserter.h"
#include "services/Log.h"

#include <QtTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

const QString headline = u"✏️ [Quillet] TextInserter.insert(%1 chars)"_s;
const QString succeeded = u"   → AX insert succeeded"_s;
const QString fellBack = u"   → AX failed, falling back to clipboard paste"_s;

} // namespace

class TestTextInserter : public QObject
{
    Q_OBJECT

private:
    FakeAccessibility m_accessibility;
    FakePasteboard m_pasteboard;
    std::unique_ptr<FakePasteKeystroke> m_keystroke;
    std::unique_ptr<TextInserter> m_inserter;

private Q_SLOTS:
    void initTestCase() { Log::makeStdoutUnbuffered(); }

    void init()
    {
        m_accessibility = FakeAccessibility();
        m_pasteboard = FakePasteboard();
        m_keystroke = std::make_unique<FakePasteKeystroke>(m_pasteboard);
        m_inserter = std::make_unique<TextInserter>(m_accessibility, m_pasteboard, *m_keystroke);
    }

    void cleanup()
    {
        m_inserter.reset();
        m_keystroke.reset();
    }

    void insertsAtTheCaret()
    {
        m_accessibility.focus.value = { true, u"Hello world"_s };
        m_accessibility.focus.selection = { true, TextRange { 5, 0 } };
        StdoutCapture out;
        m_inserter->insert(u" big"_s);
        QCOMPARE(out.lines(), (QStringList { headline.arg(4), u"   AX: focused role=text"_s, succeeded }));
        QCOMPARE(m_accessibility.focus.writtenValue, u"Hello big world"_s);
        QCOMPARE(m_accessibility.focus.caret, 9);
        QVERIFY(m_pasteboard.calls.isEmpty());
        QVERIFY(m_keystroke->clipboardAtEachPost.isEmpty());
    }

    void replacesTheSelectionAndLeavesTheCaretAfterTheInsertion()
    {
        m_accessibility.focus.value = { true, u"The quick fox jumps"_s };
        m_accessibility.focus.selection = { true, TextRange { 5, 3 } };
        m_inserter->insert(u"slow"_s);
        QCOMPARE(m_accessibility.focus.writtenValue, u"The qslowk fox jumps"_s);
        QCOMPARE(m_accessibility.focus.caret, 9);
        QCOMPARE(m_accessibility.focus.calls,
            (QStringList { u"role"_s, u"value"_s, u"selection"_s, u"setValue"_s, u"setCaret"_s }));
    }

    void caretAdvancesByUserPerceivedCharacters_data()
    {
        QTest::addColumn<QString>("insertion");
        QTest::addColumn<qint64>("logged");
        QTest::addColumn<qint64>("caret");
        // Offsets count Unicode characters; the caret counts what a reader sees.
        QTest::newRow("plain") << u"abc"_s << qint64(3) << qint64(2 + 3);
        QTest::newRow("single emoji") << u"ok \U0001F600"_s << qint64(4) << qint64(2 + 4);
        QTest::newRow("emoji with skin tone") << u"ok \U0001F44D\U0001F3FD"_s << qint64(4) << qint64(2 + 4);
        QTest::newRow("combining acute") << u"cafe\u0301"_s << qint64(4) << qint64(2 + 4);
        QTest::newRow("flag") << u"\U0001F1EB\U0001F1F7!"_s << qint64(2) << qint64(2 + 2);
    }
    void caretAdvancesByUserPerceivedCharacters()
    {
        QFETCH(QString, insertion);
        QFETCH(qint64, logged);
        QFETCH(qint64, caret);
        m_accessibility.focus.value = { true, u"[]"_s };
        m_accessibility.focus.selection = { true, TextRange { 2, 0 } };
        StdoutCapture out;
        m_inserter->insert(insertion);
        QCOMPARE(out.lines().value(0), headline.arg(logged));
        QCOMPARE(m_accessibility.focus.writtenValue, u"[]"_s + insertion);
        QCOMPARE(m_accessibility.focus.caret, caret);
    }

    void offsetsAfterCharactersOutsideTheBasicPlaneCountOnce()
    {
        // "😀" is one character at AT-SPI offsets but two UTF-16 units.
        m_accessibility.focus.value = { true, u"\U0001F600abcd"_s };
        m_accessibility.focus.selection = { true, TextRange { 2, 2 } };
        m_inserter->insert(u"XY"_s);
        QCOMPARE(m_accessibility.focus.writtenValue, u"\U0001F600aXYd"_s);
        QCOMPARE(m_accessibility.focus.caret, 4);
    }

    void valueThatIsNotTextCountsAsEmpty()
    {
        m_accessibility.focus.value = { true, std::nullopt };
        m_accessibility.focus.selection = { true, TextRange { 0, 0 } };
        StdoutCapture out;
        m_inserter->insert(u"42 apples"_s);
        QCOMPARE(out.lines().last(), succeeded);
        QCOMPARE(m_accessibility.focus.writtenValue, u"42 apples"_s);
        QCOMPARE(m_accessibility.focus.caret, 9);
    }

    void selectionThatCannotBeExtractedCountsAsTheStart()
    {
        m_accessibility.focus.value = { true, u"tail"_s };
        m_accessibility.focus.selection = { true, std::nullopt };
        m_inserter->insert(u"head "_s);
        QCOMPARE(m_accessibility.focus.writtenValue, u"head tail"_s);
        QCOMPARE(m_accessibility.focus.caret, 5);
    }

    void selectionBeyondTheTextIsClamped()
    {
        m_accessibility.focus.value = { true, u"abc"_s };
        m_accessibility.focus.selection = { true, TextRange { 10, 4 } };
        m_inserter->insert(u"d"_s);
        QCOMPARE(m_accessibility.focus.writtenValue, u"abcd"_s);
    }

    void roleIsOnlyLogged_data()
    {
        QTest::addColumn<std::optional<QString>>("role");
        QTest::addColumn<QString>("line");
        QTest::newRow("entry") << std::optional<QString>(u"entry"_s) << u"   AX: focused role=entry"_s;
        QTest::newRow("push button") << std::optional<QString>(u"push button"_s)
                                     << u"   AX: focused role=push button"_s;
        QTest::newRow("none") << std::optional<QString>() << u"   AX: focused role=?"_s;
    }
    void roleIsOnlyLogged()
    {
        QFETCH(std::optional<QString>, role);
        QFETCH(QString, line);
        m_accessibility.focus.role = role;
        StdoutCapture out;
        m_inserter->insert(u"x"_s);
        QCOMPARE(out.lines(), (QStringList { headline.arg(1), line, succeeded }));
        QCOMPARE(m_accessibility.focus.writtenValue, u"x"_s);
    }

    void untrustedProcessPastesAndRestoresThePreviousText()
    {
        m_accessibility.trusted = false;
        m_pasteboard.text = u"previous words"_s;
        m_pasteboard.formats = QStringList { u"text/plain"_s, u"text/html"_s };
        StdoutCapture out;
        m_inserter->insert(u"dictated words"_s);
        QCOMPARE(out.lines(), (QStringList { headline.arg(14), u"   AX: process not trusted"_s, fellBack }));
        QVERIFY(m_accessibility.focus.calls.isEmpty());
        QCOMPARE(m_keystroke->clipboardAtEachPost, (QList<std::optional<QString>> { u"dictated words"_s }));
        // The restore waits for the event loop: the target has not pasted yet.
        QCOMPARE(m_pasteboard.text, u"dictated words"_s);
        QTRY_COMPARE(m_pasteboard.text, u"previous words"_s);
        QCOMPARE(m_pasteboard.calls,
            (QStringList { u"plainText"_s, u"types"_s, u"clear"_s, u"set:dictated words"_s, u"post"_s, u"clear"_s,
                u"set:previous words"_s }));
    }

    void clipboardWithOnlyAnImageIsLeftEmpty()
    {
        m_accessibility.trusted = false;
        m_pasteboard.text.reset();
        m_pasteboard.formats = QStringList { u"image/png"_s };
        m_inserter->insert(u"caption"_s);
        QCOMPARE(m_keystroke->clipboardAtEachPost, (QList<std::optional<QString>> { u"caption"_s }));
        QTRY_COMPARE(m_pasteboard.calls.size(), 6);
        QCOMPARE(m_pasteboard.calls.last(), u"clear"_s);
        QCOMPARE(m_pasteboard.text, std::nullopt);
        QVERIFY(m_pasteboard.formats.isEmpty());
    }

    void emptyTextOnTheClipboardIsStillText()
    {
        m_accessibility.trusted = false;
        m_pasteboard.text = QString();
        m_inserter->insert(u"x"_s);
        QTRY_COMPARE(m_pasteboard.calls.size(), 7);
        QCOMPARE(m_pasteboard.text, QString());
    }

    void noFocusedElement()
    {
        m_accessibility.hasFocusedElement = false;
        StdoutCapture out;
        m_inserter->insert(u"hello"_s);
        QCOMPARE(out.lines(), (QStringList { headline.arg(5), u"   AX: no focused element"_s, fellBack }));
        QCOMPARE(m_keystroke->clipboardAtEachPost.size(), 1);
    }

    void everyFailedStepFallsBackToThePaste_data()
    {
        QTest::addColumn<int>("failure");
        QTest::addColumn<QStringList>("calls");
        QTest::newRow("value unreadable") << 0 << QStringList { u"role"_s, u"value"_s };
        QTest::newRow("no selection") << 1 << QStringList { u"role"_s, u"value"_s, u"selection"_s };
        QTest::newRow("write refused") << 2 << QStringList { u"role"_s, u"value"_s, u"selection"_s, u"setValue"_s };
    }
    void everyFailedStepFallsBackToThePaste()
    {
        QFETCH(int, failure);
        QFETCH(QStringList, calls);
        m_accessibility.focus.value = { failure != 0, u"abc"_s };
        m_accessibility.focus.selection = { failure != 1, TextRange { 1, 0 } };
        m_accessibility.focus.acceptsValue = failure != 2;
        StdoutCapture out;
        m_inserter->insert(u"hello"_s);
        QCOMPARE(out.lines(), (QStringList { headline.arg(5), u"   AX: focused role=text"_s, fellBack }));
        QCOMPARE(m_accessibility.focus.calls, calls);
        QCOMPARE(m_accessibility.focus.caret, std::nullopt);
        QCOMPARE(m_keystroke->clipboardAtEachPost, (QList<std::optional<QString>> { u"hello"_s }));
    }

    void refusedCaretMoveStillCountsAsInserted()
    {
        m_accessibility.focus.acceptsCaret = false;
        StdoutCapture out;
        m_inserter->insert(u"hello"_s);
        QCOMPARE(out.lines().last(), succeeded);
        QCOMPARE(m_accessibility.focus.caret, 5);
        QVERIFY(m_keystroke->clipboardAtEachPost.isEmpty());
    }

    void twoPastesInQuickSuccessionRestoreInOrder()
    {
        // The later restore puts back what the later call saved: the first dictation.
        m_accessibility.trusted = false;
        m_pasteboard.text = u"original"_s;
        m_inserter->insert(u"first"_s);
        m_inserter->insert(u"second"_s);
        QCOMPARE(m_keystroke->clipboardAtEachPost, (QList<std::optional<QString>> { u"first"_s, u"second"_s }));
        QTRY_COMPARE(m_pasteboard.calls.size(), 14);
        QCOMPARE(
            m_pasteboard.calls.mid(10), (QStringList { u"clear"_s, u"set:original"_s, u"clear"_s, u"set:first"_s }));
        QCOMPARE(m_pasteboard.text, u"first"_s);
    }

    void accessibilityAndPasteSayWhereTheTextWent()
    {
        QCOMPARE(m_inserter->insert(u"typed"_s), InsertionResult::inserted);
        m_accessibility.trusted = false;
        QCOMPARE(m_inserter->insert(u"pasted"_s), InsertionResult::pasted);
    }

    void aClipboardThatAnswersLaterStillPastesThenRestores()
    {
        // A clipboard client program answers each call some milliseconds later.
        m_accessibility.trusted = false;
        m_pasteboard.text = u"previous words"_s;
        m_pasteboard.delay = 30ms;
        QCOMPARE(m_inserter->insert(u"dictated words"_s), InsertionResult::pasted);
        QVERIFY(m_keystroke->clipboardAtEachPost.isEmpty()); // still reading the clipboard
        QTRY_COMPARE(m_keystroke->clipboardAtEachPost, (QList<std::optional<QString>> { u"dictated words"_s }));
        QTRY_COMPARE(m_pasteboard.text, u"previous words"_s);
        QCOMPARE(m_pasteboard.calls,
            (QStringList { u"plainText"_s, u"types"_s, u"clear"_s, u"set:dictated words"_s, u"post"_s, u"clear"_s,
                u"set:previous words"_s }));
    }

    void withoutAPasteKeystrokeTheTextStaysOnTheClipboard()
    {
        m_accessibility.trusted = false;
        m_pasteboard.text = u"previous words"_s;
        m_keystroke->available = false;
        StdoutCapture out;
        QCOMPARE(m_inserter->insert(u"dictated words"_s), InsertionResult::leftOnClipboard);
        QCOMPARE(out.lines(),
            (QStringList { headline.arg(14), u"   AX: process not trusted"_s, fellBack,
                u"   → no paste keystroke on this desktop: the text is left on the clipboard"_s }));
        QTest::qWait(static_cast<int>(TextInserter::restoreDelay.count()) * 2);
        QCOMPARE(m_pasteboard.text, u"dictated words"_s);
        QCOMPARE(m_pasteboard.calls, (QStringList { u"clear"_s, u"set:dictated words"_s }));
        QVERIFY(m_keystroke->clipboardAtEachPost.isEmpty());
    }

    void withoutAClipboardNothingIsTouched()
    {
        m_accessibility.trusted = false;
        m_pasteboard.text = u"previous words"_s;
        m_pasteboard.writable = false;
        StdoutCapture out;
        QCOMPARE(m_inserter->insert(u"dictated words"_s), InsertionResult::notInserted);
        QCOMPARE(out.lines().last(), u"   → no clipboard to paste through: the text is only in the history"_s);
        QTest::qWait(static_cast<int>(TextInserter::restoreDelay.count()) * 2);
        QVERIFY(m_pasteboard.calls.isEmpty());
        QCOMPARE(m_pasteboard.text, u"previous words"_s);
        QVERIFY(m_keystroke->clipboardAtEachPost.isEmpty());
    }

    void pendingRestoreDiesWithTheInserter()
    {
        m_accessibility.trusted = false;
        m_pasteboard.text = u"original"_s;
        m_inserter->insert(u"gone"_s);
        m_inserter.reset();
        QTest::qWait(static_cast<int>(TextInserter::restoreDelay.count()) * 2);
        QCOMPARE(m_pasteboard.text, u"gone"_s);
    }

    void characterCount()
    {
        QCOMPARE(TextInserter::characterCount(u""), 0);
        QCOMPARE(TextInserter::characterCount(u"abc"), 3);
        QCOMPARE(TextInserter::characterCount(u"e\u0301"), 1);
        QCOMPARE(TextInserter::characterCount(u"\U0001F468\u200D\U0001F469\u200D\U0001F467"), 1);
        QCOMPARE(TextInserter::characterCount(u"\r\n"), 1);
    }

    void replaced()
    {
        QCOMPARE(TextInserter::replaced(u"abcdef", TextRange { 1, 2 }, u"X"), u"aXdef"_s);
        QCOMPARE(TextInserter::replaced(u"", TextRange { 0, 0 }, u"X"), u"X"_s);
        QCOMPARE(TextInserter::replaced(u"abc", TextRange { -3, 1 }, u"X"), u"Xbc"_s);
        QCOMPARE(TextInserter::replaced(u"abc", TextRange { 1, 99 }, u"X"), u"aX"_s);
        QCOMPARE(TextInserter::replaced(u"\U0001F600\U0001F600", TextRange { 1, 1 }, u"X"), u"\U0001F600X"_s);
    }
};

QTEST_GUILESS_MAIN(TestTextInserter)
#include "tst_textinserter.moc"
