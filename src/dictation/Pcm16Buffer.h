#pragma once

#include <QtGlobal>

#include <span>
#include <vector>

// Audio in the transcription format: 16 kHz, one channel, signed 16-bit samples.
// Room for frameCapacity() frames, of which the first frameLength() hold audio.
class Pcm16Buffer
{
public:
    static constexpr double sampleRate = 16000;
    static constexpr int channelCount = 1;

    Pcm16Buffer() = default;
    explicit Pcm16Buffer(quint32 frameCapacity)
        : m_samples(frameCapacity)
    { }

    quint32 frameCapacity() const { return quint32(m_samples.size()); }
    quint32 frameLength() const { return m_frameLength; }
    // Clamped to the capacity.
    void setFrameLength(quint32 frames) { m_frameLength = frames < frameCapacity() ? frames : frameCapacity(); }

    // The frames that hold audio, ready for TranscriptionService::sendAudio().
    std::span<const qint16> samples() const { return std::span<const qint16>(m_samples).first(m_frameLength); }
    // The whole room, for whoever fills the buffer.
    std::span<qint16> storage() { return m_samples; }

private:
    std::vector<qint16> m_samples;
    quint32 m_frameLength = 0;
};
