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
};

void TestAudioConverter::capacityOfOneBuffer_data()
{
    QTest::addColumn<quint32>("frames");
    QTest::addColumn<double>("rate");
    QTest::addColumn<quint32>("capacity");
    QTest::newRow("48 kHz") << 4096u << 48000.0 << 1365u;
    QTest::newRow("44.1 kHz") << 4096u << 44100.0 << 1486u;
    QTest::newRow("16 kHz") << 4096u << 16000.0 << 4096u;
    QTest::newRow("8 kHz") << 4096u << 8000.0 << 8192u;
    QTest::newRow("22.05 kHz") << 4096u << 22050.0 << 2972u;
    QTest::newRow("96 kHz") << 4096u << 96000.0 << 682u;
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
        Pcm16Buffer buffer(1365);
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
        Pcm16Buffer buffer(1486);
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
    Pcm16Buffer buffer(1365);
    const auto error = converter->convert(AudioFrames { in, 4096 }, buffer);
    QVERIFY(error.has_value());
    QVERIFY(!error->isEmpty());
}

QTEST_GUILESS_MAIN(TestAudioConverter)
#include "tst_audioconverter.moc"
