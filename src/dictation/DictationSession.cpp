#include "dictation/DictationSession.h"

#include "services/Log.h"
#include "ui/HUDState.h"

#include <QCoreApplication>
#include <QPointer>
#include <QTimer>

#include <QCoroSignal>

#include <utility>

using namespace Qt::StringLiterals;

// The capture's delegate. The capture holds it weakly and calls it on the audio
// thread; it only posts the work to the main thread, where the session, if it still
// exists, sends the buffer. Buffers already on their way when stop() ran still go out.
class DictationSession::CaptureForwarder final : public AudioCaptureDelegate
{
public:
    explicit CaptureForwarder(DictationSession* session)
        : m_session(session)
    { }

    void audioCaptureDidReceive(Pcm16Buffer pcmBuffer) override
    {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [session = m_session, buffer = std::move(pcmBuffer)] {
                if (session)
                    session->forwardAudio(buffer);
            },
            Qt::QueuedConnection);
    }

    void audioCaptureDidFail(const QString& error) override
    {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [session = m_session, error] {
                if (session)
                    session->forwardCaptureError(error);
            },
            Qt::QueuedConnection);
    }

    void audioCaptureWasLost(const QString& reason) override
    {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [session = m_session, reason] {
                if (session)
                    session->captureLost(reason);
            },
            Qt::QueuedConnection);
    }

private:
    // Written once on the main thread before the capture starts; only copied afterwards.
    const QPointer<DictationSession> m_session;
};

namespace {

// The first of the connect attempt and the connection timer to finish decides.
class ConnectRace : public QObject
{
    Q_OBJECT
public:
    void settle(std::optional<StreamConnectFailure> failure)
    {
        if (m_outcome)
            return;
        m_outcome = std::move(failure);
        Q_EMIT settled();
    }
    bool isSettled() const { return m_outcome.has_value(); }
    const std::optional<StreamConnectFailure>& failure() const { return *m_outcome; }

Q_SIGNALS:
    void settled();

private:
    std::optional<std::optional<StreamConnectFailure>> m_outcome;
};

const QString connectionLostWithWords = u"Connection lost. Your words are in the history."_s;
const QString connectionLost = u"Connection to the transcription server lost."_s;
const QString microphoneLostWithWords = u"Microphone lost. Your words are in the history."_s;
const QString microphoneLost = u"Microphone lost. Check the sound settings."_s;

StreamConnectFailure connectionTimedOut()
{
    const TranscriptionError error(TranscriptionError::connectionTimeout);
    return { error, error.errorDescription() };
}

} // namespace

std::shared_ptr<DictationSession> DictationSession::create(
    bool toneMode, std::function<void()> onCompleted, DictationEnvironment environment)
{
    return std::shared_ptr<DictationSession>(
        new DictationSession(toneMode, std::move(onCompleted), std::move(environment)));
}

DictationSession::DictationSession(bool toneMode, std::function<void()> onCompleted, DictationEnvironment environment)
    : m_environment(std::move(environment))
    , m_toneMode(toneMode)
    , m_transcriptionService(m_environment.makeStream())
    , m_hud(m_environment.makeHUD())
    , m_onCompleted(std::move(onCompleted))
    , m_captureForwarder(std::make_shared<CaptureForwarder>(this))
{ }

DictationSession::~DictationSession()
{
    // No buffer may be converted for a session that is gone; the forwarder would drop it anyway.
    if (m_audioCapture)
        m_audioCapture->stop();
}

void DictationSession::start()
{
    Log::write(Log::Symbol::Start, u"DictationSession.start (tone=%1)"_s.arg(m_toneMode ? u"true"_s : u"false"_s));
    m_hud->show(m_toneMode ? HUDMode::tone() : HUDMode::dictating());
    m_transcriptionService->setDelegate(this, this);
    connectAndCapture(shared_from_this());
}

QCoro::Task<> DictationSession::connectAndCapture(std::shared_ptr<DictationSession> self)
{
    Log::write(Log::Symbol::Connecting,
        u"connecting WebSocket → "_s + TranscriptionService::streamAddress(self->m_environment.apiBaseURL()));

    auto race = std::make_shared<ConnectRace>();
    QTimer::singleShot(self->m_environment.timings.connectionTimeout, race.get(),
        [race = race.get()] { race->settle(connectionTimedOut()); });
    // The attempt keeps the session alive until it returns, even when the timer has won.
    [](std::shared_ptr<DictationSession> session, std::shared_ptr<ConnectRace> race) -> QCoro::Task<> {
        std::optional<StreamConnectFailure> failure = co_await session->m_transcriptionService->connect();
        race->settle(std::move(failure));
    }(self, race);
    if (!race->isSettled())
        co_await qCoro(race.get(), &ConnectRace::settled);

    std::optional<StreamConnectFailure> failure = race->failure();
    if (self->m_abandoned) {
        // Given up by its owner: the capsule has gone, and nothing more is shown.
        self->closeStream();
        co_return;
    }
    if (failure && failure->error == TranscriptionError(TranscriptionError::connectionTimeout)) {
        // The attempt lost the race: end it, so a late connection does not stay open.
        self->m_transcriptionService->cancel();
    }
    if (failure) {
        self->showFailure(failure->description);
        co_return;
    }

    if (self->m_stopped) {
        // The key came up while connecting: nothing was said, nothing is shown. The stream's
        // own end is of no interest any more: it would only report a close we asked for.
        Log::write(Log::Symbol::Stop, u"key released before the stream connected: nothing was recorded"_s);
        self->m_transcriptionService->setDelegate(nullptr, nullptr);
        self->closeStream();
        if (self->m_onCompleted)
            std::exchange(self->m_onCompleted, nullptr)();
        co_return;
    }

    Log::write(Log::Symbol::Success, u"WebSocket connected, starting audio capture"_s);
    self->m_audioCapture = self->m_environment.makeCapture();
    self->m_audioCapture->setDelegate(self->m_captureForwarder);
    if (const std::optional<CaptureStartFailure> captureFailure = self->m_audioCapture->start()) {
        // Without a microphone the open stream has nothing to do; its close must not put
        // a backend message over the one that says what is wrong.
        self->m_failed = true;
        self->closeStream();
        self->showFailure(captureFailure->description);
        co_return;
    }
    Log::write(Log::Symbol::Capture, u"audio capture started"_s);
}

void DictationSession::showFailure(const QString& description)
{
    // Deliberately neither sets `failed` nor looks at `stopped`: a key released after
    // this still switches the capsule to cleaning, and the completion below still fires.
    Log::write(Log::Symbol::Failure, u"DictationSession failed: "_s + description);
    m_hud->showError(description);
    completeAfter(m_environment.timings.errorLinger);
}

void DictationSession::stop()
{
    if (m_stopped)
        return; // a second release (after the key skipped the tone picker) changes nothing
    m_stopped = true;
    if (m_audioCapture)
        m_audioCapture->stop();
    // Queued behind the last buffers the capture handed over, so the stop message follows
    // them. After a lost microphone it went out already.
    if (!m_captureLost) {
        QMetaObject::invokeMethod(
            this, [this] { m_transcriptionService->stop(); }, Qt::QueuedConnection);
    }
    if (m_failed || m_captureLost || m_sessionEnded)
        return;
    m_hud->hudState().setMode(HUDMode::cleaning());
    armWatchdog();
}

void DictationSession::armWatchdog()
{
    QTimer::singleShot(m_environment.timings.transcriptionTimeout, this, [this] {
        if (m_sessionEnded || m_failed)
            return;
        if (m_captureLost) {
            // The capsule says the microphone went; what the backend sent is kept.
            keepWhatWasHeard(microphoneLostWithWords, microphoneLost);
            return;
        }
        const QString heard = heardSoFar();
        if (heard.isEmpty()) {
            Log::write(Log::Symbol::Failure,
                u"no transcript %1 s after the key was released: Transcription timed out"_s.arg(
                    m_environment.timings.transcriptionTimeout.count() / 1000.0));
            m_failed = true;
            closeStream();
            m_hud->showError(u"Transcription timed out. Try again."_s);
            completeAfter(m_environment.timings.errorLinger);
            return;
        }
        // The backend answered but never closed: what it sent is the transcript.
        Log::write(Log::Symbol::Warning,
            u"no end of transcript %1 s after the key was released: going on with the %2 chars received"_s
                .arg(m_environment.timings.transcriptionTimeout.count() / 1000.0)
                .arg(heard.size()));
        m_sessionEnded = true;
        m_transcriptionService->setDelegate(nullptr, nullptr);
        closeStream();
        proceedWith(heard);
    });
}

void DictationSession::abandon()
{
    m_abandoned = true;
    m_failed = true; // the watchdog and a late end of transcript stand down
    m_awaitingTone = false;
    m_onCompleted = nullptr;
    m_transcriptionService->setDelegate(nullptr, nullptr);
    if (m_audioCapture)
        m_audioCapture->stop();
    closeStream();
    m_hud->dismiss();
}

void DictationSession::transcriptionDidReceivePartial(const QString& text)
{
    m_pendingPartial = text;
    m_hud->hudState().setPartialText(m_accumulated.isEmpty() ? text : m_accumulated + u' ' + text);
}

void DictationSession::transcriptionDidReceiveFinal(const QString& text)
{
    m_pendingPartial.clear();
    if (!m_accumulated.isEmpty())
        m_accumulated += u' ';
    m_accumulated += text;
    m_hud->hudState().setPartialText(m_accumulated);
}

QString DictationSession::heardSoFar() const
{
    const QString partial = m_pendingPartial.trimmed();
    if (partial.isEmpty())
        return m_accumulated.trimmed();
    return (m_accumulated + u' ' + partial).trimmed();
}

void DictationSession::keepInHistory(const QString& text)
{
    if (text.isEmpty() || text == m_keptInHistory)
        return;
    m_keptInHistory = text;
    m_environment.addToHistory(text);
}

void DictationSession::keepWhatWasHeard(const QString& withWords, const QString& withoutWords)
{
    m_sessionEnded = true;
    m_failed = true;
    m_awaitingTone = false;
    if (m_audioCapture)
        m_audioCapture->stop();
    m_transcriptionService->setDelegate(nullptr, nullptr);
    closeStream();
    const QString heard = heardSoFar();
    if (!heard.isEmpty()) {
        keepInHistory(heard);
        Log::write(Log::Symbol::Warning,
            u"the transcript was not completed: the %1 chars heard are kept in the history"_s.arg(heard.size()));
    }
    m_hud->showError(heard.isEmpty() ? withoutWords : withWords);
    completeAfter(m_environment.timings.errorLinger);
}

void DictationSession::captureLost(const QString& reason)
{
    Log::write(Log::Symbol::Failure, u"audio capture lost: "_s + reason);
    if (m_failed || m_sessionEnded || m_captureLost)
        return;
    m_captureLost = true;
    if (m_audioCapture)
        m_audioCapture->stop();
    m_hud->showError(microphoneLost);
    if (m_stopped)
        return; // the backend was asked to finish already, and the watchdog runs
    // Ask the backend to finish what it heard before the microphone went away.
    QMetaObject::invokeMethod(
        this, [this] { m_transcriptionService->stop(); }, Qt::QueuedConnection);
    armWatchdog();
}

void DictationSession::transcriptionDidEnd()
{
    if (m_sessionEnded || m_failed)
        return;
    if (m_captureLost) {
        keepWhatWasHeard(microphoneLostWithWords, microphoneLost);
        return;
    }
    // The backend closes the stream after the stop message; a close while the key is still
    // held, or with words shown that no final confirmed, is a stream that died.
    if (!m_stopped || (m_accumulated.trimmed().isEmpty() && !m_pendingPartial.trimmed().isEmpty())) {
        Log::write(Log::Symbol::Failure,
            m_stopped ? u"the stream ended with words no final confirmed"_s
                      : u"the stream ended while the key was still held"_s);
        keepWhatWasHeard(connectionLostWithWords, connectionLost);
        return;
    }
    m_sessionEnded = true;
    const QString transcript = m_accumulated.trimmed();
    Log::write(Log::Symbol::EndOfTranscript, u"transcriptionDidEnd accumulated=%1 chars"_s.arg(transcript.size()));

    if (transcript.isEmpty()) {
        m_hud->showError(u"No speech detected."_s);
        completeAfter(m_environment.timings.errorLinger);
        return;
    }
    proceedWith(transcript);
}

void DictationSession::proceedWith(const QString& transcript)
{
    if (!m_toneMode) {
        cleanUpAndInsert(shared_from_this(), transcript);
        return;
    }
    // The choice may never come: the words are kept before the picker asks for it.
    keepInHistory(transcript);
    m_awaitingTone = true;
    const std::weak_ptr<DictationSession> weakSelf = weak_from_this();
    m_hud->hudState().setMode(HUDMode::tonePicker(
        [weakSelf, transcript](Tone tone) {
            const std::shared_ptr<DictationSession> self = weakSelf.lock();
            if (!self || !self->m_awaitingTone)
                return;
            self->m_awaitingTone = false;
            self->m_hud->hudState().setMode(HUDMode::rewriting(tone));
            rewriteAndInsert(self, transcript, tone);
        },
        [weakSelf] {
            if (const std::shared_ptr<DictationSession> self = weakSelf.lock())
                self->dismissTonePicker();
        }));
}

void DictationSession::skipTone()
{
    if (!m_awaitingTone)
        return;
    m_awaitingTone = false;
    Log::write(Log::Symbol::Key, u"tone picker skipped by the key: inserting the cleaned-up text"_s);
    m_hud->hudState().setMode(HUDMode::cleaning());
    cleanUpAndInsert(shared_from_this(), m_keptInHistory);
}

void DictationSession::dismissTonePicker()
{
    if (!m_awaitingTone)
        return;
    m_awaitingTone = false;
    Log::write(Log::Symbol::Stop, u"tone picker closed: nothing inserted, the transcript is in the history"_s);
    m_hud->dismiss();
    completeAfter(std::chrono::milliseconds(0));
}

void DictationSession::transcriptionDidFail(const QString& message, const QString& code)
{
    Log::write(Log::Symbol::Failure, u"transcriptionDidFail code=%1 message=%2"_s.arg(code, message));
    if (m_failed) {
        // The first failure is on the capsule already and says what went wrong first.
        Log::writeContinuation(u"not shown: an earlier failure is on the capsule");
        return;
    }
    m_failed = true;
    if (m_audioCapture)
        m_audioCapture->stop();
    closeStream();
    // Whatever the capsule showed before the failure is the user's: keep it.
    if (!m_sessionEnded)
        keepInHistory(heardSoFar());
    m_hud->showError(message);
    completeAfter(m_environment.timings.errorLinger);
}

QCoro::Task<> DictationSession::cleanUpAndInsert(std::shared_ptr<DictationSession> self, QString text)
{
    const std::optional<QString> cleaned = co_await self->m_environment.cleanup(text);
    self->finish(cleaned.value_or(text), std::nullopt);
}

QCoro::Task<> DictationSession::rewriteAndInsert(std::shared_ptr<DictationSession> self, QString text, Tone tone)
{
    const std::optional<QString> rewritten = co_await self->m_environment.rewrite(text, tone);
    self->finish(rewritten.value_or(text), tone);
}

void DictationSession::finish(const QString& text, std::optional<Tone> tone)
{
    // The history first: should the insertion bring the program down, the text is not lost.
    keepInHistory(text);
    switch (m_environment.insert(text)) {
    case InsertionResult::inserted:
    case InsertionResult::pasted:
        m_hud->showSuccess(text, tone);
        break;
    case InsertionResult::leftOnClipboard:
        // Not a failure of the dictation: the user pastes it where it was meant to go.
        m_hud->showError(u"Not typed in: paste it, it is on the clipboard"_s);
        break;
    case InsertionResult::notInserted:
        m_hud->showError(u"Not typed in: it is in quillet --history"_s);
        break;
    }
    completeAfter(m_environment.timings.successLinger);
}

void DictationSession::closeStream()
{
    m_transcriptionService->cancel();
}

void DictationSession::completeAfter(std::chrono::milliseconds delay)
{
    QTimer::singleShot(delay, this, [this] {
        if (m_onCompleted)
            std::exchange(m_onCompleted, nullptr)();
    });
}

void DictationSession::forwardAudio(const Pcm16Buffer& buffer)
{
    m_transcriptionService->sendAudio(buffer.samples());
}

void DictationSession::forwardCaptureError(const QString& error)
{
    m_hud->showError(error);
}

#include "DictationSession.moc"
