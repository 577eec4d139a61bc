#include "AudioAnalysis.h"
#include "FakeAudioInput.h"
#include "RecordingCaptureDelegate.h"
#include "dictation/AudioCaptureManager.h"

#include <QTest>

#include <thread>

using namespace Qt::StringLiterals;

namespace {

// Hands one buffer to the capture the way an audio input does: on a thread of its own.
void deliverOnAudioThread(const FakeAudioInputRecord& record, const std::vector<float>& samples, quint32 frames)
{
    std::thread audio([&] { record.handler(AudioFrames { samples, frames }); });
    audio.join();
}

struct Rig {
    std::shared_ptr<FakeAudioInputRecord> record = std::make_shared<FakeAudioInputRecord>();
    std::shared_ptr<RecordingCaptureDelegate> delegate = std::make_shared<RecordingCaptureDelegate>();
    AudioCaptureManager manager { [record = record] { return std::make_unique<FakeAudioInput>(record); } };

    Rig() { manager.setDelegate(delegate); }
};

std::vector<float> tone(const AudioFormat& format, size_t startFrame = 0)
{
    return AudioAnalysis::sine(
        4096, format.sampleRate, 440, std::vector<float>(size_t(format.channelCount), 0.5f), startFrame);
}

} // namespace

class TestAudioCaptureManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void converterFailedDescription();
    void startAsksForBuffersOf4096Frames();
    void buffersHaveTheCapacityOfTheInputRate_data();
    void buffersHaveTheCapacityOfTheInputRate();
    void converterFailedWhenTheFormatCannotBeConverted_data();
    void converterFailedWhenTheFormatCannotBeConverted();
    void inputFailureIsPassedOnInItsOwnWords();
    void startFailureIsPassedOnInItsOwnWords();
    void stopBeforeStartDoesNothing();
    void stopTwiceIsHarmless();
    void noDelegateCallAfterStop();
    void destroyingTheManagerStopsTheInput();
    void startAgainTakesAFreshInput();
    void buffersAreDroppedOnceTheDelegateIsGone();
    void aBufferThatCannotBeConvertedIsReportedAndCaptureGoesOn();
    void oneCallPerBufferInOrder();
    void stopHandsOverTheResamplersDelayAsOneLastBuffer();
    void stopHandsOverWhatTheInputStillHeldInTheSameLastBuffer();
    void stopAfterAFailedStartDeliversNothing();
};

void TestAudioCaptureManager::converterFailedDescription()
{
    QCOMPARE(CaptureError(CaptureError::converterFailed).errorDescription(),
        u"Audio format converter could not be created."_s);
}

void TestAudioCaptureManager::startAsksForBuffersOf4096Frames()
{
    Rig rig;
    QCOMPARE(rig.manager.start(), std::nullopt);
    QVERIFY(rig.manager.isRunning());
    QCOMPARE(rig.record->created, 1);
    QCOMPARE(rig.record->formatReads, 1);
    QCOMPARE(rig.record->starts, 1);
    QCOMPARE(rig.record->framesPerBuffer, 4096u);
    QCOMPARE(rig.manager.inputFormat(), std::optional<AudioFormat>(AudioFormat { 48000, 2 }));
}

void TestAudioCaptureManager::buffersHaveTheCapacityOfTheInputRate_data()
{
    QTest::addColumn<double>("rate");
    QTest::addColumn<int>("channels");
    QTest::addColumn<quint32>("capacity");
    // A third of a frame above 1,365 at 48 kHz is rounded up, so the resampler's
    // output never piles up behind the buffers.
    QTest::newRow("48 kHz stereo") << 48000.0 << 2 << 1366u;
    QTest::newRow("44.1 kHz mono") << 44100.0 << 1 << 1487u;
    QTest::newRow("16 kHz mono") << 16000.0 << 1 << 4096u;
    QTest::newRow("96 kHz, 4 channels") << 96000.0 << 4 << 683u;
}

void TestAudioCaptureManager::buffersHaveTheCapacityOfTheInputRate()
{
    QFETCH(double, rate);
    QFETCH(int, channels);
    QFETCH(quint32, capacity);
    Rig rig;
    const AudioFormat format { rate, channels };
    rig.record->format = format;
    QCOMPARE(rig.manager.start(), std::nullopt);

    std::thread::id audioThread;
    std::thread audio([&] {
        audioThread = std::this_thread::get_id();
        for (int b = 0; b < 3; ++b) {
            const auto samples = tone(format, size_t(b) * 4096);
            rig.record->handler(AudioFrames { samples, 4096 });
        }
    });
    audio.join();

    const auto buffers = rig.delegate->buffers();
    QCOMPARE(buffers.size(), size_t(3));
    for (const Pcm16Buffer& buffer : buffers) {
        QCOMPARE(buffer.frameCapacity(), capacity);
        QVERIFY(buffer.frameLength() <= buffer.frameCapacity());
    }
    QVERIFY(buffers.back().frameLength() > 0);
    // The delegate is called where the audio arrives and moves its work itself.
    for (const std::thread::id id : rig.delegate->threads())
        QCOMPARE(id, audioThread);
}

void TestAudioCaptureManager::converterFailedWhenTheFormatCannotBeConverted_data()
{
    QTest::addColumn<double>("rate");
    QTest::addColumn<int>("channels");
    QTest::newRow("no rate") << 0.0 << 2;
    QTest::newRow("no channels") << 48000.0 << 0;
}

void TestAudioCaptureManager::converterFailedWhenTheFormatCannotBeConverted()
{
    QFETCH(double, rate);
    QFETCH(int, channels);
    Rig rig;
    rig.record->format = AudioFormat { rate, channels };

    const auto failure = rig.manager.start();
    QVERIFY(failure.has_value());
    QCOMPARE(failure->error, std::optional<CaptureError>(CaptureError(CaptureError::converterFailed)));
    QCOMPARE(failure->description, u"Audio format converter could not be created."_s);
    QVERIFY(!rig.manager.isRunning());
    // The input is kept, never started, until stop().
    QCOMPARE(rig.record->starts, 0);
    QCOMPARE(rig.record->destroyed, 0);
    rig.manager.stop();
    QCOMPARE(rig.record->destroyed, 1);
}

void TestAudioCaptureManager::inputFailureIsPassedOnInItsOwnWords()
{
    Rig rig;
    rig.record->format = AudioInputFailure { u"Cannot reach the sound server: Connection refused."_s };
    const auto failure = rig.manager.start();
    QVERIFY(failure.has_value());
    QCOMPARE(failure->error, std::nullopt);
    QCOMPARE(failure->description, u"Cannot reach the sound server: Connection refused."_s);
    QCOMPARE(rig.record->starts, 0);
    QVERIFY(!rig.manager.isRunning());
}

void TestAudioCaptureManager::startFailureIsPassedOnInItsOwnWords()
{
    Rig rig;
    rig.record->startFailure = AudioInputFailure { u"The microphone could not be opened: No such entity."_s };
    const auto failure = rig.manager.start();
    QVERIFY(failure.has_value());
    QCOMPARE(failure->error, std::nullopt);
    QCOMPARE(failure->description, u"The microphone could not be opened: No such entity."_s);
    QVERIFY(!rig.manager.isRunning());
}

void TestAudioCaptureManager::stopBeforeStartDoesNothing()
{
    Rig rig;
    rig.manager.stop();
    rig.manager.stop();
    QCOMPARE(rig.record->created, 0);
    QCOMPARE(rig.record->stops, 0);
    QCOMPARE(rig.delegate->calls(), size_t(0));
}

void TestAudioCaptureManager::stopTwiceIsHarmless()
{
    Rig rig;
    QCOMPARE(rig.manager.start(), std::nullopt);
    rig.manager.stop();
    rig.manager.stop();
    QCOMPARE(rig.record->stops, 1);
    QCOMPARE(rig.record->destroyed, 1);
    QVERIFY(!rig.manager.isRunning());
}

void TestAudioCaptureManager::noDelegateCallAfterStop()
{
    Rig rig;
    QCOMPARE(rig.manager.start(), std::nullopt);
    const auto samples = tone(AudioFormat { 48000, 2 });
    deliverOnAudioThread(*rig.record, samples, 4096);
    QCOMPARE(rig.delegate->calls(), size_t(1));

    rig.manager.stop();
    QVERIFY(!rig.record->running);
    // stop() hands over the resampler's delay as one last buffer...
    QCOMPARE(rig.delegate->calls(), size_t(2));
    // ...and an input that delivers one more buffer after being stopped reaches no one.
    deliverOnAudioThread(*rig.record, samples, 4096);
    QCOMPARE(rig.delegate->calls(), size_t(2));
    rig.manager.stop();
    QCOMPARE(rig.delegate->calls(), size_t(2));
}

void TestAudioCaptureManager::destroyingTheManagerStopsTheInput()
{
    auto record = std::make_shared<FakeAudioInputRecord>();
    auto delegate = std::make_shared<RecordingCaptureDelegate>();
    {
        AudioCaptureManager manager([record] { return std::make_unique<FakeAudioInput>(record); });
        manager.setDelegate(delegate);
        QCOMPARE(manager.start(), std::nullopt);
    }
    QCOMPARE(record->stops, 1);
    QCOMPARE(record->destroyed, 1);
    const auto samples = tone(AudioFormat { 48000, 2 });
    deliverOnAudioThread(*record, samples, 4096);
    QCOMPARE(delegate->calls(), size_t(0));
}

void TestAudioCaptureManager::startAgainTakesAFreshInput()
{
    Rig rig;
    QCOMPARE(rig.manager.start(), std::nullopt);
    rig.record->format = AudioFormat { 16000, 1 };
    QCOMPARE(rig.manager.start(), std::nullopt);
    // The first input is stopped and let go; the second reports the new default's format.
    QCOMPARE(rig.record->created, 2);
    QCOMPARE(rig.record->stops, 1);
    QCOMPARE(rig.record->destroyed, 1);
    QCOMPARE(rig.manager.inputFormat(), std::optional<AudioFormat>(AudioFormat { 16000, 1 }));

    const auto samples = tone(AudioFormat { 16000, 1 });
    deliverOnAudioThread(*rig.record, samples, 4096);
    QCOMPARE(rig.delegate->buffers().at(0).frameCapacity(), 4096u);
}

void TestAudioCaptureManager::buffersAreDroppedOnceTheDelegateIsGone()
{
    Rig rig;
    QCOMPARE(rig.manager.start(), std::nullopt);
    std::weak_ptr<RecordingCaptureDelegate> watcher = rig.delegate;
    rig.delegate.reset();
    QVERIFY(watcher.expired());
    const auto samples = tone(AudioFormat { 48000, 2 });
    deliverOnAudioThread(*rig.record, samples, 4096);
    deliverOnAudioThread(*rig.record, samples, 4096);
    QVERIFY(rig.manager.isRunning());

    // A delegate set again later hears the buffers from then on.
    auto next = std::make_shared<RecordingCaptureDelegate>();
    rig.manager.setDelegate(next);
    deliverOnAudioThread(*rig.record, samples, 4096);
    QCOMPARE(next->calls(), size_t(1));
}

void TestAudioCaptureManager::aBufferThatCannotBeConvertedIsReportedAndCaptureGoesOn()
{
    Rig rig;
    QCOMPARE(rig.manager.start(), std::nullopt);
    const std::vector<float> torn(4096); // half of the 4,096 stereo frames it claims
    deliverOnAudioThread(*rig.record, torn, 4096);
    const auto samples = tone(AudioFormat { 48000, 2 });
    deliverOnAudioThread(*rig.record, samples, 4096);

    QCOMPARE(rig.delegate->failures().size(), 1);
    QVERIFY(!rig.delegate->failures().at(0).isEmpty());
    QCOMPARE(rig.delegate->buffers().size(), size_t(1));
    QVERIFY(rig.manager.isRunning());
}

void TestAudioCaptureManager::oneCallPerBufferInOrder()
{
    Rig rig;
    rig.record->format = AudioFormat { 16000, 1 };
    QCOMPARE(rig.manager.start(), std::nullopt);
    std::thread audio([&] {
        for (int b = 0; b < 10; ++b) {
            std::vector<float> samples(4096, float(b) / 100.0f);
            rig.record->handler(AudioFrames { samples, 4096 });
        }
    });
    audio.join();
    const auto buffers = rig.delegate->buffers();
    QCOMPARE(buffers.size(), size_t(10));
    // At 16 kHz each buffer carries its own samples (but the last couple, which the
    // resampler keeps until the next buffer comes): a level step per buffer, in order.
    for (size_t b = 1; b < buffers.size(); ++b) {
        const std::span<const qint16> samples = buffers[b].samples();
        QVERIFY(samples.size() > 4000);
        QCOMPARE(samples[100], qint16(std::lround(double(b) / 100.0 * 32768)));
    }
}

void TestAudioCaptureManager::stopHandsOverTheResamplersDelayAsOneLastBuffer()
{
    Rig rig;
    const AudioFormat format { 48000, 2 };
    QCOMPARE(rig.manager.start(), std::nullopt);
    std::thread audio([&] {
        for (int b = 0; b < 6; ++b) {
            const auto samples = tone(format, size_t(b) * 4096);
            rig.record->handler(AudioFrames { samples, 4096 });
        }
    });
    audio.join();
    const auto whileRunning = rig.delegate->buffers();
    QCOMPARE(whileRunning.size(), size_t(6));
    size_t heard = 0;
    for (const Pcm16Buffer& buffer : whileRunning)
        heard += buffer.frameLength();
    // soxr holds back a few dozen milliseconds while the stream goes on.
    QVERIFY2(heard < 6 * 4096 / 3 - 100, qPrintable(QString::number(heard)));

    rig.manager.stop();
    const auto buffers = rig.delegate->buffers();
    QCOMPARE(buffers.size(), size_t(7));
    const Pcm16Buffer& last = buffers.back();
    // All of it in one buffer, made on the stopping thread before stop() returned:
    // together, every frame that went in, to a frame.
    QCOMPARE(last.frameLength(), last.frameCapacity());
    QCOMPARE(size_t(last.frameLength()), size_t(6 * 4096 / 3) - heard);
    QCOMPARE(rig.delegate->threads().back(), std::this_thread::get_id());
    // It is the end of the tone, not silence.
    const double expectedRms = 0.5 * 32768 / std::sqrt(2.0);
    const double level = AudioAnalysis::rms(last.samples().first(last.frameLength() - 32));
    QVERIFY2(std::abs(level - expectedRms) < 0.05 * expectedRms, qPrintable(QString::number(level)));
    QVERIFY(rig.delegate->failures().isEmpty());
}

void TestAudioCaptureManager::stopHandsOverWhatTheInputStillHeldInTheSameLastBuffer()
{
    Rig rig;
    const AudioFormat format { 48000, 2 };
    QCOMPARE(rig.manager.start(), std::nullopt);
    for (int b = 0; b < 3; ++b)
        deliverOnAudioThread(*rig.record, tone(format, size_t(b) * 4096), 4096);
    // The sound server's last, partly filled fragment: 1,200 frames, 25 ms.
    rig.record->rest = AudioAnalysis::sine(1200, 48000, 440, { 0.5f, 0.5f }, 3 * 4096);

    rig.manager.stop();
    QCOMPARE(rig.record->restDeliveries, 1);
    const auto buffers = rig.delegate->buffers();
    // Three while running and one at the end, in which the partial fragment and the
    // resampler's delay travel together.
    QCOMPARE(buffers.size(), size_t(4));
    size_t total = 0;
    for (const Pcm16Buffer& buffer : buffers)
        total += buffer.frameLength();
    QCOMPARE(total, size_t(std::lround((3.0 * 4096 + 1200) / 3)));
    QVERIFY(buffers.back().frameLength() > 400);
    QCOMPARE(rig.delegate->threads().back(), std::this_thread::get_id());

    deliverOnAudioThread(*rig.record, tone(format), 4096);
    QCOMPARE(rig.delegate->calls(), size_t(4));
}

void TestAudioCaptureManager::stopAfterAFailedStartDeliversNothing()
{
    Rig rig;
    rig.record->startFailure = AudioInputFailure { u"The microphone could not be opened: No such entity."_s };
    QVERIFY(rig.manager.start().has_value());
    rig.manager.stop();
    QCOMPARE(rig.delegate->calls(), size_t(0));
}

QTEST_GUILESS_MAIN(TestAudioCaptureManager)
#include "tst_audiocapturemanager.moc"
