#pragma once

#include "dictation/AudioCaptureManager.h"
#include "dictation/TextInserter.h"
#include "dictation/TranscriptionService.h"
#include "services/Tone.h"
#include "ui/HUDPresenter.h"

#include <QObject>
#include <QString>

#include <QCoroTask>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

// How long a dictation waits at each step. Tests shorten them; the program keeps these.
struct DictationTimings {
    // start() gives the stream this long to connect.
    std::chrono::milliseconds connectionTimeout { 15000 };
    // After the key is released, the end of the transcript may take this long.
    std::chrono::milliseconds transcriptionTimeout { 10000 };
    // From showing an error to telling the owner the session is over.
    std::chrono::milliseconds errorLinger { 3500 };
    // From showing success to telling the owner the session is over.
    std::chrono::milliseconds successLinger { 1500 };
};

// Everything a dictation reaches outside itself. DictationEnvironment::system() wires
// the real stream, microphone, capsule, services and inserter; tests record instead.
struct DictationEnvironment {
    std::function<std::unique_ptr<TranscriptionStream>()> makeStream;
    std::function<std::unique_ptr<AudioCapture>()> makeCapture;
    std::function<std::unique_ptr<HUDPresenter>()> makeHUD;
    // The cleaned-up text, or nothing when the service could not give one.
    std::function<QCoro::Task<std::optional<QString>>(const QString& text)> cleanup;
    // The text rewritten in the tone, or nothing.
    std::function<QCoro::Task<std::optional<QString>>(const QString& text, Tone tone)> rewrite;
    // Records the text in the history; called before insert(), so a crash there loses nothing.
    std::function<void(const QString& text)> addToHistory;
    // Puts the text at the focused application's cursor; where it went.
    std::function<InsertionResult(const QString& text)> insert;
    // The API base address, for the log line that names the stream.
    std::function<QString()> apiBaseURL;
    DictationTimings timings;

    static DictationEnvironment system();
};

// One dictation, from the key going down to the text at the cursor (or an error on
// the capsule) and the owner being told it is over. Lives on the main thread and is
// owned through a shared pointer: the connect step keeps it alive until it returns,
// while the timers, the tone picker and the audio hand-over hold it weakly and do
// nothing once it is gone.
class DictationSession : public QObject,
                         public TranscriptionDelegate,
                         public std::enable_shared_from_this<DictationSession>
{
    Q_OBJECT
public:
    static std::shared_ptr<DictationSession> create(
        bool toneMode, std::function<void()> onCompleted, DictationEnvironment environment);
    ~DictationSession() override;

    // The key went down: show the capsule and connect; the rest happens asynchronously.
    void start();
    // The key was released.
    void stop();
    // The owner gives this dictation up before it heard anything (the first tap of a double
    // tap): the stream and the capture close, the capsule goes, onCompleted is dropped.
    void abandon();
    // True while the tone picker waits for a choice.
    bool awaitingTone() const { return m_awaitingTone; }
    // The key went down again while the tone picker waits: no tone, the cleaned text is inserted.
    void skipTone();
    // The tone picker's close control: nothing is inserted; the transcript is in the history.
    void dismissTonePicker();

    void transcriptionDidReceivePartial(const QString& text) override;
    void transcriptionDidReceiveFinal(const QString& text) override;
    void transcriptionDidEnd() override;
    void transcriptionDidFail(const QString& message, const QString& code) override;

    bool toneMode() const { return m_toneMode; }
    HUDPresenter& hud() { return *m_hud; }
    const QString& accumulated() const { return m_accumulated; }
    bool failed() const { return m_failed; }
    bool stopped() const { return m_stopped; }
    bool sessionEnded() const { return m_sessionEnded; }

private:
    class CaptureForwarder;

    DictationSession(bool toneMode, std::function<void()> onCompleted, DictationEnvironment environment);

    static QCoro::Task<> connectAndCapture(std::shared_ptr<DictationSession> self);
    static QCoro::Task<> cleanUpAndInsert(std::shared_ptr<DictationSession> self, QString text);
    static QCoro::Task<> rewriteAndInsert(std::shared_ptr<DictationSession> self, QString text, Tone tone);

    void finish(const QString& text, std::optional<Tone> tone);
    void showFailure(const QString& description);
    void closeStream();
    void completeAfter(std::chrono::milliseconds delay);
    void forwardAudio(const Pcm16Buffer& buffer);
    void forwardCaptureError(const QString& error);
    void captureLost(const QString& reason);
    void armWatchdog();
    // The transcript is complete: clean up and insert, or offer the tones.
    void proceedWith(const QString& transcript);
    // The stream or the microphone gave out before the transcript was complete: what was
    // heard (finals and the last partial) goes to the history, and the capsule says so.
    void keepWhatWasHeard(const QString& withWords, const QString& withoutWords);
    // The finals and the partial after them, trimmed: everything the capsule has shown.
    QString heardSoFar() const;
    void keepInHistory(const QString& text);

    DictationEnvironment m_environment;
    const bool m_toneMode;
    std::unique_ptr<TranscriptionStream> m_transcriptionService;
    std::unique_ptr<AudioCapture> m_audioCapture;
    std::unique_ptr<HUDPresenter> m_hud;
    QString m_accumulated;
    // The last partial since the last final: shown, not yet confirmed by a final.
    QString m_pendingPartial;
    // What this dictation has written to the history, so the same text is not written twice.
    QString m_keptInHistory;
    bool m_abandoned = false;
    bool m_captureLost = false;
    bool m_awaitingTone = false;
    bool m_failed = false;
    bool m_stopped = false;
    bool m_sessionEnded = false;
    std::function<void()> m_onCompleted;

    // The capture's delegate: it holds the session weakly and hands each buffer to the main thread.
    std::shared_ptr<CaptureForwarder> m_captureForwarder;
};
