#pragma once

#include "platform/AudioInput.h"

#include <memory>
#include <optional>
#include <variant>
#include <vector>

// What a FakeAudioInput was asked to do, and what it answers. Outlives the inputs
// that the manager makes and destroys, so a test can look afterwards.
struct FakeAudioInputRecord {
    int created = 0;
    int destroyed = 0;
    int formatReads = 0;
    int starts = 0;
    int stops = 0;
    quint32 framesPerBuffer = 0;
    bool running = false;

    std::variant<AudioFormat, AudioInputFailure> format = AudioFormat { 48000, 2 };
    std::optional<AudioInputFailure> startFailure;

    // The last handler given to start(), kept after stop() so a test can play an
    // input that delivers late.
    AudioInput::BufferHandler handler;

    // What the input still holds when it is stopped (interleaved, in the format's
    // channels): handed to the handler from stop(), as a real input does.
    std::vector<float> rest;
    int restDeliveries = 0;
};

// An audio input that captures nothing by itself: the test delivers the buffers.
class FakeAudioInput final : public AudioInput
{
public:
    explicit FakeAudioInput(std::shared_ptr<FakeAudioInputRecord> record)
        : m_record(std::move(record))
    {
        ++m_record->created;
    }
    ~FakeAudioInput() override
    {
        ++m_record->destroyed;
        m_record->running = false;
    }

    std::variant<AudioFormat, AudioInputFailure> inputFormat() override
    {
        ++m_record->formatReads;
        return m_record->format;
    }
    std::optional<AudioInputFailure> start(quint32 framesPerBuffer, BufferHandler handler) override
    {
        ++m_record->starts;
        m_record->framesPerBuffer = framesPerBuffer;
        if (m_record->startFailure)
            return m_record->startFailure;
        m_record->handler = std::move(handler);
        m_record->running = true;
        return std::nullopt;
    }
    void stop() override
    {
        ++m_record->stops;
        if (m_record->running && !m_record->rest.empty()) {
            const auto* format = std::get_if<AudioFormat>(&m_record->format);
            const auto channels = size_t(format ? format->channelCount : 1);
            ++m_record->restDeliveries;
            m_record->handler(AudioFrames { m_record->rest, quint32(m_record->rest.size() / channels) });
        }
        m_record->running = false;
    }

private:
    std::shared_ptr<FakeAudioInputRecord> m_record;
};
