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

    void nothingFitsInNoRoom()
    {
        QVERIFY(TextFit::headElided(words(3), hudFont(), 0, 2).isEmpty());
        QVERIFY(TextFit::headElided(words(3), hudFont(), 100, 0).isEmpty());
    }
};

QTEST_MAIN(TestTextFit)
#include "tst_textfit.moc"
