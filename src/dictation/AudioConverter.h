#pragma once

#include "dictation/Pcm16Buffer.h"
#include "platform/AudioInput.h"

#include <QString>

#include <memory>
#include <optional>
#include <vector>

struct soxr;

// How many frames of the transcription format one captured buffer is given room for:
// frameLength × 16,000 ÷ inputSampleRate in double precision, rounded up. Rounded
// down, the room would be a fraction of a frame short of what the resampler makes on
// average (a third of a frame per 4,096 frames at 48 kHz), and that fraction would
// pile up inside the capture for as long as the key is held. Nothing when the result
// is not finite or does not fit in 32 unsigned bits.
std::optional<quint32> outputFrameCapacity(quint32 frameLength, double inputSampleRate);

// Turns captured float frames of one format into the transcription format with
// libsoxr at its high quality. Several channels are averaged into one first, so a
// microphone that only feeds its second channel is still heard. Keeps the
// resampler's state from buffer to buffer: feed it the buffers of one stream, in order.
// Every captured frame goes in; what does not fit in one output buffer comes out at
// the start of the next, so nothing is lost or repeated between buffers. At the end
// of the stream, finish() hands over what is still owed and what the resampler's
// filter still holds.
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
    // Converts the frames and appends everything made, and whatever was still owed
    // from earlier buffers, to output: for the last buffers of a stream, which need
    // not fit a buffer's room.
    std::optional<QString> convertAll(const AudioFrames& input, std::vector<qint16>& output);
    // Ends the stream: appends what is still owed and what the resampler's filter
    // holds back (its delay) to output. Nothing can be converted afterwards.
    std::optional<QString> finish(std::vector<qint16>& output);
    // Frames made but not yet handed out: owed to the next output buffer.
    size_t owedFrames() const { return m_owed.size(); }

private:
    AudioConverter(const AudioFormat& input, soxr* resampler);
    // Runs the frames through the resampler into m_made; how many frames it made.
    std::optional<QString> resample(const AudioFrames& input, size_t& made);

    AudioFormat m_input;
    soxr* m_resampler;
    std::vector<float> m_mono;
    // What the resampler made for one buffer, and what of that is still owed to the
    // next output buffer.
    std::vector<qint16> m_made;
    std::vector<qint16> m_owed;
    bool m_finished = false;
};
