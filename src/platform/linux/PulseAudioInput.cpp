#include "platform/linux/PulseAudioInput.h"

#include <pulse/context.h>
#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/rtclock.h>
#include <pulse/stream.h>
#include <pulse/thread-mainloop.h>
#include <pulse/timeval.h>

#include <algorithm>
#include <cstring>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr pa_usec_t fragmentUsec = 10 * PA_USEC_PER_MSEC;

QString noMicrophone()
{
    return u"No microphone was found; connect one or choose one in the sound settings."_s;
}

struct DefaultSourceReply {
    bool done = false;
    QByteArray name;
};

struct SourceInfoReply {
    bool done = false;
    bool found = false;
    bool isMonitor = false;
    pa_sample_spec sampleFormat {};
    pa_channel_map map {};
};

// Lets a waiter on the loop's condition know that something it may want has happened.
struct Signaller {
    pa_threaded_mainloop* loop;
    void* reply;
};

} // namespace

PulseAudioInput::PulseAudioInput(int timeoutMs)
    : m_timeoutMs(timeoutMs)
{ }

PulseAudioInput::~PulseAudioInput()
{
    stop();
    if (!m_loop)
        return;
    pa_threaded_mainloop_lock(m_loop);
    if (m_context) {
        pa_context_set_state_callback(m_context, nullptr, nullptr);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
        m_context = nullptr;
    }
    pa_threaded_mainloop_unlock(m_loop);
    pa_threaded_mainloop_stop(m_loop);
    pa_threaded_mainloop_free(m_loop);
}

AudioInputFailure PulseAudioInput::serverFailure(const QString& sentence) const
{
    if (m_timedOut)
        return { u"The sound server did not answer in time."_s };
    const int error = m_context ? pa_context_errno(m_context) : PA_ERR_UNKNOWN;
    return { sentence.arg(QString::fromUtf8(pa_strerror(error))) };
}

bool PulseAudioInput::waitUntil(const std::function<bool()>& done)
{
    if (done())
        return true;
    m_timedOut = false;
    // A server that accepts the connection and then says nothing would otherwise
    // keep the key-down path waiting for libpulse's own 30 s reply timeout.
    pa_time_event* deadline = pa_context_rttime_new(
        m_context, pa_rtclock_now() + pa_usec_t(m_timeoutMs) * PA_USEC_PER_MSEC,
        [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* self) {
            auto* input = static_cast<PulseAudioInput*>(self);
            input->m_timedOut = true;
            pa_threaded_mainloop_signal(input->m_loop, 0);
        },
        this);
    while (!done() && !m_timedOut)
        pa_threaded_mainloop_wait(m_loop);
    if (deadline)
        pa_threaded_mainloop_get_api(m_loop)->time_free(deadline);
    return done();
}

bool PulseAudioInput::waitFor(pa_operation* operation)
{
    if (!operation)
        return false;
    const bool finished = waitUntil([operation] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; });
    if (!finished)
        pa_operation_cancel(operation);
    pa_operation_unref(operation);
    return finished;
}

void PulseAudioInput::onContextState(pa_context* context, void* self)
{
    auto* input = static_cast<PulseAudioInput*>(self);
    if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context)))
        input->reportLoss(u"the sound server went away"_s);
    pa_threaded_mainloop_signal(input->m_loop, 0);
}

void PulseAudioInput::onStreamState(pa_stream* stream, void* self)
{
    auto* input = static_cast<PulseAudioInput*>(self);
    if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream)))
        input->reportLoss(u"the microphone's source went away"_s);
    pa_threaded_mainloop_signal(input->m_loop, 0);
}

void PulseAudioInput::reportLoss(const QString& reason)
{
    // Only a recording under way has anything to lose; failures while starting are start()'s.
    if (!std::exchange(m_recording, false))
        return;
    if (m_lossHandler)
        m_lossHandler(AudioInputFailure { reason });
}

std::optional<AudioInputFailure> PulseAudioInput::connectToServer()
{
    if (m_context)
        return std::nullopt;
    m_loop = pa_threaded_mainloop_new();
    if (!m_loop)
        return AudioInputFailure { u"The sound system could not be started."_s };
    m_context = pa_context_new(pa_threaded_mainloop_get_api(m_loop), "Quillet");
    if (!m_context)
        return AudioInputFailure { u"The sound system could not be started."_s };
    pa_context_set_state_callback(m_context, &PulseAudioInput::onContextState, this);
    if (pa_threaded_mainloop_start(m_loop) < 0)
        return AudioInputFailure { u"The sound system could not be started."_s };

    pa_threaded_mainloop_lock(m_loop);
    // No autospawn: a dictation must not start a sound server behind the user's back;
    // desktops that want one running start it through their session or socket activation.
    if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        const auto failure = serverFailure(u"Cannot reach the sound server: %1."_s);
        pa_threaded_mainloop_unlock(m_loop);
        return failure;
    }
    const bool settled = waitUntil([this] {
        const pa_context_state_t state = pa_context_get_state(m_context);
        return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    });
    const bool ready = settled && pa_context_get_state(m_context) == PA_CONTEXT_READY;
    std::optional<AudioInputFailure> failure;
    if (!ready)
        failure = serverFailure(u"Cannot reach the sound server: %1."_s);
    pa_threaded_mainloop_unlock(m_loop);
    return failure;
}

std::optional<AudioInputFailure> PulseAudioInput::findDefaultSource()
{
    DefaultSourceReply server;
    Signaller serverSignal { m_loop, &server };
    pa_operation* operation = pa_context_get_server_info(
        m_context,
        [](pa_context*, const pa_server_info* info, void* data) {
            auto* signal = static_cast<Signaller*>(data);
            auto* reply = static_cast<DefaultSourceReply*>(signal->reply);
            if (info && info->default_source_name)
                reply->name = QByteArray(info->default_source_name);
            reply->done = true;
            pa_threaded_mainloop_signal(signal->loop, 0);
        },
        &serverSignal);
    if (!waitFor(operation) || !server.done)
        return serverFailure(u"The sound server did not answer: %1."_s);
    if (server.name.isEmpty())
        return AudioInputFailure { noMicrophone() };

    SourceInfoReply source;
    Signaller sourceSignal { m_loop, &source };
    operation = pa_context_get_source_info_by_name(
        m_context, server.name.constData(),
        [](pa_context*, const pa_source_info* info, int eol, void* data) {
            auto* signal = static_cast<Signaller*>(data);
            auto* reply = static_cast<SourceInfoReply*>(signal->reply);
            if (info) {
                reply->found = true;
                reply->sampleFormat = info->sample_spec;
                reply->map = info->channel_map;
                reply->isMonitor = info->monitor_of_sink != PA_INVALID_INDEX;
            }
            if (eol != 0) {
                reply->done = true;
                pa_threaded_mainloop_signal(signal->loop, 0);
            }
        },
        &sourceSignal);
    if (!waitFor(operation) || !source.done)
        return serverFailure(u"The sound server did not answer: %1."_s);
    // With no microphone at all, the server falls back to the monitor of an output,
    // which would transcribe whatever the computer is playing.
    if (!source.found || source.isMonitor || !pa_sample_spec_valid(&source.sampleFormat))
        return AudioInputFailure { noMicrophone() };

    m_sourceName = server.name;
    m_sourceSpec = source.sampleFormat;
    m_sourceMap = source.map;
    m_haveFormat = true;
    return std::nullopt;
}

std::variant<AudioFormat, AudioInputFailure> PulseAudioInput::inputFormat()
{
    if (!m_haveFormat) {
        if (auto failure = connectToServer())
            return *failure;
        pa_threaded_mainloop_lock(m_loop);
        auto failure = findDefaultSource();
        pa_threaded_mainloop_unlock(m_loop);
        if (failure)
            return *failure;
    }
    return AudioFormat { double(m_sourceSpec.rate), int(m_sourceSpec.channels) };
}

std::optional<AudioInputFailure> PulseAudioInput::start(quint32 framesPerBuffer, BufferHandler handler)
{
    const auto format = inputFormat();
    if (const auto* failure = std::get_if<AudioInputFailure>(&format))
        return *failure;
    if (framesPerBuffer == 0 || !handler)
        return AudioInputFailure { u"The microphone could not be opened."_s };

    pa_threaded_mainloop_lock(m_loop);
    disconnectStream();
    // Floats at the source's own rate and channel layout: the server only converts
    // the sample type, and the rest is ours to do in one place.
    const pa_sample_spec sampleFormat { PA_SAMPLE_FLOAT32NE, m_sourceSpec.rate, m_sourceSpec.channels };
    const pa_channel_map* map = pa_channel_map_valid(&m_sourceMap) ? &m_sourceMap : nullptr;
    m_stream = pa_stream_new(m_context, "Dictation", &sampleFormat, map);
    if (!m_stream) {
        const auto failure = serverFailure(u"The microphone could not be opened: %1."_s);
        pa_threaded_mainloop_unlock(m_loop);
        return failure;
    }
    m_handler = std::move(handler);
    m_pending.assign(size_t(framesPerBuffer) * sampleFormat.channels, 0.0f);
    m_pendingSamples = 0;
    pa_stream_set_state_callback(m_stream, &PulseAudioInput::onStreamState, this);
    pa_stream_set_read_callback(m_stream, &PulseAudioInput::onStreamRead, this);

    // Small fragments, gathered here into the buffers we hand on. What the source
    // holds back before it sends a fragment cannot be had when the key is released,
    // so a fragment as long as our buffer (85 ms at 48 kHz) would cut the last word;
    // 10 ms costs a hundred wake-ups a second and loses at most that much.
    pa_buffer_attr attributes;
    attributes.maxlength = uint32_t(-1);
    attributes.tlength = uint32_t(-1);
    attributes.prebuf = uint32_t(-1);
    attributes.minreq = uint32_t(-1);
    attributes.fragsize = uint32_t(pa_usec_to_bytes(fragmentUsec, &sampleFormat));

    std::optional<AudioInputFailure> failure;
    // Not moved elsewhere when the source goes away: a dictation that silently went on
    // from whatever source the server picked next would transcribe the wrong sound.
    if (pa_stream_connect_record(m_stream, m_sourceName.constData(), &attributes,
            pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE))
        < 0) {
        failure = serverFailure(u"The microphone could not be opened: %1."_s);
    } else {
        const bool settled = waitUntil([this] {
            const pa_stream_state_t state = pa_stream_get_state(m_stream);
            return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
        });
        if (!settled || pa_stream_get_state(m_stream) != PA_STREAM_READY)
            failure = serverFailure(u"The microphone could not be opened: %1."_s);
    }
    if (failure)
        disconnectStream();
    else
        m_recording = true;
    pa_threaded_mainloop_unlock(m_loop);
    return failure;
}

void PulseAudioInput::disconnectStream()
{
    m_recording = false;
    if (m_stream) {
        pa_stream_set_read_callback(m_stream, nullptr, nullptr);
        pa_stream_set_state_callback(m_stream, nullptr, nullptr);
        pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
        m_stream = nullptr;
    }
    // The handler that is running right now must not be destroyed under its own feet;
    // readAvailable() lets go of it when it returns.
    if (!m_delivering)
        m_handler = nullptr;
    m_pendingSamples = 0;
}

void PulseAudioInput::stop()
{
    if (!m_loop)
        return;
    // From inside our own callback the lock is already ours; taking it again there
    // would wait on ourselves.
    if (pa_threaded_mainloop_in_thread(m_loop)) {
        disconnectStream();
        return;
    }
    pa_threaded_mainloop_lock(m_loop);
    deliverRest();
    disconnectStream();
    pa_threaded_mainloop_unlock(m_loop);
}

void PulseAudioInput::deliverRest()
{
    if (!m_stream || pa_stream_get_state(m_stream) != PA_STREAM_READY)
        return;
    // With the loop's lock held no callback runs, so the handler is called here on
    // the stopping thread, never alongside the loop's own delivery.
    readAvailable();
    if (m_stream && m_handler && m_pendingSamples > 0)
        deliver(m_pendingSamples);
    m_pendingSamples = 0;
}

void PulseAudioInput::deliver(size_t samples)
{
    const auto frames = quint32(samples / m_sourceSpec.channels);
    m_delivering = true;
    m_handler(AudioFrames { std::span<const float>(m_pending).first(size_t(frames) * m_sourceSpec.channels), frames });
    m_delivering = false;
}

void PulseAudioInput::onStreamRead(pa_stream*, size_t, void* self)
{
    static_cast<PulseAudioInput*>(self)->readAvailable();
}

void PulseAudioInput::readAvailable()
{
    while (m_stream && pa_stream_readable_size(m_stream) > 0) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(m_stream, &data, &bytes) < 0 || bytes == 0)
            return;
        // A hole is audio the server lost; silence of the same length keeps the timing.
        const auto* samples = static_cast<const float*>(data);
        size_t count = bytes / sizeof(float);
        while (count > 0 && m_handler) {
            const size_t room = m_pending.size() - m_pendingSamples;
            const size_t take = std::min(room, count);
            if (samples) {
                std::memcpy(m_pending.data() + m_pendingSamples, samples, take * sizeof(float));
                samples += take;
            } else {
                std::fill_n(m_pending.data() + m_pendingSamples, take, 0.0f);
            }
            m_pendingSamples += take;
            count -= take;
            if (m_pendingSamples == m_pending.size()) {
                m_pendingSamples = 0;
                deliver(m_pending.size());
                // The handler may have stopped us; the stream is gone then.
                if (!m_stream) {
                    m_handler = nullptr;
                    return;
                }
            }
        }
        pa_stream_drop(m_stream);
    }
}

std::unique_ptr<AudioInput> makeSystemAudioInput(int timeoutMs)
{
    return std::make_unique<PulseAudioInput>(timeoutMs);
}
