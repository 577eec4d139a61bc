#include "StdoutCapture.h"
#include "dictation/DictationSession.h"
#include "ui/HUDState.h"

#include <QSignalSpy>
#include <QtTest>

#include <QCoroSignal>
#include <QCoroTimer>

#include <thread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Everything the session did to the world outside it, in order.
struct Journal {
    QStringList events;
    QList<QList<qint16>> audio;
};

class FakeStream : public QObject, public TranscriptionStream
{
    Q_OBJECT
public:
    explicit FakeStream(Journal& journal)
        : m_journal(journal)
    { }

    void setDelegate(QObject* owner, TranscriptionDelegate* delegate) override
    {
        m_owner = owner;
        m_delegate = delegate;
    }
    QCoro::Task<std::optional<StreamConnectFailure>> connect() override
    {
        m_journal.events << u"stream.connect"_s;
        if (!m_result)
            co_await qCoro(this, &FakeStream::resolved);
        co_return *m_result;
    }
    void sendAudio(std::span<const qint16> samples) override
    {
        m_journal.events << u"stream.audio"_s;
        m_journal.audio << QList<qint16>(samples.begin(), samples.end());
    }
    void stop() override { m_journal.events << u"stream.stop"_s; }
    void cancel() override { m_journal.events << u"stream.cancel"_s; }

    // Lets a pending connect() return, or decides what the next one returns.
    void resolve(std::optional<StreamConnectFailure> failure)
    {
        m_result = std::move(failure);
        Q_EMIT resolved();
    }
    TranscriptionDelegate* delegate() const { return m_owner ? m_delegate : nullptr; }

Q_SIGNALS:
    void resolved();

private:
    Journal& m_journal;
    std::optional<std::optional<StreamConnectFailure>> m_result;
    QPointer<QObject> m_owner;
    TranscriptionDelegate* m_delegate = nullptr;
};

class FakeCapture : public AudioCapture
{
public:
    FakeCapture(Journal& journal, std::optional<CaptureStartFailure> startFailure)
        : m_journal(journal)
        , m_startFailure(std::move(startFailure))
    { }
    void setDelegate(std::weak_ptr<AudioCaptureDelegate> delegate) override { m_delegate = std::move(delegate); }
    std::optional<CaptureStartFailure> start() override
    {
        m_journal.events << u"capture.start"_s;
        return m_startFailure;
    }
    // Like the real capture, hands over what it still holds before it returns.
    void stop() override
    {
        m_journal.events << u"capture.stop"_s;
        if (auto delegate = m_delegate.lock(); delegate && m_lastBuffer)
            delegate->audioCaptureDidReceive(*std::exchange(m_lastBuffer, std::nullopt));
    }

    std::weak_ptr<AudioCaptureDelegate> m_delegate;
    std::optional<Pcm16Buffer> m_lastBuffer;

private:
    Journal& m_journal;
    std::optional<CaptureStartFailure> m_startFailure;
};

class FakeHUD : public HUDPresenter
{
public:
    explicit FakeHUD(Journal& journal)
        : m_journal(journal)
    {
        QObject::connect(&m_state, &HUDState::modeChanged, [this] { m_journal.events << u"hud.mode:"_s + describe(); });
    }
    HUDState& hudState() override { return m_state; }
    void show(const HUDMode& mode) override
    {
        m_state.setMode(mode);
        m_state.setPartialText(QString());
        m_journal.events << u"hud.show"_s;
    }
    void showError(const QString& message) override
    {
        m_state.setMode(HUDMode::error(message));
        m_journal.events << u"hud.showError"_s;
    }
    void showSuccess(const QString& text, std::optional<Tone> tone) override
    {
        m_state.setMode(HUDMode::success(tone));
        m_journal.events << u"hud.showSuccess:"_s + text;
    }
    void dismiss() override { m_journal.events << u"hud.dismiss"_s; }

    QString describe() const
    {
        const QString kind = QString::fromLatin1(QMetaEnum::fromType<HUDMode::Kind>().valueToKey(int(m_state.kind())));
        if (!m_state.toneLabel().isEmpty())
            return kind + u'(' + m_state.toneLabel() + u')';
        if (!m_state.message().isEmpty())
            return kind + u'(' + m_state.message() + u')';
        return kind;
    }

private:
    Journal& m_journal;
    HUDState m_state;
};

struct Fixture {
    Journal journal;
    FakeStream* stream = nullptr;
    FakeCapture* capture = nullptr;
    FakeHUD* hud = nullptr;
    std::optional<CaptureStartFailure> captureFailure;
    std::optional<QString> serviceAnswer = u"Cleaned text."_s;
    QList<std::pair<QString, std::optional<Tone>>> serviceCalls;
    QStringList history;
    QStringList inserted;
    InsertionResult insertionResult = InsertionResult::inserted;
    int completions = 0;
    std::weak_ptr<DictationSession> made;

    DictationEnvironment environment()
    {
        DictationEnvironment env;
        env.makeStream = [this] {
            auto made = std::make_unique<FakeStream>(journal);
            stream = made.get();
            return made;
        };
        env.makeCapture = [this] {
            auto made = std::make_unique<FakeCapture>(journal, captureFailure);
            capture = made.get();
            return made;
        };
        env.makeHUD = [this] {
            auto made = std::make_unique<FakeHUD>(journal);
            hud = made.get();
            return made;
        };
        env.cleanup = [this](const QString& text) -> QCoro::Task<std::optional<QString>> {
            serviceCalls.append({ text, std::nullopt });
            journal.events << u"cleanup:"_s + text;
            return answer(serviceAnswer);
        };
        env.rewrite = [this](const QString& text, Tone tone) -> QCoro::Task<std::optional<QString>> {
            serviceCalls.append({ text, tone });
            journal.events << u"rewrite:"_s + text;
            return answer(serviceAnswer);
        };
        env.addToHistory = [this](const QString& text) {
            history << text;
            journal.events << u"history:"_s + text;
        };
        env.insert = [this](const QString& text) {
            inserted << text;
            journal.events << u"insert:"_s + text;
            return insertionResult;
        };
        env.apiBaseURL = [] { return u"http://127.0.0.1:8000"_s; };
        env.timings = { 300ms, 300ms, 150ms, 80ms };
        return env;
    }

    // An answer that arrives a turn of the event loop later, as a network reply would.
    static QCoro::Task<std::optional<QString>> answer(std::optional<QString> text)
    {
        co_await QCoro::sleepFor(5ms);
        co_return text;
    }

    std::shared_ptr<DictationSession> make(bool toneMode = false)
    {
        auto session = DictationSession::create(
            toneMode, [this] { ++completions; }, environment());
        made = session;
        return session;
    }

    // Starts a session and lets its stream connect.
    std::shared_ptr<DictationSession> started(bool toneMode = false)
    {
        auto session = make(toneMode);
        session->start();
        stream->resolve(std::nullopt);
        QTest::qWaitFor([this] { return capture != nullptr; });
        return session;
    }

    // The session's lambdas point into this fixture: a session still held by its
    // connect attempt must be gone before the fixture is.
    ~Fixture()
    {
        if (!made.expired())
            stream->resolve(notSignedIn());
        // Its lambdas would write into a fixture that is gone: stop here rather than later.
        if (!QTest::qWaitFor([this] { return made.expired(); }, 5000))
            qFatal("a dictation session outlived its test");
    }

    static StreamConnectFailure notSignedIn()
    {
        const TranscriptionError error(TranscriptionError::notSignedIn);
        return { error, error.errorDescription() };
    }

    int count(const QString& event) const { return int(journal.events.count(event)); }
};

Pcm16Buffer bufferOf(std::initializer_list<qint16> samples)
{
    Pcm16Buffer buffer(quint32(samples.size()));
    std::copy(samples.begin(), samples.end(), buffer.storage().begin());
    buffer.setFrameLength(quint32(samples.size()));
    return buffer;
}

} // namespace

class TestDictationSession : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void plainDictationEndToEnd()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.make();
        session->start();
        QCOMPARE(f.journal.events.first(), u"hud.show"_s);
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::dictating);
        QVERIFY(f.capture == nullptr); // nothing is captured before the stream is up
        f.stream->resolve(std::nullopt);
        QTRY_VERIFY(f.capture);
        QCOMPARE(f.count(u"capture.start"_s), 1);
        QVERIFY(f.stream->delegate() == session.get());

        session->transcriptionDidReceivePartial(u"hel"_s);
        QCOMPARE(f.hud->hudState().partialText(), u"hel"_s);
        session->transcriptionDidReceiveFinal(u"  hello"_s);
        session->transcriptionDidReceiveFinal(u"world  "_s);
        session->stop();
        QVERIFY(session->stopped());
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::cleaning);
        QCOMPARE(f.count(u"capture.stop"_s), 1);
        QTRY_COMPARE(f.count(u"stream.stop"_s), 1);

        session->transcriptionDidEnd();
        QVERIFY(session->sessionEnded());
        QTRY_COMPARE(f.inserted, QStringList { u"Cleaned text."_s });
        QCOMPARE(f.serviceCalls.size(), 1);
        QCOMPARE(f.serviceCalls[0].first, u"hello world"_s); // trimmed
        QCOMPARE(f.serviceCalls[0].second, std::nullopt);
        QCOMPARE(f.history, QStringList { u"Cleaned text."_s });

        // History, then insertion, then success: in that order and nothing between.
        const qsizetype h = f.journal.events.indexOf(u"history:Cleaned text."_s);
        QCOMPARE(f.journal.events.mid(h, 4),
            (QStringList { u"history:Cleaned text."_s, u"insert:Cleaned text."_s, u"hud.mode:success"_s,
                u"hud.showSuccess:Cleaned text."_s }));
        QCOMPARE(f.hud->hudState().mode(), HUDMode::success());
        QCOMPARE(f.completions, 0);
        QTRY_COMPARE(f.completions, 1);
        QTest::qWait(200);
        QCOMPARE(f.completions, 1);

        const QStringList lines = out.lines();
        QVERIFY(lines.contains(u"▶️ [Quillet] DictationSession.start (tone=false)"_s));
        QVERIFY(lines.contains(u"🔌 [Quillet] connecting WebSocket → ws://127.0.0.1:8000/ws/transcribe"_s));
        QVERIFY(lines.contains(u"✅ [Quillet] WebSocket connected, starting audio capture"_s));
        QVERIFY(lines.contains(u"🎤 [Quillet] audio capture started"_s));
        QVERIFY(lines.contains(u"🏁 [Quillet] transcriptionDidEnd accumulated=11 chars"_s));
        QVERIFY(lines.indexOf(u"✅ [Quillet] WebSocket connected, starting audio capture"_s)
            < lines.indexOf(u"🎤 [Quillet] audio capture started"_s));
    }

    void streamAddressFollowsTheScheme()
    {
        Fixture f;
        StdoutCapture out;
        auto env = f.environment();
        env.apiBaseURL = [] { return u"https://api.example.com"_s; };
        auto session = DictationSession::create(
            true, [] {}, env);
        f.made = session; // the fixture waits for it to go
        session->start();
        QVERIFY(out.lines().contains(u"▶️ [Quillet] DictationSession.start (tone=true)"_s));
        QVERIFY(out.lines().contains(u"🔌 [Quillet] connecting WebSocket → wss://api.example.com/ws/transcribe"_s));
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::tone);
    }

    void finalsAndPartialsAccumulate()
    {
        Fixture f;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->transcriptionDidReceivePartial(u"wor"_s);
        QCOMPARE(f.hud->hudState().partialText(), u"hello wor"_s);
        QCOMPARE(session->accumulated(), u"hello"_s); // a partial never changes it
        session->transcriptionDidReceiveFinal(u"world"_s);
        QCOMPARE(session->accumulated(), u"hello world"_s);
        QCOMPARE(f.hud->hudState().partialText(), u"hello world"_s);
    }

    void blankTranscriptIsNoSpeech()
    {
        Fixture f;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"  \n "_s);
        session->stop();
        session->transcriptionDidEnd();
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"No speech detected."_s));
        QTRY_COMPARE(f.completions, 1);
        QVERIFY(f.inserted.isEmpty());
        QVERIFY(f.history.isEmpty());
        QVERIFY(f.serviceCalls.isEmpty());
    }

    void secondEndIsIgnored()
    {
        Fixture f;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->stop();
        session->transcriptionDidEnd();
        session->transcriptionDidEnd();
        QTRY_COMPARE(f.completions, 1);
        QCOMPARE(f.serviceCalls.size(), 1);
        QCOMPARE(f.inserted.size(), 1);
    }

    void endAfterFailureIsIgnored()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->transcriptionDidFail(u"Decoder crashed"_s, u"INTERNAL"_s);
        QVERIFY(session->failed());
        session->transcriptionDidEnd();
        QVERIFY(!session->sessionEnded());
        QTRY_COMPARE(f.completions, 1);
        QVERIFY(f.serviceCalls.isEmpty());
        QVERIFY(f.inserted.isEmpty());
        QVERIFY(out.lines().contains(u"✗ [Quillet] transcriptionDidFail code=INTERNAL message=Decoder crashed"_s));
    }

    void serverErrorClosesAndShowsTheMessageAsItIs()
    {
        Fixture f;
        auto session = f.started();
        session->transcriptionDidFail(u"Token expired. Sign in again."_s, u"TOKEN_EXPIRED"_s);
        QCOMPARE(f.count(u"capture.stop"_s), 1);
        QCOMPARE(f.count(u"stream.cancel"_s), 1);
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Token expired. Sign in again."_s));
        QCOMPARE(f.completions, 0);
        QTRY_COMPARE(f.completions, 1);
        // The key comes up afterwards: no cleaning over the error, since the session has failed.
        session->stop();
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::error);
    }

    void failAfterEndShowsErrorAndCompletesOnce()
    {
        Fixture f;
        f.serviceAnswer = std::nullopt;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->stop();
        session->transcriptionDidEnd();
        QTRY_COMPARE(f.inserted.size(), 1);
        session->transcriptionDidFail(
            u"Connection closed before any response. Check backend or token."_s, u"WS_CLOSED"_s);
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::error);
        QTRY_COMPARE(f.completions, 1);
        QTest::qWait(300); // the second completion fires and finds nothing to call
        QCOMPARE(f.completions, 1);
    }

    void keyReleasedWhileConnecting()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.make();
        session->start();
        session->stop();
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::cleaning);
        QTRY_COMPARE(f.count(u"stream.stop"_s), 1); // sent to a stream that has no socket yet
        const qsizetype before = f.journal.events.size();
        f.stream->resolve(std::nullopt);
        QTRY_COMPARE(f.completions, 1); // as soon as the attempt returns
        QVERIFY(f.capture == nullptr);
        QCOMPARE(f.count(u"stream.cancel"_s), 1);
        // Said as what it is, and the close the session asked for is not reported as a failure.
        QVERIFY(
            out.lines().contains(u"🛑 [Quillet] key released before the stream connected: nothing was recorded"_s));
        QVERIFY(f.stream->delegate() == nullptr);
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::cleaning); // nothing shown after cleaning
        QVERIFY(!f.journal.events.mid(before).contains(u"hud.showError"_s));
        // The owner lets go on completion; the armed watchdog then finds nobody.
        const std::weak_ptr<DictationSession> weak = session;
        session.reset();
        QTRY_VERIFY(weak.expired());
        QTest::qWait(500);
        QCOMPARE(f.completions, 1);
        QVERIFY(f.inserted.isEmpty());
        QVERIFY(!f.journal.events.mid(before).contains(u"hud.showError"_s));
    }

    void keyReleasedAfterConnectFailureShowsCleaningOverTheError()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.make();
        session->start();
        f.stream->resolve(Fixture::notSignedIn());
        QTRY_COMPARE(f.hud->hudState().mode(), HUDMode::error(u"Sign in to Quillet to use dictation."_s));
        QVERIFY(out.lines().contains(u"✗ [Quillet] DictationSession failed: Sign in to Quillet to use dictation."_s));
        QVERIFY(!session->failed());
        session->stop();
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::cleaning);
        QTRY_COMPARE(f.completions, 1);
        QVERIFY(f.capture == nullptr);
    }

    void connectionTimesOut()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.make();
        session->start();
        QTRY_COMPARE(
            f.hud->hudState().mode(), HUDMode::error(u"Connection timed out. Check your internet connection."_s));
        QCOMPARE(f.count(u"stream.cancel"_s), 1);
        QVERIFY(out.lines().contains(
            u"✗ [Quillet] DictationSession failed: Connection timed out. Check your internet connection."_s));
        QTRY_COMPARE(f.completions, 1);
        // The late answer of the lost attempt starts nothing.
        f.stream->resolve(std::nullopt);
        QTest::qWait(50);
        QVERIFY(f.capture == nullptr);
    }

    void connectAttemptKeepsTheSessionAlive()
    {
        Fixture f;
        auto session = f.make();
        session->start();
        const std::weak_ptr<DictationSession> weak = session;
        session.reset();
        QVERIFY(!weak.expired());
        f.stream->resolve(Fixture::notSignedIn());
        QTRY_VERIFY(weak.expired());
    }

    void captureThatCannotStart()
    {
        Fixture f;
        f.captureFailure = CaptureStartFailure { CaptureError(CaptureError::converterFailed),
            CaptureError(CaptureError::converterFailed).errorDescription() };
        StdoutCapture out;
        auto session = f.started();
        QTRY_COMPARE(f.hud->hudState().mode(), HUDMode::error(u"Audio format converter could not be created."_s));
        QVERIFY(!out.lines().contains(u"🎤 [Quillet] audio capture started"_s));
        QTRY_COMPARE(f.completions, 1);
    }

    void watchdogEndsASilentBackend()
    {
        StdoutCapture out;
        Fixture f;
        auto session = f.started();
        session->stop();
        QTRY_COMPARE(f.hud->hudState().mode(), HUDMode::error(u"Transcription timed out. Try again."_s));
        // The log says so too: the capsule is gone a few seconds later.
        const QStringList lines = out.lines();
        QVERIFY(std::any_of(lines.cbegin(), lines.cend(), [](const QString& line) {
            return line.startsWith(u"✗ [Quillet] no transcript "_s) && line.endsWith(u"Transcription timed out"_s);
        }));
        QVERIFY(session->failed());
        QCOMPARE(f.count(u"stream.cancel"_s), 1);
        QTRY_COMPARE(f.completions, 1);
        session->transcriptionDidEnd(); // too late: ignored
        QVERIFY(f.inserted.isEmpty());
    }

    void watchdogHoldsTheSessionWeakly()
    {
        Fixture f;
        auto session = f.started();
        session->stop();
        const std::weak_ptr<DictationSession> weak = session;
        session.reset();
        QTRY_VERIFY(weak.expired());
        QTest::qWait(400); // the watchdog's time passes with nothing to act on
        QCOMPARE(f.completions, 0);
    }

    void watchdogStandsDownOnceTheTranscriptEnded()
    {
        Fixture f;
        f.serviceAnswer = std::nullopt;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->stop();
        session->transcriptionDidEnd();
        QTRY_COMPARE(f.completions, 1);
        QTest::qWait(400);
        QVERIFY(!f.journal.events.contains(u"hud.showError"_s));
    }

    void unreachableCleanupInsertsTheRawTranscript()
    {
        Fixture f;
        f.serviceAnswer = std::nullopt;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u" um hello there "_s);
        session->stop();
        session->transcriptionDidEnd();
        QTRY_COMPARE(f.inserted, QStringList { u"um hello there"_s });
        QCOMPARE(f.history, QStringList { u"um hello there"_s });
        QCOMPARE(f.hud->hudState().mode(), HUDMode::success());
    }

    void textLeftOnTheClipboardIsNamedOnTheCapsule()
    {
        Fixture f;
        f.insertionResult = InsertionResult::leftOnClipboard;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->stop();
        session->transcriptionDidEnd();
        QTRY_COMPARE(f.inserted, QStringList { u"Cleaned text."_s });
        QCOMPARE(f.history, QStringList { u"Cleaned text."_s });
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Not typed in: paste it, it is on the clipboard"_s));
        QVERIFY(!f.journal.events.contains(u"hud.showSuccess:Cleaned text."_s));
        QTRY_COMPARE(f.completions, 1);
    }

    void textThatWentNowhereSendsTheUserToTheHistory()
    {
        Fixture f;
        f.insertionResult = InsertionResult::notInserted;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->stop();
        session->transcriptionDidEnd();
        QTRY_COMPARE(f.history, QStringList { u"Cleaned text."_s });
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Not typed in: it is in quillet --history"_s));
        QTRY_COMPARE(f.completions, 1);
    }

    void toneModeRewritesInThePickedTone()
    {
        Fixture f;
        f.serviceAnswer = u"Ha! Hello world."_s;
        auto session = f.started(true);
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::tone);
        session->transcriptionDidReceiveFinal(u"hello world"_s);
        session->stop();
        session->transcriptionDidEnd();
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::tonePicker);
        QVERIFY(f.serviceCalls.isEmpty()); // no time limit: nothing happens until a tone is picked
        f.hud->hudState().selectTone(2);
        QCOMPARE(f.hud->hudState().mode(), HUDMode::rewriting(Tone::funny));
        QTRY_COMPARE(f.inserted, QStringList { u"Ha! Hello world."_s });
        QCOMPARE(f.serviceCalls.size(), 1);
        QCOMPARE(f.serviceCalls[0].first, u"hello world"_s);
        QCOMPARE(f.serviceCalls[0].second, std::optional<Tone>(Tone::funny));
        QCOMPARE(f.hud->hudState().mode(), HUDMode::success(Tone::funny));
        QTRY_COMPARE(f.completions, 1);
    }

    void toneModeFallsBackToTheTranscript()
    {
        Fixture f;
        f.serviceAnswer = std::nullopt;
        auto session = f.started(true);
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->stop();
        session->transcriptionDidEnd();
        f.hud->hudState().selectTone(5);
        QTRY_COMPARE(f.inserted, QStringList { u"hello"_s });
        QCOMPARE(f.hud->hudState().mode(), HUDMode::success(Tone::concise));
    }

    void tonePickedAfterTheSessionIsGoneDoesNothing()
    {
        Fixture f;
        auto session = f.started(true);
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->stop();
        session->transcriptionDidEnd();
        const HUDMode picker = f.hud->hudState().mode();
        session.reset();
        picker.toneHandler()(Tone::firm); // the capsule's handler outlived the session
        QVERIFY(f.serviceCalls.isEmpty());
    }

    void audioReachesTheStreamOnTheMainThread()
    {
        Fixture f;
        auto session = f.started();
        std::shared_ptr<AudioCaptureDelegate> delegate = f.capture->m_delegate.lock();
        QVERIFY(delegate);
        std::thread audioThread([&] { delegate->audioCaptureDidReceive(bufferOf({ 1, 2, 3 })); });
        audioThread.join();
        QCOMPARE(f.journal.audio.size(), 0); // handed over, not sent from the audio thread
        QTRY_COMPARE(f.journal.audio.size(), 1);
        QCOMPARE(f.journal.audio[0], (QList<qint16> { 1, 2, 3 }));
    }

    void buffersOnTheirWayAtStopStillGoOutBeforeTheStopMessage()
    {
        Fixture f;
        auto session = f.started();
        std::shared_ptr<AudioCaptureDelegate> delegate = f.capture->m_delegate.lock();
        delegate->audioCaptureDidReceive(bufferOf({ 7 }));
        f.capture->m_lastBuffer = bufferOf({ 8 }); // what the capture flushes at stop
        session->stop();
        QTRY_COMPARE(f.count(u"stream.stop"_s), 1);
        QStringList streamEvents;
        for (const QString& event : f.journal.events) {
            if (event.startsWith(u"stream.audio"_s) || event.startsWith(u"stream.stop"_s))
                streamEvents << event;
        }
        QCOMPARE(streamEvents, (QStringList { u"stream.audio"_s, u"stream.audio"_s, u"stream.stop"_s }));
        QCOMPARE(f.journal.audio, (QList<QList<qint16>> { { 7 }, { 8 } }));
    }

    void bufferAfterTheSessionIsGoneDoesNothing()
    {
        Fixture f;
        auto session = f.started();
        std::shared_ptr<AudioCaptureDelegate> delegate = f.capture->m_delegate.lock();
        Journal& journal = f.journal;
        session.reset();
        delegate->audioCaptureDidReceive(bufferOf({ 1 }));
        QTest::qWait(20);
        QCOMPARE(journal.audio.size(), 0);
    }

    void anAbandonedDictationEndsWithoutAWord()
    {
        Fixture f;
        auto session = f.started();
        session->stop();
        session->abandon();
        QCOMPARE(f.count(u"stream.cancel"_s), 1);
        QVERIFY(f.stream->delegate() == nullptr); // nothing the stream says reaches it any more
        const qsizetype before = f.journal.events.size();
        session->transcriptionDidEnd(); // a late end: ignored
        QTest::qWait(500); // past the watchdog and every linger
        QCOMPARE(f.completions, 0);
        QVERIFY(!f.journal.events.mid(before).contains(u"hud.showError"_s));
        QVERIFY(f.serviceCalls.isEmpty());
    }

    // The backend dies while the key is held, after showing words: they go to the history.
    void streamThatDiesAfterPartialsKeepsThemInTheHistory()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"the quick brown fox"_s);
        session->transcriptionDidReceivePartial(u"runs away into"_s);
        session->transcriptionDidEnd(); // the socket closed, no stop was sent
        QCOMPARE(f.history, QStringList { u"the quick brown fox runs away into"_s });
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Connection lost. Your words are in the history."_s));
        QCOMPARE(f.count(u"capture.stop"_s), 1);
        QVERIFY(f.inserted.isEmpty());
        QVERIFY(f.serviceCalls.isEmpty());
        QVERIFY(out.lines().contains(u"✗ [Quillet] the stream ended while the key was still held"_s));
        session->stop(); // the key comes up later: the message stays
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::error);
        QTRY_COMPARE(f.completions, 1);
        QTest::qWait(400); // past the watchdog: nothing replaces the message
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Connection lost. Your words are in the history."_s));
        QCOMPARE(f.history.size(), 1);
    }

    void streamThatDiesAfterTheReleaseWithOnlyPartialsKeepsThem()
    {
        Fixture f;
        auto session = f.started();
        session->transcriptionDidReceivePartial(u"the quick"_s);
        session->transcriptionDidReceivePartial(u"the quick brown fox"_s);
        session->stop();
        session->transcriptionDidEnd();
        QCOMPARE(f.history, QStringList { u"the quick brown fox"_s });
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Connection lost. Your words are in the history."_s));
        QVERIFY(f.inserted.isEmpty());
    }

    void streamThatDiesBeforeAnyWordSaysSo()
    {
        Fixture f;
        auto session = f.started();
        session->transcriptionDidEnd();
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Connection to the transcription server lost."_s));
        QVERIFY(f.history.isEmpty());
    }

    void serverErrorAfterWordsKeepsThemInTheHistory()
    {
        Fixture f;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        session->transcriptionDidReceivePartial(u"there"_s);
        session->transcriptionDidFail(u"Decoder crashed"_s, u"INTERNAL"_s);
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Decoder crashed"_s));
        QCOMPARE(f.history, QStringList { u"hello there"_s });
    }

    // The final arrived but the socket never closed: the watchdog goes on with it.
    void watchdogInsertsTheReceivedFinal()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello world"_s);
        session->stop();
        QTRY_COMPARE(f.inserted, QStringList { u"Cleaned text."_s });
        QCOMPARE(f.serviceCalls.size(), 1);
        QCOMPARE(f.serviceCalls[0].first, u"hello world"_s);
        QCOMPARE(f.history, QStringList { u"Cleaned text."_s });
        QCOMPARE(f.hud->hudState().mode(), HUDMode::success());
        QVERIFY(!f.journal.events.contains(u"hud.showError"_s));
        QCOMPARE(f.count(u"stream.cancel"_s), 1);
        QVERIFY(out.lines().contains(
            u"⚠️ [Quillet] no end of transcript 0.3 s after the key was released: going on with the 11 chars received"_s));
        QTRY_COMPARE(f.completions, 1);
        session->transcriptionDidEnd(); // the late close: ignored
        QTest::qWait(50);
        QCOMPARE(f.inserted.size(), 1);
    }

    // The microphone goes away mid-dictation: the capsule says so, what was heard is kept.
    void microphoneLostKeepsWhatWasHeard()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello there"_s);
        std::shared_ptr<AudioCaptureDelegate> delegate = f.capture->m_delegate.lock();
        std::thread audioThread([&] { delegate->audioCaptureWasLost(u"the microphone's source went away"_s); });
        audioThread.join();
        QTRY_COMPARE(f.hud->hudState().mode(), HUDMode::error(u"Microphone lost. Check the sound settings."_s));
        QCOMPARE(f.count(u"capture.stop"_s), 1);
        QTRY_COMPARE(f.count(u"stream.stop"_s), 1); // the backend finishes what it heard
        QVERIFY(out.lines().contains(u"✗ [Quillet] audio capture lost: the microphone's source went away"_s));

        session->transcriptionDidReceiveFinal(u"general"_s);
        session->transcriptionDidEnd();
        QCOMPARE(f.history, QStringList { u"hello there general"_s });
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Microphone lost. Your words are in the history."_s));
        QVERIFY(f.inserted.isEmpty()); // never reported as a success
        QVERIFY(!f.journal.events.contains(u"hud.showSuccess:hello there general"_s));

        session->stop(); // the key comes up: nothing more is sent, the message stays
        QTest::qWait(20);
        QCOMPARE(f.count(u"stream.stop"_s), 1);
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::error);
        QTRY_COMPARE(f.completions, 1);
    }

    void microphoneLostWithABackendThatNeverClosesStillKeepsTheWords()
    {
        Fixture f;
        auto session = f.started();
        session->transcriptionDidReceiveFinal(u"hello"_s);
        f.capture->m_delegate.lock()->audioCaptureWasLost(u"the sound server went away"_s);
        QTRY_COMPARE(f.history, QStringList { u"hello"_s }); // after the watchdog
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Microphone lost. Your words are in the history."_s));
        QVERIFY(f.inserted.isEmpty());
        QTRY_COMPARE(f.completions, 1);
    }

    void microphoneLostBeforeAnyWordStaysTheMessage()
    {
        Fixture f;
        auto session = f.started();
        f.capture->m_delegate.lock()->audioCaptureWasLost(u"the sound server went away"_s);
        QTRY_COMPARE(f.hud->hudState().mode(), HUDMode::error(u"Microphone lost. Check the sound settings."_s));
        QTRY_COMPARE(f.completions, 1); // the watchdog ends it, without a message of its own
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Microphone lost. Check the sound settings."_s));
        QVERIFY(f.history.isEmpty());
    }

    // Tone mode: the words are in the history before the tone is asked for.
    void toneModeKeepsTheTranscriptBeforeThePick()
    {
        Fixture f;
        f.serviceAnswer = u"Hello, world!"_s;
        auto session = f.started(true);
        session->transcriptionDidReceiveFinal(u"hello world"_s);
        session->stop();
        session->transcriptionDidEnd();
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::tonePicker);
        QCOMPARE(f.history, QStringList { u"hello world"_s });
        QVERIFY(session->awaitingTone());
        f.hud->hudState().selectTone(0);
        QTRY_COMPARE(f.inserted, QStringList { u"Hello, world!"_s });
        QCOMPARE(f.history, (QStringList { u"hello world"_s, u"Hello, world!"_s }));
    }

    void tonePickerCanBeClosed()
    {
        Fixture f;
        StdoutCapture out;
        auto session = f.started(true);
        session->transcriptionDidReceiveFinal(u"hello world"_s);
        session->stop();
        session->transcriptionDidEnd();
        QVERIFY(f.hud->hudState().canDismissTonePicker());
        f.hud->hudState().dismissTonePicker();
        QVERIFY(!session->awaitingTone());
        QCOMPARE(f.count(u"hud.dismiss"_s), 1);
        QTRY_COMPARE(f.completions, 1);
        QVERIFY(f.inserted.isEmpty());
        QVERIFY(f.serviceCalls.isEmpty());
        QCOMPARE(f.history, QStringList { u"hello world"_s });
        QVERIFY(out.lines().contains(
            u"🛑 [Quillet] tone picker closed: nothing inserted, the transcript is in the history"_s));
        f.hud->hudState().selectTone(1); // too late: the picker is gone
        QTest::qWait(20);
        QVERIFY(f.serviceCalls.isEmpty());
    }

    void keyPressedAgainSkipsTheToneAndInsertsTheCleanedText()
    {
        Fixture f;
        auto session = f.started(true);
        session->transcriptionDidReceiveFinal(u"hello world"_s);
        session->stop();
        session->transcriptionDidEnd();
        session->skipTone();
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::cleaning);
        QTRY_COMPARE(f.inserted, QStringList { u"Cleaned text."_s });
        QCOMPARE(f.serviceCalls.size(), 1);
        QCOMPARE(f.serviceCalls[0].second, std::nullopt); // a clean-up, not a rewrite
        QCOMPARE(f.history, (QStringList { u"hello world"_s, u"Cleaned text."_s }));
        QCOMPARE(f.hud->hudState().mode(), HUDMode::success());
        session->stop(); // the key's release changes nothing
        QCOMPARE(f.hud->hudState().mode(), HUDMode::success());
        QTRY_COMPARE(f.completions, 1);
    }

    // No sound server: its message stays on the capsule; the stream's close adds nothing.
    void captureFailureStaysOnTheCapsule()
    {
        Fixture f;
        f.captureFailure
            = CaptureStartFailure { std::nullopt, u"Cannot reach the sound server: Connection refused."_s };
        StdoutCapture out;
        auto session = f.started();
        QTRY_COMPARE(f.hud->hudState().mode(), HUDMode::error(u"Cannot reach the sound server: Connection refused."_s));
        QCOMPARE(f.count(u"stream.cancel"_s), 1); // nothing left to stream
        session->stop();
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::error); // no cleaning over it
        session->transcriptionDidFail(
            u"Connection closed before any response. Check backend or token."_s, u"WS_CLOSED"_s);
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Cannot reach the sound server: Connection refused."_s));
        QTest::qWait(400); // past the watchdog's time too
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Cannot reach the sound server: Connection refused."_s));
        QCOMPARE(f.completions, 1);
    }

    void laterFailureDoesNotReplaceTheFirst()
    {
        Fixture f;
        auto session = f.started();
        session->stop();
        QTRY_COMPARE(f.hud->hudState().mode(), HUDMode::error(u"Transcription timed out. Try again."_s));
        session->transcriptionDidFail(
            u"Connection closed before any response. Check backend or token."_s, u"WS_CLOSED"_s);
        QCOMPARE(f.hud->hudState().mode(), HUDMode::error(u"Transcription timed out. Try again."_s));
    }

    // The first tap of a double tap is given up while it still connects: its capsule goes,
    // and its connection timing out later shows nothing.
    void anAbandonedConnectingDictationHidesItsCapsuleAndStaysQuiet()
    {
        Fixture f;
        auto session = f.make();
        session->start();
        session->stop();
        session->abandon();
        QCOMPARE(f.count(u"hud.dismiss"_s), 1);
        QCOMPARE(f.count(u"stream.cancel"_s), 1);
        QTest::qWait(500); // past the 300 ms connection timeout
        QVERIFY(!f.journal.events.contains(u"hud.showError"_s));
        QCOMPARE(f.hud->hudState().kind(), HUDMode::Kind::cleaning);
        // The attempt returning at last (its cancellation) ends the session without a word.
        const std::weak_ptr<DictationSession> weak = session;
        session.reset();
        f.stream->resolve(StreamConnectFailure { std::nullopt, u"The dictation was cancelled."_s });
        QTRY_VERIFY(weak.expired());
        QVERIFY(!f.journal.events.contains(u"hud.showError"_s));
        QCOMPARE(f.completions, 0);
    }

    void captureErrorOnlyShowsTheMessage()
    {
        Fixture f;
        auto session = f.started();
        std::shared_ptr<AudioCaptureDelegate> delegate = f.capture->m_delegate.lock();
        delegate->audioCaptureDidFail(u"The audio could not be converted."_s);
        QTRY_COMPARE(f.hud->hudState().mode(), HUDMode::error(u"The audio could not be converted."_s));
        QVERIFY(!session->failed());
        QTest::qWait(300);
        QCOMPARE(f.completions, 0); // the session ends by the key, as usual
        QCOMPARE(f.count(u"capture.stop"_s), 0);
        session->transcriptionDidReceiveFinal(u"still here"_s);
        session->stop();
        session->transcriptionDidEnd();
        QTRY_COMPARE(f.inserted.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestDictationSession)
#include "tst_dictationsession.moc"
