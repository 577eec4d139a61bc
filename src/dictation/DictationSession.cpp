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
    if (failure && failure->error == TranscriptionError(TranscriptionError::connectionTimeout)) {
        // The attempt lost the race: end it, so a late connection does not stay open.
        self->m_transcriptionService->cancel();
    }
    if (failure) {
        self->showFailure(failure->description);
        co_return;
    }

    if (self->m_stopped) {
        // The key came up while connecting: nothing was said, nothing is shown.
        self->closeStream();
        if (self->m_onCompleted)
            std::exchange(self->m_onCompleted, nullptr)();
        co_return;
    }

    Log::write(Log::Symbol::Success, u"WebSocket connected, starting audio capture"_s);
    self->m_audioCapture = self->m_environment.makeCapture();
    self->m_audioCapture->setDelegate(self->m_captureForwarder);
    if (const std::optional<CaptureStartFailure> captureFailure = self->m_audioCapture->start()) {
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
    m_stopped = true;
    if (m_audioCapture)
        m_audioCapture->stop();
    // Queued behind the last buffers the capture handed over, so the stop message follows them.
    QMetaObject::invokeMethod(
        this, [this] { m_transcriptionService->stop(); }, Qt::QueuedConnection);
    if (m_failed)
        return;
    m_hud->hudState().setMode(HUDMode::cleaning());
    QTimer::singleShot(m_environment.timings.transcriptionTimeout, this, [this] {
        if (m_sessionEnded || m_failed)
            return;
        m_failed = true;
        closeStream();
        m_hud->showError(u"Transcription timed out. Try again."_s);
        completeAfter(m_environment.timings.errorLinger);
    });
}

void DictationSession::abandon()
{
    m_failed = true; // the watchdog and a late end of transcript stand down
    m_onCompleted = nullptr;
    m_transcriptionService->setDelegate(nullptr, nullptr);
    if (m_audioCapture)
        m_audioCapture->stop();
    closeStream();
}

void DictationSession::transcriptionDidReceivePartial(const QString& text)
{
    m_hud->hudState().setPartialText(m_accumulated.isEmpty() ? text : m_accumulated + u' ' + text);
}

void DictationSession::transcriptionDidReceiveFinal(const QString& text)
{
    if (!m_accumulated.isEmpty())
        m_accumulated += u' ';
    m_accumulated += text;
    m_hud->hudState().setPartialText(m_accumulated);
}

void DictationSession::transcriptionDidEnd()
{
    if (m_sessionEnded || m_failed)
        return;
    m_sessionEnded = true;
    const QString transcript = m_accumulated.trimmed();
    Log::write(Log::Symbol::EndOfTranscript, u"transcriptionDidEnd accumulated=%1 chars"_s.arg(transcript.size()));

    if (transcript.isEmpty()) {
        m_hud->showError(u"No speech detected."_s);
        completeAfter(m_environment.timings.errorLinger);
        return;
    }
    if (!m_toneMode) {
        cleanUpAndInsert(shared_from_this(), transcript);
        return;
    }
    const std::weak_ptr<DictationSession> weakSelf = weak_from_this();
    m_hud->hudState().setMode(HUDMode::tonePicker([weakSelf, transcript](Tone tone) {
        const std::shared_ptr<DictationSession> self = weakSelf.lock();
        if (!self)
            return;
        self->m_hud->hudState().setMode(HUDMode::rewriting(tone));
        rewriteAndInsert(self, transcript, tone);
    }));
}

void DictationSession::transcriptionDidFail(const QString& message, const QString& code)
{
    Log::write(Log::Symbol::Failure, u"transcriptionDidFail code=%1 message=%2"_s.arg(code, message));
    m_failed = true;
    if (m_audioCapture)
        m_audioCapture->stop();
    closeStream();
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
    m_environment.addToHistory(text);
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
