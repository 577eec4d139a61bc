#include "AudioAnalysis.h"
#include "dictation/AudioConverter.h"

#include <QTest>

#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

class TestAudioConverter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void capacityOfOneBuffer_data();
    void capacityOfOneBuffer();
    void capacityRejectsWhatCannotBeCounted_data();
    void capacityRejectsWhatCannotBeCounted();
    void refusesFormatsItCannotConvert_data();
    void refusesFormatsItCannotConvert();
    void sixteenKilohertzMonoComesThroughUnchanged();
    void toneKeepsItsPitchAndLevel_data();
    void toneKeepsItsPitchAndLevel();
    void channelsAreAveragedNotTruncated();
    void oppositeChannelsCancel();
    void shortBufferIsAnError();
    void backlogStaysConstant_data();
    void backlogStaysConstant();
    void finishHandsOverEverythingThatWentIn_data();
    void finishHandsOverEverythingThatWentIn();
    void nothingConvertsAfterFinish();
};

void TestAudioConverter::capacityOfOneBuffer_data()
{
    QTest::addColumn<quint32>("frames");
    QTest::addColumn<double>("rate");
    QTest::addColumn<quint32>("capacity");
    // Rounded up: 4,096 frames at 48 kHz make 1,365⅓ frames on average, and room for
    // only 1,365 would leave a frame behind every third buffer.
    QTest::newRow("48 kHz") << 4096u << 48000.0 << 1366u;
    QTest::newRow("44.1 kHz") << 4096u << 44100.0 << 1487u;
    QTest::newRow("16 kHz") << 4096u << 16000.0 << 4096u;
    QTest::newRow("8 kHz") << 4096u << 8000.0 << 8192u;
    QTest::newRow("22.05 kHz") << 4096u << 22050.0 << 2973u;
    QTest::newRow("96 kHz") << 4096u << 96000.0 << 683u;
    QTest::newRow("short buffer") << 480u << 48000.0 << 160u;
    QTest::newRow("empty buffer") << 0u << 48000.0 << 0u;
}

void TestAudioConverter::capacityOfOneBuffer()
{
    QFETCH(quint32, frames);
    QFETCH(double, rate);
    QFETCH(quint32, capacity);
    QCOMPARE(outputFrameCapacity(frames, rate), std::optional<quint32>(capacity));
}

void TestAudioConverter::capacityRejectsWhatCannotBeCounted_data()
{
    QTest::addColumn<quint32>("frames");
    QTest::addColumn<double>("rate");
    QTest::newRow("zero rate") << 4096u << 0.0;
    QTest::newRow("not a number") << 4096u << std::numeric_limits<double>::quiet_NaN();
    QTest::newRow("negative rate") << 4096u << -48000.0;
    QTest::newRow("beyond 32 bits") << 4096u << 0.01;
}

void TestAudioConverter::capacityRejectsWhatCannotBeCounted()
{
    QFETCH(quint32, frames);
    QFETCH(double, rate);
    QCOMPARE(outputFrameCapacity(frames, rate), std::nullopt);
}

void TestAudioConverter::refusesFormatsItCannotConvert_data()
{
    QTest::addColumn<double>("rate");
    QTest::addColumn<int>("channels");
    QTest::newRow("no rate") << 0.0 << 1;
    QTest::newRow("not a number") << std::numeric_limits<double>::quiet_NaN() << 2;
    QTest::newRow("absurd rate") << 1e9 << 2;
    QTest::newRow("no channels") << 48000.0 << 0;
    QTest::newRow("negative channels") << 48000.0 << -2;
}

void TestAudioConverter::refusesFormatsItCannotConvert()
{
    QFETCH(double, rate);
    QFETCH(int, channels);
    QString why;
    QVERIFY(!AudioConverter::create(AudioFormat { rate, channels }, &why));
    QVERIFY(!why.isEmpty());
}

void TestAudioConverter::sixteenKilohertzMonoComesThroughUnchanged()
{
    auto converter = AudioConverter::create(AudioFormat { 16000, 1 });
    QVERIFY(converter);
    std::vector<qint16> expected;
    std::vector<qint16> got;
    for (int buffer = 0; buffer < 4; ++buffer) {
        std::vector<float> in(4096);
        for (size_t i = 0; i < in.size(); ++i) {
            const auto value = qint16((int(i) * 37 + buffer * 1001) % 20001 - 10000);
            expected.push_back(value);
            in[i] = float(value) / 32768.0f;
        }
        Pcm16Buffer out(*outputFrameCapacity(4096, 16000));
        QCOMPARE(converter->convert(AudioFrames { in, 4096 }, out), std::nullopt);
        QCOMPARE(out.frameCapacity(), 4096u);
        QVERIFY(out.frameLength() <= out.frameCapacity());
        got.insert(got.end(), out.samples().begin(), out.samples().end());
    }
    // Equal rates are a plain copy, every sample as it came in; soxr keeps the last
    // couple of samples of the stream until more arrive.
    QVERIFY2(
        got.size() <= expected.size() && got.size() >= expected.size() - 16, qPrintable(QString::number(got.size())));
    QVERIFY(std::equal(got.begin(), got.end(), expected.begin()));
}

void TestAudioConverter::toneKeepsItsPitchAndLevel_data()
{
    QTest::addColumn<double>("rate");
    QTest::addColumn<int>("channels");
    QTest::newRow("48 kHz stereo") << 48000.0 << 2;
    QTest::newRow("44.1 kHz mono") << 44100.0 << 1;
    QTest::newRow("96 kHz stereo") << 96000.0 << 2;
}

void TestAudioConverter::toneKeepsItsPitchAndLevel()
{
    QFETCH(double, rate);
    QFETCH(int, channels);
    auto converter = AudioConverter::create(AudioFormat { rate, channels });
    QVERIFY(converter);

    const int buffers = 24;
    std::vector<qint16> out;
    for (int b = 0; b < buffers; ++b) {
        const auto in
            = AudioAnalysis::sine(4096, rate, 1000, std::vector<float>(size_t(channels), 0.5f), size_t(b) * 4096);
        Pcm16Buffer buffer(*outputFrameCapacity(4096, rate));
        QCOMPARE(converter->convert(AudioFrames { in, 4096 }, buffer), std::nullopt);
        QVERIFY(buffer.frameLength() <= buffer.frameCapacity());
        out.insert(out.end(), buffer.samples().begin(), buffer.samples().end());
    }
    // The resampler holds back a few dozen milliseconds; anything beyond that would be
    // audio lost between buffers.
    const double expectedFrames = buffers * 4096 * 16000 / rate;
    QVERIFY2(double(out.size()) <= expectedFrames && double(out.size()) > expectedFrames - 0.1 * 16000,
        qPrintable(u"%1 frames, expected about %2"_s.arg(out.size()).arg(expectedFrames)));

    const std::span<const qint16> steady = std::span<const qint16>(out).subspan(1600);
    const double frequency = AudioAnalysis::toneFrequency(steady, 16000);
    QVERIFY2(std::abs(frequency - 1000) < 1, qPrintable(u"%1 Hz"_s.arg(frequency)));
    const double residual = AudioAnalysis::toneResidual(steady, 16000, 1000);
    QVERIFY2(residual < 0.001, qPrintable(u"residual %1"_s.arg(residual)));
    const double expectedRms = 0.5 * 32768 / std::sqrt(2.0);
    const double level = AudioAnalysis::rms(steady);
    QVERIFY2(std::abs(level - expectedRms) < 0.02 * expectedRms, qPrintable(u"rms %1"_s.arg(level)));
}

void TestAudioConverter::channelsAreAveragedNotTruncated()
{
    auto converter = AudioConverter::create(AudioFormat { 48000, 2 });
    QVERIFY(converter);
    // A microphone that only feeds the second channel: taking the first channel
    // alone would hear nothing.
    std::vector<qint16> out;
    for (int b = 0; b < 8; ++b) {
        const auto in = AudioAnalysis::sine(4096, 48000, 440, { 0.0f, 0.8f }, size_t(b) * 4096);
        Pcm16Buffer buffer(1366);
        QCOMPARE(converter->convert(AudioFrames { in, 4096 }, buffer), std::nullopt);
        out.insert(out.end(), buffer.samples().begin(), buffer.samples().end());
    }
    const double level = AudioAnalysis::rms(std::span<const qint16>(out).subspan(1600));
    const double expected = 0.4 * 32768 / std::sqrt(2.0);
    QVERIFY2(
        std::abs(level - expected) < 0.02 * expected, qPrintable(u"rms %1, expected %2"_s.arg(level).arg(expected)));
}

void TestAudioConverter::oppositeChannelsCancel()
{
    auto converter = AudioConverter::create(AudioFormat { 44100, 2 });
    QVERIFY(converter);
    std::vector<qint16> out;
    for (int b = 0; b < 6; ++b) {
        const auto in = AudioAnalysis::sine(4096, 44100, 440, { 0.8f, -0.8f }, size_t(b) * 4096);
        Pcm16Buffer buffer(1487);
        QCOMPARE(converter->convert(AudioFrames { in, 4096 }, buffer), std::nullopt);
        out.insert(out.end(), buffer.samples().begin(), buffer.samples().end());
    }
    QVERIFY(!out.empty());
    QVERIFY2(AudioAnalysis::rms(out) < 1.0, qPrintable(QString::number(AudioAnalysis::rms(out))));
}

void TestAudioConverter::shortBufferIsAnError()
{
    auto converter = AudioConverter::create(AudioFormat { 48000, 2 });
    QVERIFY(converter);
    const std::vector<float> in(4096); // half of the 4,096 stereo frames it claims
    Pcm16Buffer buffer(1366);
    const auto error = converter->convert(AudioFrames { in, 4096 }, buffer);
    QVERIFY(error.has_value());
    QVERIFY(!error->isEmpty());
}

void TestAudioConverter::backlogStaysConstant_data()
{
    QTest::addColumn<double>("rate");
    QTest::addColumn<int>("channels");
    QTest::newRow("48 kHz stereo") << 48000.0 << 2;
    QTest::newRow("44.1 kHz mono") << 44100.0 << 1;
    QTest::newRow("96 kHz stereo") << 96000.0 << 2;
    QTest::newRow("16 kHz mono") << 16000.0 << 1;
}

void TestAudioConverter::backlogStaysConstant()
{
    QFETCH(double, rate);
    QFETCH(int, channels);
    auto converter = AudioConverter::create(AudioFormat { rate, channels });
    QVERIFY(converter);

    // How far the delivered audio trails what went in, in output frames, after each
    // buffer. soxr hands out its work in blocks (979 or 1,468 frames a buffer at
    // 48 kHz), so this swings by a block; what matters is that it does not creep up
    // the longer the key is held.
    const int buffers = 1000;
    std::vector<double> lag;
    double delivered = 0;
    for (int b = 0; b < buffers; ++b) {
        const auto in
            = AudioAnalysis::sine(4096, rate, 440, std::vector<float>(size_t(channels), 0.5f), size_t(b) * 4096);
        Pcm16Buffer buffer(*outputFrameCapacity(4096, rate));
        QCOMPARE(converter->convert(AudioFrames { in, 4096 }, buffer), std::nullopt);
        delivered += buffer.frameLength();
        lag.push_back(double(b + 1) * 4096 * 16000 / rate - delivered);
    }
    const double early = *std::max_element(lag.begin() + 100, lag.begin() + 300);
    const double late = *std::max_element(lag.end() - 200, lag.end());
    qInfo("largest lag %.1f frames over buffers 100-300, %.1f over the last 200; %zu frames owed", early, late,
        converter->owedFrames());
    // Room rounded down at 48 kHz would have let it creep up by about 230 frames here.
    QVERIFY2(late <= early + 2, qPrintable(u"%1 -> %2"_s.arg(early).arg(late)));
}

void TestAudioConverter::finishHandsOverEverythingThatWentIn_data()
{
    QTest::addColumn<double>("rate");
    QTest::addColumn<int>("channels");
    QTest::addColumn<quint32>("lastFrames");
    QTest::newRow("48 kHz stereo, short last buffer") << 48000.0 << 2 << 1000u;
    QTest::newRow("44.1 kHz mono, whole buffers") << 44100.0 << 1 << 4096u;
    QTest::newRow("16 kHz mono") << 16000.0 << 1 << 300u;
}

void TestAudioConverter::finishHandsOverEverythingThatWentIn()
{
    QFETCH(double, rate);
    QFETCH(int, channels);
    QFETCH(quint32, lastFrames);
    auto converter = AudioConverter::create(AudioFormat { rate, channels });
    QVERIFY(converter);
    const std::vector<float> level(size_t(channels), 0.5f);

    std::vector<qint16> out;
    for (int b = 0; b < 6; ++b) {
        const auto in = AudioAnalysis::sine(4096, rate, 1000, level, size_t(b) * 4096);
        Pcm16Buffer buffer(*outputFrameCapacity(4096, rate));
        QCOMPARE(converter->convert(AudioFrames { in, 4096 }, buffer), std::nullopt);
        out.insert(out.end(), buffer.samples().begin(), buffer.samples().end());
    }
    const size_t beforeEnd = out.size();
    // The last buffers of a stream: one that need not be whole, then the end.
    const auto last = AudioAnalysis::sine(lastFrames, rate, 1000, level, 6 * 4096);
    QCOMPARE(converter->convertAll(AudioFrames { last, lastFrames }, out), std::nullopt);
    QCOMPARE(converter->finish(out), std::nullopt);
    QCOMPARE(converter->owedFrames(), size_t(0));

    // Every input frame comes out: the length of what went in, to a frame.
    const double expected = (6.0 * 4096 + lastFrames) * 16000 / rate;
    qInfo("%zu frames out, %zu of them at the end, for %.2f expected", out.size(), out.size() - beforeEnd, expected);
    QVERIFY2(std::abs(double(out.size()) - expected) <= 1,
        qPrintable(u"%1 frames, expected %2"_s.arg(out.size()).arg(expected)));
    // And the tone runs to the very end at its level: the filter's delay was handed
    // over, not padded with silence. The last 2 ms are left out: the filter rings there.
    const std::span<const qint16> finalStretch = std::span<const qint16>(out).last(800).first(768);
    const double level0 = AudioAnalysis::rms(finalStretch);
    const double expectedRms = 0.5 * 32768 / std::sqrt(2.0);
    QVERIFY2(std::abs(level0 - expectedRms) < 0.05 * expectedRms, qPrintable(u"rms %1"_s.arg(level0)));
    QVERIFY2(AudioAnalysis::toneResidual(finalStretch, 16000, 1000) < 0.01,
        qPrintable(QString::number(AudioAnalysis::toneResidual(finalStretch, 16000, 1000))));
}

void TestAudioConverter::nothingConvertsAfterFinish()
{
    auto converter = AudioConverter::create(AudioFormat { 48000, 1 });
    QVERIFY(converter);
    std::vector<qint16> out;
    QCOMPARE(converter->finish(out), std::nullopt);
    const std::vector<float> in(4096, 0.25f);
    Pcm16Buffer buffer(1366);
    QVERIFY(converter->convert(AudioFrames { in, 4096 }, buffer).has_value());
    QVERIFY(converter->convertAll(AudioFrames { in, 4096 }, out).has_value());
    QVERIFY(converter->finish(out).has_value());
}

QTEST_GUILESS_MAIN(TestAudioConverter)
#include "tst_audioconverter.moc"
