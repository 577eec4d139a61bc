#include "platform/linux/PulseMicrophones.h"

#include "platform/AudioInput.h"

#include <QPromise>
#include <QThreadPool>

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop.h>
#include <pulse/rtclock.h>
#include <pulse/timeval.h>

#include <functional>

namespace {

// Runs `query` on a pool thread and hands its result to the returned future.
template <typename T> QFuture<T> onPoolThread(std::function<T()> query)
{
    // QThreadPool wants a copyable callable; the promise is shared for that reason only.
    auto promise = std::make_shared<QPromise<T>>();
    QFuture<T> future = promise->future();
    promise->start();
    QThreadPool::globalInstance()->start([promise, query = std::move(query)] {
        promise->addResult(query());
        promise->finish();
    });
    return future;
}

// One connection to the sound server on a private, non-threaded main loop. Every
// wait ends at the deadline set at construction, whatever the server does.
class PulseQuery
{
public:
    explicit PulseQuery(int timeoutMs)
        : m_loop(pa_mainloop_new())
    {
        if (!m_loop)
            return;
        m_context = pa_context_new(pa_mainloop_get_api(m_loop), "Quillet");
        if (!m_context)
            return;
        m_deadline = pa_context_rttime_new(
            m_context, pa_rtclock_now() + pa_usec_t(timeoutMs) * PA_USEC_PER_MSEC,
            [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* flag) {
                *static_cast<bool*>(flag) = true;
            },
            &m_timedOut);
    }

    ~PulseQuery()
    {
        if (m_deadline)
            pa_mainloop_get_api(m_loop)->time_free(m_deadline);
        if (m_context) {
            pa_context_disconnect(m_context);
            pa_context_unref(m_context);
        }
        if (m_loop)
            pa_mainloop_free(m_loop);
    }

    PulseQuery(const PulseQuery&) = delete;
    PulseQuery& operator=(const PulseQuery&) = delete;

    // Connects without starting a server: a settings window must not spawn one.
    bool connect()
    {
        if (!m_context || !m_deadline)
            return false;
        if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
            return false;
        runUntil([this] {
            const pa_context_state_t state = pa_context_get_state(m_context);
            return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
        });
        return pa_context_get_state(m_context) == PA_CONTEXT_READY;
    }

    // Waits for the operation to finish; false (and cancelled) when the deadline passes first.
    bool finish(pa_operation* operation)
    {
        if (!operation)
            return false;
        runUntil([operation] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; });
        const bool done = pa_operation_get_state(operation) == PA_OPERATION_DONE;
        if (!done)
            pa_operation_cancel(operation);
        pa_operation_unref(operation);
        return done;
    }

    pa_context* context() const { return m_context; }

private:
    void runUntil(const std::function<bool()>& done)
    {
        while (!done() && !m_timedOut) {
            if (pa_mainloop_iterate(m_loop, 1, nullptr) < 0)
                return;
        }
    }

    pa_mainloop* m_loop = nullptr;
    pa_context* m_context = nullptr;
    pa_time_event* m_deadline = nullptr;
    bool m_timedOut = false;
};

struct SourceList {
    QList<Microphone> microphones;
    bool complete = false;
};

} // namespace

PulseMicrophones::PulseMicrophones(int timeoutMs)
    : m_timeoutMs(timeoutMs)
{ }

std::optional<QList<Microphone>> PulseMicrophones::querySources(int timeoutMs)
{
    PulseQuery query(timeoutMs);
    if (!query.connect())
        return std::nullopt;
    SourceList sources;
    pa_operation* operation = pa_context_get_source_info_list(
        query.context(),
        [](pa_context*, const pa_source_info* info, int eol, void* data) {
            auto* list = static_cast<SourceList*>(data);
            if (eol != 0) {
                list->complete = eol > 0;
                return;
            }
            // A monitor replays what an output plays; offering it as a microphone
            // would transcribe the computer's own sound.
            if (!info || info->monitor_of_sink != PA_INVALID_INDEX)
                return;
            const QString uid = QString::fromUtf8(info->name);
            const QString description = info->description ? QString::fromUtf8(info->description) : uid;
            list->microphones.append({ uid, description.isEmpty() ? uid : description });
        },
        &sources);
    if (!query.finish(operation) || !sources.complete)
        return std::nullopt;
    return sources.microphones;
}

bool PulseMicrophones::defaultSourceOpens(int timeoutMs)
{
    // The same path a dictation takes: find the default source, then open a
    // recording stream on it. Nothing is kept of what it records.
    const std::unique_ptr<AudioInput> input = makeSystemAudioInput(timeoutMs);
    if (std::holds_alternative<AudioInputFailure>(input->inputFormat()))
        return false;
    const bool opened = !input->start(4096, [](const AudioFrames&) {}).has_value();
    input->stop();
    return opened;
}

QFuture<QList<Microphone>> PulseMicrophones::list()
{
    const int timeoutMs = m_timeoutMs;
    return onPoolThread<QList<Microphone>>(
        [timeoutMs] { return querySources(timeoutMs).value_or(QList<Microphone> {}); });
}

QFuture<bool> PulseMicrophones::permission()
{
    // Outside a sandbox nothing on a Linux desktop grants or refuses a microphone:
    // the sound server serves every client of the user's session. Permission
    // therefore means "the default source can be opened". A sandboxed build
    // (Flatpak) would ask the desktop portal's Device interface instead and take
    // its answer; we do not ship one, so there is no portal to ask here.
    const int timeoutMs = m_timeoutMs;
    return onPoolThread<bool>([timeoutMs] { return defaultSourceOpens(timeoutMs); });
}

QFuture<bool> PulseMicrophones::requestPermission()
{
    // No one to ask outside a sandbox (see permission()): asking again is checking again.
    return permission();
}

std::shared_ptr<Microphones> makeSystemMicrophones(int timeoutMs)
{
    return std::make_shared<PulseMicrophones>(timeoutMs);
}
