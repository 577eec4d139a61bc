#pragma once

#include <QString>

#include <QtGlobal>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <variant>

// The native format of an audio source: samples per second and channels per frame.
// Samples always arrive as 32-bit floats in [-1, 1], channels interleaved.
struct AudioFormat {
    double sampleRate = 0;
    int channelCount = 0;
    friend bool operator==(const AudioFormat&, const AudioFormat&) = default;
};

// One captured buffer: frameLength frames, each of the format's channelCount samples.
struct AudioFrames {
    std::span<const float> samples;
    quint32 frameLength = 0;
};

// Why the sound system could not give us the microphone, in a sentence a user understands.
struct AudioInputFailure {
    QString description;
};

// The system's default microphone, as the sound server sees it when the input is
// made. One object serves one capture: read the format, start, stop, destroy.
class AudioInput
{
public:
    // Called on the input's own thread, once per buffer, never twice at the same time;
    // the last calls, from stop(), come on the thread that stops the input.
    using BufferHandler = std::function<void(const AudioFrames&)>;
    // Called at most once, on the input's own thread, when the source or the sound server
    // goes away while buffers are being delivered; no buffer follows it.
    using LossHandler = std::function<void(const AudioInputFailure&)>;

    virtual ~AudioInput() = default;

    // The default source's own rate and channel count; a failure when there is no
    // sound server or no input device.
    virtual std::variant<AudioFormat, AudioInputFailure> inputFormat() = 0;
    // Starts delivering buffers of framesPerBuffer frames in inputFormat() to handler.
    virtual std::optional<AudioInputFailure> start(quint32 framesPerBuffer, BufferHandler handler) = 0;
    // Whom to tell when the source is lost after start(); set before start(). An input that
    // cannot lose its source (a file, a test's samples) keeps the default, which ignores it.
    virtual void setLossHandler(LossHandler handler) { static_cast<void>(handler); }
    // Ends delivery. Everything captured so far that the handler has not had yet goes
    // to it first, on the calling thread, the last buffer shorter than framesPerBuffer
    // if that is all there is; on return the handler is neither running nor called
    // again. Safe twice.
    virtual void stop() = 0;
};

// The sound server's current default source; connection and start give up after
// timeoutMs rather than wait for a server that never answers.
std::unique_ptr<AudioInput> makeSystemAudioInput(int timeoutMs = 5000);
