#pragma once

#include "dictation/Pcm16Buffer.h"
#include "platform/AudioInput.h"

#include <QString>

#include <memory>
#include <optional>
#include <vector>

struct soxr;

// How many frames of the transcription format one captured buffer can fill:
// frameLength × 16,000 ÷ inputSampleRate in double precision, truncated toward zero.
// Nothing when the result is not finite or does not fit in 32 unsigned bits.
std::optional<quint32> outputFrameCapacity(quint32 frameLength, double inputSampleRate);

// Turns captured float frames of one format into the transcription format with
// libsoxr at its high quality. Several channels are averaged into one first, so a
// microphone that only feeds its second channel is still heard. Keeps the
// resampler's state from buffer to buffer: feed it the buffers of one stream, in order.
// Every captured frame goes in; what does not fit in one output buffer comes out at
// the start of the next, so nothing is lost or repeated between buffers.
class AudioConverter
{
public:
    // Nothing when this format cannot be converted; the reason goes to error.
    static std::unique_ptr<AudioConverter> create(const AudioFormat& input, QString* error = nullptr);
    ~AudioConverter();
    AudioConverter(const AudioConverter&) = delete;
    AudioConverter& operator=(const AudioConverter&) = delete;

    const AudioFormat& inputFormat() const { return m_input; }
    // Converts the frames into output, up to its capacity, and sets its frame length.
    // The converter's own error text when it fails; the buffer is then not usable.
    std::optional<QString> convert(const AudioFrames& input, Pcm16Buffer& output);

private:
    AudioConverter(const AudioFormat& input, soxr* resampler);

    AudioFormat m_input;
    soxr* m_resampler;
    std::vector<float> m_mono;
    // What the resampler made for one buffer, and what of that is still owed to the
    // next output buffer.
    std::vector<qint16> m_made;
    std::vector<qint16> m_owed;
};
