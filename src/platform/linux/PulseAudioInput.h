#pragma once

#include "platform/AudioInput.h"

#include <QByteArray>

#include <pulse/channelmap.h>
#include <pulse/sample.h>

#include <functional>
#include <vector>

struct pa_context;
struct pa_operation;
struct pa_stream;
struct pa_threaded_mainloop;

// The sound server's default source through libpulse, which PipeWire also speaks.
// We ask the server which source is the default (rather than asking Qt, whose
// Multimedia module picks the first source it lists) and record from it at its own
// rate and channel count, so the server has no resampling of its own to do.
// Callbacks run on libpulse's threaded main loop, with its lock held.
class PulseAudioInput final : public AudioInput
{
public:
    explicit PulseAudioInput(int timeoutMs);
    ~PulseAudioInput() override;
    PulseAudioInput(const PulseAudioInput&) = delete;
    PulseAudioInput& operator=(const PulseAudioInput&) = delete;

    std::variant<AudioFormat, AudioInputFailure> inputFormat() override;
    std::optional<AudioInputFailure> start(quint32 framesPerBuffer, BufferHandler handler) override;
    void stop() override;
    void setLossHandler(LossHandler handler) override { m_lossHandler = std::move(handler); }

    // The name of the source inputFormat() found, for diagnostics and tests.
    QByteArray sourceName() const { return m_sourceName; }

private:
    std::optional<AudioInputFailure> connectToServer();
    std::optional<AudioInputFailure> findDefaultSource();
    // Waits, with the loop's lock held, until done() is true or the time is up.
    bool waitUntil(const std::function<bool()>& done);
    bool waitFor(pa_operation* operation);
    AudioInputFailure serverFailure(const QString& sentence) const;
    void disconnectStream();
    void readAvailable();
    // Hands the handler what the stream has already captured: what is readable now
    // and the partly filled buffer.
    void deliverRest();
    void deliver(size_t samples);

    static void onContextState(pa_context* context, void* self);
    static void onStreamState(pa_stream* stream, void* self);
    static void onStreamRead(pa_stream* stream, size_t bytes, void* self);

    int m_timeoutMs;
    pa_threaded_mainloop* m_loop = nullptr;
    pa_context* m_context = nullptr;
    pa_stream* m_stream = nullptr;
    bool m_timedOut = false;
    bool m_haveFormat = false;
    bool m_delivering = false;

    QByteArray m_sourceName;
    pa_sample_spec m_sourceSpec {};
    pa_channel_map m_sourceMap {};

    // The stream or the server went away while we were recording: tell the owner once.
    void reportLoss(const QString& reason);

    BufferHandler m_handler;
    LossHandler m_lossHandler;
    bool m_recording = false;
    std::vector<float> m_pending;
    size_t m_pendingSamples = 0;
};
