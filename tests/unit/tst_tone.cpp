#include "services/Tone.h"

#include <QtTest>

using namespace Qt::StringLiterals;

class TestTone : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sixTonesInPickerOrder()
    {
        QStringList raw;
        QStringList labels;
        for (Tone tone : Tones::allCases) {
            raw << Tones::rawValue(tone);
            labels << Tones::label(tone);
        }
        QCOMPARE(raw,
            (QStringList { u"professional"_s, u"friendly"_s, u"funny"_s, u"firm"_s, u"supportive"_s, u"concise"_s }));
        QCOMPARE(labels,
            (QStringList { u"Professional"_s, u"Friendly"_s, u"Funny"_s, u"Firm"_s, u"Supportive"_s, u"Concise"_s }));
    }

    void rawValueRoundTrips()
    {
        for (Tone tone : Tones::allCases)
            QCOMPARE(Tones::fromRawValue(Tones::rawValue(tone)), std::optional<Tone>(tone));
    }

    void otherTextsAreNoTone_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("capitalised") << u"Professional"_s;
        QTest::newRow("upper case") << u"FIRM"_s;
        QTest::newRow("blank around") << u" funny"_s;
        QTest::newRow("unknown") << u"sarcastic"_s;
        QTest::newRow("empty") << QString();
    }
    void otherTextsAreNoTone()
    {
        QFETCH(QString, text);
        QCOMPARE(Tones::fromRawValue(text), std::nullopt);
    }
};

QTEST_APPLESS_MAIN(TestTone)
#include "tst_tone.moc"
