#include "ui/TextFit.h"

#include <QFont>
#include <QGuiApplication>
#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

QString words(int count)
{
    QString text;
    for (int i = 0; i < count; ++i)
        text += (i ? u" "_s : QString()) + u"word"_s + QString::number(i);
    return text;
}

QFont hudFont()
{
    QFont font;
    font.setPixelSize(14);
    return font;
}

} // namespace

class TestTextFit : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void shortTextStaysAsItIs()
    {
        const QString text = u"hello there"_s;
        QCOMPARE(TextFit::headElided(text, hudFont(), 254, 2), text);
        QCOMPARE(TextFit::lineCount(text, hudFont(), 254), 1);
    }

    void longTextKeepsItsLastWordsOnTwoLines()
    {
        const QString text = words(60);
        QVERIFY(TextFit::lineCount(text, hudFont(), 254) > 2);

        const QString elided = TextFit::headElided(text, hudFont(), 254, 2);
        QVERIFY(elided.startsWith(QChar(0x2026)));
        QVERIFY2(text.endsWith(elided.mid(1)), qPrintable(elided));
        QVERIFY(elided.mid(1).startsWith(u"word"_s)); // cut at the start of a word
        QCOMPARE(TextFit::lineCount(elided, hudFont(), 254), 2);
        // The longest tail that fits: one more word would need a third line.
        const qsizetype cut = text.size() - (elided.size() - 1);
        const qsizetype previousWord = text.lastIndexOf(u' ', cut - 2) + 1;
        QVERIFY(TextFit::lineCount(QChar(0x2026) + text.mid(previousWord), hudFont(), 254) > 2);
    }

    void oneWordTooLongKeepsItsEnd()
    {
        const QString text = u"x"_s.repeated(400) + u"END"_s;
        const QString elided = TextFit::headElided(text, hudFont(), 254, 2);
        QVERIFY(elided.startsWith(QChar(0x2026)));
        QVERIFY(elided.endsWith(u"END"_s));
        QVERIFY(elided.size() < text.size());
        QVERIFY(TextFit::lineCount(elided, hudFont(), 254) <= 2);
    }

    void oneLineBudget()
    {
        const QString elided = TextFit::headElided(words(30), hudFont(), 200, 1);
        QCOMPARE(TextFit::lineCount(elided, hudFont(), 200), 1);
        QVERIFY(elided.endsWith(u"word29"_s));
    }

    // A megabyte partial without a space (a hostile or broken backend): the capsule's
    // elision looks at its end only, so the layout work stays the same as for a short one.
    void aHugePartialIsLaidOutInBoundedWork()
    {
        const QString huge = u"x"_s.repeated(1024 * 1024) + u"END"_s;
        const qint64 before = TextFit::charactersLaidOut();
        const QString elided = TextFit::headElided(huge, hudFont(), 254, 2);
        const qint64 work = TextFit::charactersLaidOut() - before;
        QVERIFY(elided.startsWith(QChar(0x2026)));
        QVERIFY(elided.endsWith(u"END"_s));
        QVERIFY(TextFit::lineCount(elided, hudFont(), 254) <= 2);
        // A bisection over at most tailLimit() characters: a few dozen layouts of that size.
        const qsizetype limit = TextFit::tailLimit(254, 2);
        QVERIFY2(work <= 40 * (limit + 1), qPrintable(QString::number(work)));

        // The same work for ten megabytes: it does not grow with the text.
        const QString hugger = u"y"_s.repeated(10 * 1024 * 1024) + u"END"_s;
        const qint64 before10 = TextFit::charactersLaidOut();
        QCOMPARE(TextFit::headElided(hugger, hudFont(), 254, 2).size(), elided.size());
        QVERIFY(TextFit::charactersLaidOut() - before10 <= 40 * (limit + 1));
    }

    void aHugeTextOfWordsKeepsItsLastWords()
    {
        const QString text = words(200000); // ~1.4 MB
        const qint64 before = TextFit::charactersLaidOut();
        const QString elided = TextFit::headElided(text, hudFont(), 254, 2);
        QVERIFY(TextFit::charactersLaidOut() - before <= 40 * (TextFit::tailLimit(254, 2) + 1));
        QVERIFY(elided.startsWith(QChar(0x2026)));
        QVERIFY(text.endsWith(elided.mid(1)));
        QVERIFY(elided.mid(1).startsWith(u"word"_s)); // still cut at the start of a word
        QCOMPARE(TextFit::lineCount(elided, hudFont(), 254), 2);
        // Cut where the short text would be: the elision of the last words alone is the same.
        QCOMPARE(TextFit::headElided(text.right(400), hudFont(), 254, 2), elided);
    }

    void nothingFitsInNoRoom()
    {
        QVERIFY(TextFit::headElided(words(3), hudFont(), 0, 2).isEmpty());
        QVERIFY(TextFit::headElided(words(3), hudFont(), 100, 0).isEmpty());
    }
};

QTEST_MAIN(TestTextFit)
#include "tst_textfit.moc"
