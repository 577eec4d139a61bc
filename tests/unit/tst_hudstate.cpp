#include "ui/HUDState.h"

#include <QSignalSpy>
#include <QtTest>

#include <vector>

using namespace Qt::StringLiterals;

class TestHUDState : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void equalityOfModes()
    {
        QVERIFY(HUDMode::dictating() == HUDMode::dictating());
        QVERIFY(HUDMode::tone() == HUDMode::tone());
        QVERIFY(HUDMode::cleaning() == HUDMode::cleaning());
        QVERIFY(!(HUDMode::dictating() == HUDMode::tone()));
        QVERIFY(!(HUDMode::tone() == HUDMode::cleaning()));

        QVERIFY(HUDMode::rewriting(Tone::firm) == HUDMode::rewriting(Tone::firm));
        QVERIFY(!(HUDMode::rewriting(Tone::firm) == HUDMode::rewriting(Tone::funny)));

        QVERIFY(HUDMode::success() == HUDMode::success());
        QVERIFY(HUDMode::success(Tone::concise) == HUDMode::success(Tone::concise));
        QVERIFY(!(HUDMode::success() == HUDMode::success(Tone::concise)));
        QVERIFY(!(HUDMode::success(Tone::friendly) == HUDMode::success(Tone::concise)));

        QVERIFY(HUDMode::error(u"No microphone"_s) == HUDMode::error(u"No microphone"_s));
        QVERIFY(!(HUDMode::error(u"No microphone"_s) == HUDMode::error(u"Timed out"_s)));

        // Same tone, different cases: never equal.
        QVERIFY(!(HUDMode::rewriting(Tone::firm) == HUDMode::success(Tone::firm)));
        QVERIFY(!(HUDMode::error(QString()) == HUDMode::cleaning()));
    }

    void tonePickerEqualsNothing()
    {
        const HUDMode picker = HUDMode::tonePicker([](Tone) {});
        QVERIFY(!(picker == picker));
        QVERIFY(!(picker == HUDMode::tonePicker([](Tone) {})));
        QVERIFY(!(picker == HUDMode::dictating()));
        QVERIFY(HUDState::shouldNotifyObservers(picker, picker));
        QVERIFY(!HUDState::shouldNotifyObservers(HUDMode::cleaning(), HUDMode::cleaning()));
    }

    void startsDictatingWithNoText()
    {
        HUDState state;
        QCOMPARE(state.kind(), HUDMode::Kind::dictating);
        QVERIFY(state.partialText().isEmpty());
        QVERIFY(state.toneLabel().isEmpty());
    }

    void successWithoutToneTwiceNotifiesOnce()
    {
        HUDState state;
        QSignalSpy changed(&state, &HUDState::modeChanged);
        state.setMode(HUDMode::success());
        state.setMode(HUDMode::success());
        QCOMPARE(changed.count(), 1);
        QCOMPARE(state.kind(), HUDMode::Kind::success);
        state.setMode(HUDMode::success(Tone::funny));
        QCOMPARE(changed.count(), 2);
        QCOMPARE(state.toneLabel(), u"Funny"_s);
    }

    void tonePickerTwiceNotifiesTwice()
    {
        HUDState state;
        QSignalSpy changed(&state, &HUDState::modeChanged);
        state.setMode(HUDMode::tonePicker([](Tone) {}));
        state.setMode(HUDMode::tonePicker([](Tone) {}));
        QCOMPARE(changed.count(), 2);
    }

    void equalModeIsStoredSilently()
    {
        HUDState state;
        QSignalSpy changed(&state, &HUDState::modeChanged);
        state.setMode(HUDMode::dictating());
        QCOMPARE(changed.count(), 0);
        state.setMode(HUDMode::error(u"Timed out"_s));
        state.setMode(HUDMode::error(u"Timed out"_s));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(state.message(), u"Timed out"_s);
    }

    void samePartialTextDoesNotNotify()
    {
        HUDState state;
        QSignalSpy changed(&state, &HUDState::partialTextChanged);
        state.setPartialText(u"hello"_s);
        state.setPartialText(u"hello"_s);
        QCOMPARE(changed.count(), 1);
        state.setPartialText(u"hello world"_s);
        QCOMPARE(changed.count(), 2);
        state.setPartialText(QString());
        QCOMPARE(changed.count(), 3);
        QVERIFY(state.partialText().isEmpty());
    }

    void toneLabelsInPickerOrder()
    {
        HUDState state;
        QCOMPARE(state.toneLabels(),
            QStringList({ u"Professional"_s, u"Friendly"_s, u"Funny"_s, u"Firm"_s, u"Supportive"_s, u"Concise"_s }));
    }

    void selectToneCallsTheHandlerWithThatTone()
    {
        HUDState state;
        std::vector<Tone> chosen;
        state.setMode(HUDMode::tonePicker([&](Tone tone) { chosen.push_back(tone); }));
        state.selectTone(0);
        state.selectTone(3);
        state.selectTone(5);
        QCOMPARE(chosen, (std::vector<Tone> { Tone::professional, Tone::firm, Tone::concise }));
        // Outside the list: nothing.
        state.selectTone(-1);
        state.selectTone(6);
        QCOMPARE(chosen.size(), size_t(3));
    }

    void selectToneMayReplaceTheModeFromItsHandler()
    {
        HUDState state;
        std::vector<Tone> chosen;
        state.setMode(HUDMode::tonePicker([&](Tone tone) {
            chosen.push_back(tone);
            state.setMode(HUDMode::rewriting(tone));
        }));
        state.selectTone(1);
        QCOMPARE(chosen, std::vector<Tone> { Tone::friendly });
        QCOMPARE(state.kind(), HUDMode::Kind::rewriting);
        QCOMPARE(state.toneLabel(), u"Friendly"_s);
        // The picker is gone: a second press reaches no one.
        state.selectTone(2);
        QCOMPARE(chosen.size(), size_t(1));
    }

    void selectToneOutsideThePickerDoesNothing()
    {
        HUDState state;
        int calls = 0;
        state.setMode(HUDMode::tonePicker([&](Tone) { ++calls; }));
        state.setMode(HUDMode::cleaning());
        state.selectTone(0);
        state.setMode(HUDMode::success());
        state.selectTone(2);
        QCOMPARE(calls, 0);
    }
};

QTEST_GUILESS_MAIN(TestHUDState)
#include "tst_hudstate.moc"
