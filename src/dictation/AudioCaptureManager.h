#pragma once

#include "dictation/Pcm16Buffer.h"
#include "platform/AudioInput.h"

#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

// What the capture reports to its owner. The calls come from the audio thread, one
// per captured buffer; a delegate hands its work to its own thread and never waits
// there for the main thread (stop() on the main thread waits for a call under way).
// The one exception is the end of the utterance: stop() itself, on the thread that
// calls it (the main thread), hands over what was captured but not yet delivered,
// with the resampler's delay, as one last shorter buffer before it returns.
class AudioCaptureDelegate
{
public:
    virtual ~AudioCaptureDelegate() = default;
    // One converted buffer: 16 kHz, one channel, signed 16-bit.
    virtual void audioCaptureDidReceive(Pcm16Buffer pcmBuffer) = 0;
    // One buffer could not be converted; the error is the converter's. Capture goes on.
    virtual void audioCaptureDidFail(const QString& error) = 0;
    // The microphone or the sound server went away: no buffer follows. Called once, on
    // the audio thread; the reason is a sentence for the log.
    virtual void audioCaptureWasLost(const QString& reason) = 0;
};

// The failure of start() that the capture itself names, with its fixed sentence.
class CaptureError
{
public:
    enum Case { converterFailed };

    explicit CaptureError(Case value)
        : m_case(value)
    { }
    Case value() const { return m_case; }
    QString errorDescription() const;
    friend bool operator==(CaptureError, CaptureError) = default;

private:
    Case m_case;
};

// Why start() failed: a CaptureError, or the sound system's own failure in words.
// description is what the user is shown in both cases.
struct CaptureStartFailure {
    std::optional<CaptureError> error;
    QString description;
};

// What a dictation asks of its microphone; AudioCaptureManager is the real one.
class AudioCapture
{
public:
    virtual ~AudioCapture() = default;
    // Held weakly; called on the audio thread.
    virtual void setDelegate(std::weak_ptr<AudioCaptureDelegate> delegate) = 0;
    // Opens the input and starts capturing; nothing on success.
    virtual std::optional<CaptureStartFailure> start() = 0;
    // Ends capturing, handing over the rest of what was captured first; no delegate
    // call is made once it returns.
    virtual void stop() = 0;
};

// Takes the system's default microphone while the hold-to-talk key is down and hands
// it on in the transcription format, one converted buffer per 4,096 captured frames.
// start() and stop() belong to the main thread; conversion and the delegate calls
// happen on the audio input's thread. One manager per dictation.
class AudioCaptureManager final : public AudioCapture
{
public:
    using InputFactory = std::function<std::unique_ptr<AudioInput>()>;

    static constexpr quint32 framesPerBuffer = 4096;

    // Captures from the sound server's default source.
    AudioCaptureManager();
    // Captures from whatever makeInput returns on each start().
    explicit AudioCaptureManager(InputFactory makeInput);
    ~AudioCaptureManager() override;
    AudioCaptureManager(const AudioCaptureManager&) = delete;
    AudioCaptureManager& operator=(const AudioCaptureManager&) = delete;

    // Held weakly: once its last owner lets go, buffers are converted and dropped.
    // Should that happen while a call is under way, the delegate dies on the audio
    // thread when the call returns; owners that mind stop the capture first.
    void setDelegate(std::weak_ptr<AudioCaptureDelegate> delegate) override;

    // Opens the default input and starts capturing; nothing on success.
    std::optional<CaptureStartFailure> start() override;
    // Ends capturing: whatever the input still holds and whatever the resampler holds
    // back reaches the delegate as one last buffer, from this thread, before it
    // returns; no delegate call is made afterwards. Safe at any time.
    void stop() override;

    // True from a successful start() until stop().
    bool isRunning() const { return m_running; }
    // The captured format from the last start() that got that far.
    std::optional<AudioFormat> inputFormat() const { return m_inputFormat; }

private:
    struct Tap;

    InputFactory m_makeInput;
    std::unique_ptr<AudioInput> m_engine;
    std::shared_ptr<Tap> m_tap;
    std::optional<AudioFormat> m_inputFormat;
    bool m_running = false;

    // Written on the main thread, read once per buffer on the audio thread.
    mutable std::mutex m_delegateMutex;
    std::weak_ptr<AudioCaptureDelegate> m_delegate;
};
