#include "AudioAnalysis.h"
#include "MemorySecretStore.h"
#include "RecordingCaptureDelegate.h"
#include "ScriptedStreamServer.h"
#include "TestInfoFile.h"
#include "TestTokens.h"
#include "dictation/AudioCaptureManager.h"
#include "dictation/DictationSession.h"
#include "services/KeychainHelper.h"
#include "ui/HUDState.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <thread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// The capsule of a dictation that runs with the real microphone and stream: what it was told.
class RecordingHUD : public HUDPresenter
{
public:
    explicit RecordingHUD(QStringList& errors)
        : m_errors(errors)
    { }
    HUDState& hudState() override { return m_state; }
    void show(const HUDMode& mode) override { m_state.setMode(mode); }
    void showError(const QString& message) override
    {
        m_errors << message;
        m_state.setMode(HUDMode::error(message));
    }
    void showSuccess(const QString&, std::optional<Tone> tone) override { m_state.setMode(HUDMode::success(tone)); }
    void dismiss() override { }

private:
    QStringList& m_errors;
    HUDState m_state;
};

} // namespace

// The whole capture against the session's PulseAudio: speech played into a null sink
// reaches us through a virtual source on its monitor, which is made the default.
class TestCapturePulse : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void capturesTheDefaultSourceAsPlayed_data();
    void capturesTheDefaultSourceAsPlayed();
    void theEndOfTheUtteranceIsKept();
    void followsTheDefaultSourceWhenItChanges();
    void aMonitorAsDefaultIsNoMicrophone();
    void aMicrophoneThatVanishesIsReported();
    void aDictationWhoseMicrophoneVanishesKeepsWhatWasHeard();
    void cleanupTestCase();

private:
    // Runs a tool to its end; its standard output, or a failed test.
    QByteArray run(const QString& program, const QStringList& arguments);
    // A null sink to play into and a virtual source on its monitor, at this format.
    // The sink never rewinds, or the monitor would lose the start of what is played.
    QString addMicrophone(const QString& name, int rate, int channels);
    void setDefaultSource(const QString& name);
    // Plays a file into the sink of a microphone made by addMicrophone(), in real time.
    void play(const QString& microphone, const QString& file);
    std::vector<qint16> reference(const QString& file);
    QString wav(const QString& name) const { return m_dir.filePath(name + u".wav"_s); }

    static constexpr double toneSeconds = 0.8;
    QTemporaryDir m_dir;
    QStringList m_modules;
};

QByteArray TestCapturePulse::run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        QTest::qFail(qPrintable(u"%1 %2 failed: %3"_s.arg(
                         program, arguments.join(u' '), QString::fromLocal8Bit(process.readAllStandardError()))),
            __FILE__, __LINE__);
        return {};
    }
    return process.readAllStandardOutput();
}

QString TestCapturePulse::addMicrophone(const QString& name, int rate, int channels)
{
    m_modules << QString::fromUtf8(run(u"pactl"_s,
        { u"load-module"_s, u"module-null-sink"_s, u"sink_name=%1_feed"_s.arg(name), u"norewinds=1"_s,
            u"rate=%1"_s.arg(rate), u"channels=%1"_s.arg(channels) })
                                       .trimmed());
    m_modules << QString::fromUtf8(run(u"pactl"_s,
        { u"load-module"_s, u"module-virtual-source"_s, u"source_name=%1"_s.arg(name),
            u"master=%1_feed.monitor"_s.arg(name), u"rate=%1"_s.arg(rate), u"channels=%1"_s.arg(channels) })
                                       .trimmed());
    return name;
}

void TestCapturePulse::setDefaultSource(const QString& name)
{
    run(u"pactl"_s, { u"set-default-source"_s, name });
}

void TestCapturePulse::play(const QString& microphone, const QString& file)
{
    run(u"paplay"_s, { u"-d"_s, microphone + u"_feed"_s, file });
}

std::vector<qint16> TestCapturePulse::reference(const QString& file)
{
    // What the played file should become: sox's own resampling to 16 kHz, channels
    // averaged into one.
    const QByteArray raw = run(u"sox"_s,
        { file, u"-t"_s, u"raw"_s, u"-e"_s, u"signed-integer"_s, u"-b"_s, u"16"_s, u"-r"_s, u"16000"_s, u"-c"_s, u"1"_s,
            u"-"_s });
    std::vector<qint16> samples(size_t(raw.size()) / sizeof(qint16));
    std::memcpy(samples.data(), raw.constData(), samples.size() * sizeof(qint16));
    return samples;
}

void TestCapturePulse::initTestCase()
{
    QVERIFY2(qEnvironmentVariableIsSet("QUILLET_MIC_SOURCE"), "run inside scripts/desktop-session.sh");
    QVERIFY(m_dir.isValid());
    // Synthetic speech is fine here: the words do not matter, only that real-sounding
    // audio makes the whole trip intact.
    run(u"espeak-ng"_s,
        { u"-w"_s, wav(u"speech"_s), u"Dictation test: the quick brown fox jumps over the lazy dog."_s });
    // Stereo with the voice on the right channel only: a capture that kept only the
    // first channel would hear silence.
    run(u"sox"_s,
        { wav(u"speech"_s), u"-b"_s, u"16"_s, wav(u"speech48s"_s), u"remix"_s, u"0"_s, u"1"_s, u"rate"_s, u"-v"_s,
            u"48000"_s });
    run(u"sox"_s, { wav(u"speech"_s), u"-b"_s, u"16"_s, wav(u"speech44m"_s), u"rate"_s, u"-v"_s, u"44100"_s });
    run(u"sox"_s, { wav(u"speech"_s), u"-b"_s, u"16"_s, wav(u"speech16m"_s), u"rate"_s, u"-v"_s, u"16000"_s });
    // A word that runs right to the end of the clip: a loud tone up to its last
    // sample, after some silence, at 48 kHz stereo.
    run(u"sox"_s,
        { u"-n"_s, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, u"-b"_s, u"16"_s, wav(u"toneAtEnd"_s), u"synth"_s,
            QString::number(toneSeconds), u"sine"_s, u"1000"_s, u"vol"_s, u"0.5"_s, u"pad"_s, u"0.4"_s, u"0"_s });
}

void TestCapturePulse::cleanupTestCase()
{
    setDefaultSource(qEnvironmentVariable("QUILLET_MIC_SOURCE"));
    for (auto it = m_modules.crbegin(); it != m_modules.crend(); ++it)
        QProcess::execute(u"pactl"_s, { u"unload-module"_s, *it });
}

void TestCapturePulse::capturesTheDefaultSourceAsPlayed_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");
    QTest::addColumn<QString>("file");
    QTest::addColumn<quint32>("capacity");
    QTest::newRow("48 kHz stereo") << 48000 << 2 << u"speech48s"_s << 1366u;
    QTest::newRow("44.1 kHz mono") << 44100 << 1 << u"speech44m"_s << 1487u;
    QTest::newRow("16 kHz mono") << 16000 << 1 << u"speech16m"_s << 4096u;
}

void TestCapturePulse::capturesTheDefaultSourceAsPlayed()
{
    QFETCH(int, rate);
    QFETCH(int, channels);
    QFETCH(QString, file);
    QFETCH(quint32, capacity);

    const QString microphone = addMicrophone(u"mic%1x%2"_s.arg(rate).arg(channels), rate, channels);
    setDefaultSource(microphone);

    auto delegate = std::make_shared<RecordingCaptureDelegate>();
    AudioCaptureManager capture;
    capture.setDelegate(delegate);
    const auto failure = capture.start();
    QVERIFY2(!failure, failure ? qPrintable(failure->description) : "");
    QCOMPARE(capture.inputFormat(), std::optional<AudioFormat>(AudioFormat { double(rate), channels }));

    play(microphone, wav(file));
    QTest::qWait(400);
    capture.stop();
    const size_t calls = delegate->calls();
    // Speech goes on into the microphone for long enough to fill two more buffers at
    // 16 kHz, had capture gone on.
    QProcess more;
    more.start(u"paplay"_s, { u"-d"_s, microphone + u"_feed"_s, wav(file) });
    QVERIFY(more.waitForStarted());
    QTest::qWait(700);
    more.kill();
    more.waitForFinished();
    QCOMPARE(delegate->calls(), calls);

    const std::vector<Pcm16Buffer> buffers = delegate->buffers();
    QVERIFY(buffers.size() > 5);
    QVERIFY(delegate->failures().isEmpty());
    std::vector<qint16> recording;
    for (size_t i = 0; i < buffers.size(); ++i) {
        // All but the last, which stop() makes of whatever was left, whatever its size.
        if (i + 1 < buffers.size())
            QCOMPARE(buffers[i].frameCapacity(), capacity);
        QVERIFY(buffers[i].frameLength() <= buffers[i].frameCapacity());
        recording.insert(recording.end(), buffers[i].samples().begin(), buffers[i].samples().end());
    }
    // Every buffer comes from the audio thread but the last, which stop() hands over.
    const std::vector<std::thread::id> threads = delegate->threads();
    for (size_t i = 0; i + 1 < threads.size(); ++i)
        QVERIFY(threads[i] != std::this_thread::get_id());
    QCOMPARE(threads.back(), std::this_thread::get_id());

    // QUILLET_CAPTURE_DUMP=/some/prefix keeps what was heard, as raw 16 kHz mono
    // s16le, for listening to when this test fails.
    if (qEnvironmentVariableIsSet("QUILLET_CAPTURE_DUMP")) {
        QFile dump(qEnvironmentVariable("QUILLET_CAPTURE_DUMP") + u'-' + file + u".raw"_s);
        if (dump.open(QIODevice::WriteOnly))
            dump.write(reinterpret_cast<const char*>(recording.data()), qint64(recording.size() * sizeof(qint16)));
    }
    const std::vector<qint16> expected = reference(wav(file));
    QVERIFY(!expected.empty());
    QVERIFY2(recording.size() > expected.size(), "the recording is shorter than what was played");

    // The same speech: it lines up with the reference at one lag and follows it
    // closely there (silence or noise correlates near zero).
    const AudioAnalysis::Alignment alignment = AudioAnalysis::align(recording, expected, 16000);
    qInfo("correlation %.3f at lag %ld samples", alignment.correlation, alignment.lag);
    QVERIFY2(alignment.correlation > 0.8, qPrintable(QString::number(alignment.correlation)));

    // At the same level: nothing lost to the channel mix-down or the conversion.
    const std::span<const qint16> heard
        = std::span<const qint16>(recording).subspan(size_t(alignment.lag), expected.size());
    const double level = AudioAnalysis::rms(heard) / AudioAnalysis::rms(expected);
    qInfo("level %.3f of the reference", level);
    QVERIFY2(level > 0.8 && level < 1.25, qPrintable(QString::number(level)));

    // And as long: the speech takes as much time captured as played.
    const auto [heardFrom, heardTo] = AudioAnalysis::activeSpan(recording, 16000);
    const auto [playedFrom, playedTo] = AudioAnalysis::activeSpan(expected, 16000);
    const double duration = double(heardTo - heardFrom) / double(playedTo - playedFrom);
    qInfo("speech lasts %.3f of the played duration", duration);
    QVERIFY2(std::abs(duration - 1) < 0.05, qPrintable(QString::number(duration)));
}

void TestCapturePulse::theEndOfTheUtteranceIsKept()
{
    const QString microphone = addMicrophone(u"tail48"_s, 48000, 2);
    setDefaultSource(microphone);
    auto delegate = std::make_shared<RecordingCaptureDelegate>();
    AudioCaptureManager capture;
    capture.setDelegate(delegate);
    QCOMPARE(capture.start(), std::nullopt);
    // The key comes up the moment the speaker falls silent.
    play(microphone, wav(u"toneAtEnd"_s));
    capture.stop();

    std::vector<qint16> recording;
    for (const Pcm16Buffer& buffer : delegate->buffers())
        recording.insert(recording.end(), buffer.samples().begin(), buffer.samples().end());
    QVERIFY(delegate->failures().isEmpty());

    // The tone from its first to its last sample above half its amplitude: the clip is
    // digital silence elsewhere, so this is how much of it was captured.
    const double amplitude = 0.5 * 32768;
    const auto loud = [amplitude](qint16 s) { return std::abs(double(s)) > amplitude / 2; };
    const auto first = std::find_if(recording.begin(), recording.end(), loud);
    QVERIFY2(first != recording.end(), "no tone was captured");
    const auto last = std::find_if(recording.rbegin(), recording.rend(), loud).base();
    const double captured = double(std::distance(first, last)) / 16000;
    qInfo("%.1f ms of the %.0f ms tone captured", captured * 1000, toneSeconds * 1000);
    QVERIFY2(std::abs(captured - toneSeconds) <= 0.020, qPrintable(QString::number(captured)));

    // And its last 50 ms are there at full strength, not faded or cut.
    const auto end = size_t(std::distance(recording.begin(), last));
    QVERIFY(end >= 800);
    const double finalRms = AudioAnalysis::rms(std::span<const qint16>(recording).subspan(end - 800, 800));
    const double toneRms = amplitude / std::sqrt(2.0);
    qInfo("last 50 ms of the tone at %.3f of its level", finalRms / toneRms);
    QVERIFY2(finalRms > 0.9 * toneRms && finalRms < 1.1 * toneRms, qPrintable(QString::number(finalRms)));
}

void TestCapturePulse::followsTheDefaultSourceWhenItChanges()
{
    const QString first = addMicrophone(u"switchA"_s, 48000, 2);
    const QString second = addMicrophone(u"switchB"_s, 16000, 1);

    auto delegate = std::make_shared<RecordingCaptureDelegate>();
    AudioCaptureManager capture;
    capture.setDelegate(delegate);

    setDefaultSource(first);
    QCOMPARE(capture.start(), std::nullopt);
    QCOMPARE(capture.inputFormat(), std::optional<AudioFormat>(AudioFormat { 48000, 2 }));
    capture.stop();

    // The user picks another microphone in the sound settings between two dictations.
    setDefaultSource(second);
    const size_t before = delegate->calls();
    QCOMPARE(capture.start(), std::nullopt);
    QCOMPARE(capture.inputFormat(), std::optional<AudioFormat>(AudioFormat { 16000, 1 }));

    // Speech into the old microphone is not heard; speech into the new one is.
    play(first, wav(u"speech48s"_s));
    const size_t afterOld = delegate->calls();
    play(second, wav(u"speech16m"_s));
    QTest::qWait(400);
    capture.stop();

    const std::vector<Pcm16Buffer> buffers = delegate->buffers();
    std::vector<qint16> whileOld, whileNew;
    for (size_t i = before; i < buffers.size(); ++i) {
        if (i + 1 < buffers.size())
            QCOMPARE(buffers[i].frameCapacity(), 4096u);
        auto& target = i < afterOld ? whileOld : whileNew;
        target.insert(target.end(), buffers[i].samples().begin(), buffers[i].samples().end());
    }
    QVERIFY(!whileOld.empty());
    const double oldLevel = AudioAnalysis::rms(whileOld);
    const double newLevel = AudioAnalysis::rms(whileNew);
    qInfo("level while playing into the old default %.1f, into the new one %.1f", oldLevel, newLevel);
    QVERIFY2(oldLevel < 5, qPrintable(QString::number(oldLevel)));
    QVERIFY2(newLevel > 300, qPrintable(QString::number(newLevel)));
}

void TestCapturePulse::aMonitorAsDefaultIsNoMicrophone()
{
    // What a server with no microphone at all falls back to.
    setDefaultSource(u"speakers.monitor"_s);
    AudioCaptureManager capture;
    const auto failure = capture.start();
    QVERIFY(failure.has_value());
    QCOMPARE(failure->error, std::nullopt);
    QCOMPARE(failure->description, u"No microphone was found; connect one or choose one in the sound settings."_s);
    capture.stop();
    setDefaultSource(qEnvironmentVariable("QUILLET_MIC_SOURCE"));
}

void TestCapturePulse::aMicrophoneThatVanishesIsReported()
{
    // A USB microphone pulled out mid-dictation: its source module goes away.
    const QString microphone = addMicrophone(u"vanishing"_s, 48000, 1);
    const QString sourceModule = m_modules.last();
    setDefaultSource(microphone);
    auto delegate = std::make_shared<RecordingCaptureDelegate>();
    AudioCaptureManager capture;
    capture.setDelegate(delegate);
    QCOMPARE(capture.start(), std::nullopt);
    QTRY_VERIFY(delegate->buffers().size() >= 2); // the null sink's monitor runs in real time
    QVERIFY(delegate->losses().isEmpty());

    run(u"pactl"_s, { u"unload-module"_s, sourceModule });
    m_modules.removeAll(sourceModule);
    QTRY_COMPARE(delegate->losses(), QStringList { u"the microphone's source went away"_s });
    // Nothing follows the loss, and stopping afterwards is quiet.
    const size_t calls = delegate->calls();
    QTest::qWait(200);
    QCOMPARE(delegate->calls(), calls);
    capture.stop();
    QCOMPARE(delegate->losses().size(), 1);
    setDefaultSource(qEnvironmentVariable("QUILLET_MIC_SOURCE"));
}

void TestCapturePulse::aDictationWhoseMicrophoneVanishesKeepsWhatWasHeard()
{
    // The backend has heard "hello there" when the microphone goes; asked to finish, it
    // sends the rest and closes.
    ScriptedStreamServer backend;
    backend.script = { ScriptedStreamServer::text("{\"type\":\"final\",\"text\":\"hello there\"}"),
        ScriptedStreamServer::waitForStop(), ScriptedStreamServer::text("{\"type\":\"final\",\"text\":\"general\"}"),
        ScriptedStreamServer::close() };
    TestInfoFile info(QJsonObject { { u"API_BASE_URL"_s, backend.apiBase() } });
    auto store = std::make_unique<MemorySecretStore>();
    store->items.insert(KeychainHelper::accessTokenKey, TestTokens::expiringIn(900).toUtf8());
    KeychainHelper::setStore(std::move(store));

    const QString microphone = addMicrophone(u"unplugged"_s, 48000, 1);
    const QString sourceModule = m_modules.last();
    setDefaultSource(microphone);

    QStringList errors;
    QStringList history;
    QStringList inserted;
    HUDState* state = nullptr;
    DictationEnvironment env;
    env.makeStream = [] { return std::make_unique<TranscriptionService>(); };
    env.makeCapture = [] { return std::make_unique<AudioCaptureManager>(); };
    env.makeHUD = [&] {
        auto hud = std::make_unique<RecordingHUD>(errors);
        state = &hud->hudState();
        return hud;
    };
    env.cleanup = [](const QString&) -> QCoro::Task<std::optional<QString>> { co_return std::nullopt; };
    env.rewrite = [](const QString&, Tone) -> QCoro::Task<std::optional<QString>> { co_return std::nullopt; };
    env.addToHistory = [&](const QString& text) { history << text; };
    env.insert = [&](const QString& text) {
        inserted << text;
        return InsertionResult::inserted;
    };
    env.apiBaseURL = [&] { return backend.apiBase(); };
    env.timings = { 5000ms, 5000ms, 200ms, 200ms };
    int completions = 0;
    auto session = DictationSession::create(
        false, [&] { ++completions; }, env);
    session->start();
    QTRY_COMPARE(state->partialText(), u"hello there"_s);
    QTRY_VERIFY(backend.received.size() >= 2); // audio is flowing from the microphone

    run(u"pactl"_s, { u"unload-module"_s, sourceModule });
    m_modules.removeAll(sourceModule);
    QTRY_COMPARE(errors.value(0), u"Microphone lost. Check the sound settings."_s);
    QTRY_COMPARE(history, QStringList { u"hello there general"_s });
    QCOMPARE(errors.value(1), u"Microphone lost. Your words are in the history."_s);
    QVERIFY(inserted.isEmpty());
    session->stop(); // the key comes up afterwards: the message stays
    QCOMPARE(state->mode(), HUDMode::error(u"Microphone lost. Your words are in the history."_s));
    QTRY_COMPARE(completions, 1);
    session.reset();
    KeychainHelper::setStore(nullptr);
    setDefaultSource(qEnvironmentVariable("QUILLET_MIC_SOURCE"));
}

QTEST_GUILESS_MAIN(TestCapturePulse)
#include "tst_capture_pulse.moc"
