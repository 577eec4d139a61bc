// Insertion over the real accessibility bus into real GTK 3 and Qt 6 windows,
// focused by X focus and a mouse click as a user would. Runs in the project's
// headless desktop with assistive technologies enabled.
#include "FieldApp.h"
#include "StdoutCapture.h"
#include "dictation/TextInserter.h"
#include "platform/PasteKeystroke.h"
#include "platform/Pasteboard.h"
#include "platform/TextAccessibility.h"
#include "services/Log.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

const QString succeeded = u"   → AX insert succeeded"_s;
const QString fellBack = u"   → AX failed, falling back to clipboard paste"_s;

QString headline(qint64 characters)
{
    return u"✏️ [Quillet] TextInserter.insert(%1 chars)"_s.arg(characters);
}

} // namespace

class TestInsertionAtspi : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TextAccessibility> m_accessibility;
    std::unique_ptr<Pasteboard> m_pasteboard;
    std::unique_ptr<PasteKeystroke> m_keystroke;
    std::unique_ptr<TextInserter> m_inserter;
    std::unique_ptr<FieldApp> m_gtk;
    std::unique_ptr<FieldApp> m_qt;

    // Focuses the field, gives it this text and selection, inserts, and returns the log.
    QStringList insertInto(
        FieldApp& app, const QString& field, const QString& before, int start, int end, const QString& insertion)
    {
        if (!app.focus(field) || !app.set(field, before, start, end))
            return { u"(the field could not be prepared)"_s };
        StdoutCapture out;
        m_inserter->insert(insertion);
        return out.lines();
    }

private Q_SLOTS:
    void initTestCase()
    {
        Log::makeStdoutUnbuffered();
        // Created before the windows, as the program is, so focus events are followed from the start.
        m_accessibility = makeSystemTextAccessibility();
        m_pasteboard = makeSystemPasteboard();
        m_keystroke = makeSystemPasteKeystroke();
        m_inserter = std::make_unique<TextInserter>(*m_accessibility, *m_pasteboard, *m_keystroke);
        QVERIFY2(m_accessibility->isTrusted(), "the accessibility bus should be enabled in this session");

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

    void gtkEntryInsertsAtTheCaret()
    {
        const QStringList log = insertInto(*m_gtk, u"entry"_s, u"Hello world"_s, 5, 5, u" big"_s);
        QCOMPARE(log, (QStringList { headline(4), u"   AX: focused role=text"_s, succeeded }));
        const auto shown = m_gtk->content(u"entry"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"Hello big world"_s);
        QCOMPARE(shown->beforeCaret, u"Hello big"_s);
        QCOMPARE(shown->selected, QString());
    }

    void gtkEntryGetsTheWholeTextPastANul()
    {
        // libatspi takes C strings: a NUL (or another control) in the dictated text must
        // not cut off what follows it. Controls are left out; tab and line feed stay.
        const QString dictated = u"one"_s + QChar(0) + u"two\u001b[2Jthree"_s;
        const QStringList log = insertInto(*m_gtk, u"entry"_s, u"<>"_s, 1, 1, dictated);
        QCOMPARE(log.last(), succeeded);
        const auto shown = m_gtk->content(u"entry"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"<onetwo[2Jthree>"_s);
        QCOMPARE(shown->beforeCaret, u"<onetwo[2Jthree"_s);
    }

    void gtkTextViewKeepsTabsAndLineBreaksAroundANul()
    {
        const QString dictated = u"a\tb"_s + QChar(0) + u"\nc"_s;
        const QStringList log = insertInto(*m_gtk, u"textview"_s, QString(), 0, 0, dictated);
        QCOMPARE(log.last(), succeeded);
        const auto shown = m_gtk->content(u"textview"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"a\tb\nc"_s);
        QCOMPARE(shown->beforeCaret, u"a\tb\nc"_s);
    }

    void gtkEntryReplacesTheSelection()
    {
        const QStringList log = insertInto(*m_gtk, u"entry"_s, u"The quick fox jumps"_s, 5, 8, u"slow"_s);
        QCOMPARE(log.last(), succeeded);
        const auto shown = m_gtk->content(u"entry"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"The qslowk fox jumps"_s);
        QCOMPARE(shown->beforeCaret, u"The qslow"_s);
        QCOMPARE(shown->selected, QString());
    }

    void gtkTextViewInsertsAtTheCaret()
    {
        const QStringList log
            = insertInto(*m_gtk, u"textview"_s, u"first line\nsecond line"_s, 11, 11, u"new words "_s);
        QCOMPARE(log, (QStringList { headline(10), u"   AX: focused role=text"_s, succeeded }));
        const auto shown = m_gtk->content(u"textview"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"first line\nnew words second line"_s);
        QCOMPARE(shown->beforeCaret, u"first line\nnew words "_s);
    }

    void gtkTextViewReplacesTheSelection()
    {
        insertInto(*m_gtk, u"textview"_s, u"0123456789"_s, 5, 8, u"abc"_s);
        const auto shown = m_gtk->content(u"textview"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"01234abc89"_s);
        QCOMPARE(shown->beforeCaret, u"01234abc"_s);
    }

    void gtkCaretAfterEmojiAndCombiningMarks_data()
    {
        QTest::addColumn<QString>("insertion");
        QTest::addColumn<QString>("beforeCaret");
        // GTK counts offsets in Unicode characters and the caret advances by what a
        // reader sees: one emoji is one of each, but an emoji with a skin tone or a
        // letter with a combining mark is two characters read as one, so the caret
        // stops inside it, short of the end.
        QTest::newRow("emoji") << u"hi \U0001F600"_s << u"<hi \U0001F600"_s;
        QTest::newRow("emoji with skin tone") << u"ok \U0001F44D\U0001F3FD"_s << u"<ok \U0001F44D"_s;
        QTest::newRow("combining acute") << u"cafe\u0301"_s << u"<cafe"_s;
    }
    void gtkCaretAfterEmojiAndCombiningMarks()
    {
        QFETCH(QString, insertion);
        QFETCH(QString, beforeCaret);
        const QStringList log = insertInto(*m_gtk, u"entry"_s, u"<>"_s, 1, 1, insertion);
        QCOMPARE(log.value(0), headline(TextInserter::characterCount(insertion)));
        QCOMPARE(log.last(), succeeded);
        const auto shown = m_gtk->content(u"entry"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"<"_s + insertion + u">"_s);
        QCOMPARE(shown->beforeCaret, beforeCaret);
    }

    void gtkSliderValueIsNotText()
    {
        // A slider's value is a number and it has no text selection: the direct edit
        // gives up after logging the role, and the paste goes nowhere harmful.
        QVERIFY(m_gtk->focus(u"slider"_s));
        const std::optional<double> before = m_gtk->sliderValue();
        StdoutCapture out;
        m_inserter->insert(u"seventy"_s);
        QCOMPARE(out.lines(), (QStringList { headline(7), u"   AX: focused role=slider"_s, fellBack }));
        QTest::qWait(static_cast<int>(TextInserter::restoreDelay.count()) + 100);
        QCOMPARE(m_gtk->sliderValue(), before);
    }

    void qtLineEditInsertsAtTheCaret()
    {
        const QStringList log = insertInto(*m_qt, u"entry"_s, u"Hello world"_s, 5, 5, u" big"_s);
        QCOMPARE(log, (QStringList { headline(4), u"   AX: focused role=text"_s, succeeded }));
        const auto shown = m_qt->content(u"entry"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"Hello big world"_s);
        QCOMPARE(shown->beforeCaret, u"Hello big"_s);
    }

    void qtLineEditReplacesTheSelection()
    {
        insertInto(*m_qt, u"entry"_s, u"The quick fox jumps"_s, 5, 8, u"slow"_s);
        const auto shown = m_qt->content(u"entry"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"The qslowk fox jumps"_s);
        QCOMPARE(shown->beforeCaret, u"The qslow"_s);
        QCOMPARE(shown->selected, QString());
    }

    void qtTextEditInsertsAtTheCaret()
    {
        const QStringList log = insertInto(*m_qt, u"textview"_s, u"first line\nsecond line"_s, 11, 11, u"new words "_s);
        QCOMPARE(log.last(), succeeded);
        const auto shown = m_qt->content(u"textview"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"first line\nnew words second line"_s);
        QCOMPARE(shown->beforeCaret, u"first line\nnew words "_s);
    }

    void qtTextEditReplacesTheSelection()
    {
        insertInto(*m_qt, u"textview"_s, u"0123456789"_s, 5, 8, u"abc"_s);
        const auto shown = m_qt->content(u"textview"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"01234abc89"_s);
        QCOMPARE(shown->beforeCaret, u"01234abc"_s);
    }

    void qtCaretAfterEmojiAndCombiningMarks_data()
    {
        QTest::addColumn<QString>("insertion");
        QTest::addColumn<QString>("beforeCaret");
        QTest::newRow("emoji") << u"hi \U0001F600"_s << u"<hi \U0001F600"_s;
        QTest::newRow("emoji with skin tone") << u"ok \U0001F44D\U0001F3FD"_s << u"<ok \U0001F44D"_s;
        QTest::newRow("combining acute") << u"cafe\u0301"_s << u"<cafe"_s;
    }
    void qtCaretAfterEmojiAndCombiningMarks()
    {
        QFETCH(QString, insertion);
        QFETCH(QString, beforeCaret);
        const QStringList log = insertInto(*m_qt, u"entry"_s, u"<>"_s, 1, 1, insertion);
        QCOMPARE(log.last(), succeeded);
        const auto shown = m_qt->content(u"entry"_s);
        QVERIFY(shown);
        QCOMPARE(shown->text, u"<"_s + insertion + u">"_s);
        QCOMPARE(shown->beforeCaret, beforeCaret);
    }

    void followsTheFocusFromOneApplicationToTheOther()
    {
        QVERIFY(m_gtk->focus(u"entry"_s) && m_gtk->set(u"entry"_s, QString(), 0, 0));
        QVERIFY(m_qt->focus(u"entry"_s) && m_qt->set(u"entry"_s, QString(), 0, 0));
        m_inserter->insert(u"to Qt"_s);
        QVERIFY(m_gtk->focus(u"entry"_s));
        m_inserter->insert(u"to GTK"_s);
        QCOMPARE(m_qt->content(u"entry"_s)->text, u"to Qt"_s);
        QCOMPARE(m_gtk->content(u"entry"_s)->text, u"to GTK"_s);
    }

    void findsTheFocusWithoutHavingSeenItMove_data()
    {
        QTest::addColumn<bool>("qt");
        QTest::newRow("GTK") << false;
        QTest::newRow("Qt") << true;
    }
    void findsTheFocusWithoutHavingSeenItMove()
    {
        // A service created after the focus settled has had no focus event and
        // must search the focused application's windows instead.
        QFETCH(bool, qt);
        FieldApp& app = qt ? *m_qt : *m_gtk;
        QVERIFY(app.focus(u"textview"_s) && app.set(u"textview"_s, u"ab"_s, 1, 1));
        const std::unique_ptr<TextAccessibility> late = makeSystemTextAccessibility();
        TextInserter inserter(*late, *m_pasteboard, *m_keystroke);
        StdoutCapture out;
        inserter.insert(u"-"_s);
        QCOMPARE(out.lines().last(), succeeded);
        QCOMPARE(app.content(u"textview"_s)->text, u"a-b"_s);
    }

    void terminalWithoutAccessibilityGetsThePaste()
    {
        // xterm exposes nothing over AT-SPI. The paste keys of a terminal are
        // Control+Shift+V; xterm has them once given the translation users add.
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString received = dir.filePath(u"received"_s);
        const QString insertion = u"echo pasted through the clipboard"_s;
        QProcess xterm;
        xterm.start(u"xterm"_s,
            { u"-T"_s, u"insertion-terminal"_s, u"-geometry"_s, u"80x10+0+400"_s, u"-xrm"_s,
                u"XTerm*VT100.translations: #override Ctrl Shift <Key>V: insert-selection(CLIPBOARD)"_s, u"-e"_s,
                u"sh"_s, u"-c"_s,
                u"stty -icanon -echo; head -c %1 > '%2'"_s.arg(insertion.toUtf8().size()).arg(received) });
        QVERIFY(xterm.waitForStarted(5000));
        QByteArray window;
        QCOMPARE(
            Desktop::run(u"xdotool"_s, { u"search"_s, u"--sync"_s, u"--name"_s, u"insertion-terminal"_s }, &window), 0);
        window = window.trimmed().split('\n').value(0);
        QCOMPARE(Desktop::run(u"xdotool"_s, { u"windowfocus"_s, u"--sync"_s, QString::fromLatin1(window) }), 0);

        StdoutCapture out;
        m_inserter->insert(insertion);
        QCOMPARE(out.lines(), (QStringList { headline(33), u"   AX: no focused element"_s, fellBack }));
        QVERIFY(QTest::qWaitFor([&] { return xterm.state() == QProcess::NotRunning; }, 10000));
        QFile file(received);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(file.readAll()), insertion);
    }
};

QTEST_MAIN(TestInsertionAtspi)
#include "tst_insertion_atspi.moc"
