#include "dictation/AudioCaptureManager.h"

#include "dictation/AudioConverter.h"

#include <QtGlobal>

#include <algorithm>
#include <new>
#include <vector>

using namespace Qt::StringLiterals;

QString CaptureError::errorDescription() const
{
    switch (m_case) {
    case converterFailed:
        return u"Audio format converter could not be created."_s;
    }
    return {};
}

// What the audio thread works with: the converter made for this start() and a way
// back to the manager's delegate. Shared with the handler the input holds, so a late
// buffer never reaches a destroyed manager.
struct AudioCaptureManager::Tap {
    std::unique_ptr<AudioConverter> converter;
    std::atomic<AudioCaptureManager*> manager;
    // Set by stop() before it asks the input for the rest: from then on buffers are
    // gathered into tail, to go out with the resampler's delay as one last buffer.
    // The input never runs the handler twice at once and stop() waits for it, so
    // tail needs no lock of its own.
    std::atomic<bool> finishing = false;
    std::vector<qint16> tail;

    std::shared_ptr<AudioCaptureDelegate> delegate() const
    {
        AudioCaptureManager* owner = manager.load();
        if (!owner)
            return nullptr;
        const std::lock_guard lock(owner->m_delegateMutex);
        return owner->m_delegate.lock();
    }

    void process(const AudioFrames& frames)
    {
        if (!manager.load())
            return;
        if (finishing.load()) {
            if (const std::optional<QString> error = converter->convertAll(frames, tail))
                fail(*error);
            return;
        }
        const std::optional<quint32> capacity
            = outputFrameCapacity(frames.frameLength, converter->inputFormat().sampleRate);
        if (!capacity)
            qFatal("Output capacity out of range for %u frames at %f Hz", frames.frameLength,
                converter->inputFormat().sampleRate);
        Pcm16Buffer output;
        try {
            output = Pcm16Buffer(*capacity);
        } catch (const std::bad_alloc&) {
            // Losing a few dozen milliseconds of speech beats ending the dictation.
            return;
        }
        const std::optional<QString> error = converter->convert(frames, output);
        const std::shared_ptr<AudioCaptureDelegate> target = delegate();
        if (!target)
            return;
        if (error)
            target->audioCaptureDidFail(*error);
        else
            target->audioCaptureDidReceive(std::move(output));
    }

    void lost(const QString& reason) const
    {
        if (const std::shared_ptr<AudioCaptureDelegate> target = delegate())
            target->audioCaptureWasLost(reason);
    }

    void fail(const QString& error) const
    {
        if (const std::shared_ptr<AudioCaptureDelegate> target = delegate())
            target->audioCaptureDidFail(error);
    }

    // The end of the utterance: what the input handed over while stopping, what the
    // converter still owed, and the resampler's delay, in one buffer.
    void finish()
    {
        if (const std::optional<QString> error = converter->finish(tail)) {
            fail(*error);
            return;
        }
        if (tail.empty())
            return;
        Pcm16Buffer last;
        try {
            last = Pcm16Buffer(quint32(tail.size()));
        } catch (const std::bad_alloc&) {
            return;
        }
        std::copy(tail.begin(), tail.end(), last.storage().begin());
        last.setFrameLength(quint32(tail.size()));
        tail.clear();
        if (const std::shared_ptr<AudioCaptureDelegate> target = delegate())
            target->audioCaptureDidReceive(std::move(last));
    }
};

AudioCaptureManager::AudioCaptureManager()
    : AudioCaptureManager([] { return makeSystemAudioInput(); })
{ }

AudioCaptureManager::AudioCaptureManager(InputFactory makeInput)
    : m_makeInput(std::move(makeInput))
{ }

AudioCaptureManager::~AudioCaptureManager()
{
    stop();
}

void AudioCaptureManager::setDelegate(std::weak_ptr<AudioCaptureDelegate> delegate)
{
    const std::lock_guard lock(m_delegateMutex);
    m_delegate = std::move(delegate);
}

std::optional<CaptureStartFailure> AudioCaptureManager::start()
{
    // A new input each time, so the capture follows whatever the default source is now.
    stop();
    m_engine = m_makeInput();
    if (!m_engine)
        return CaptureStartFailure { std::nullopt, u"The microphone could not be opened."_s };

    const std::variant<AudioFormat, AudioInputFailure> format = m_engine->inputFormat();
    if (const auto* failure = std::get_if<AudioInputFailure>(&format))
        return CaptureStartFailure { std::nullopt, failure->description };
    m_inputFormat = std::get<AudioFormat>(format);

    std::unique_ptr<AudioConverter> converter = AudioConverter::create(*m_inputFormat);
    if (!converter) {
        // The input stays with us, unstarted, until stop() or the next start().
        const CaptureError error(CaptureError::converterFailed);
        return CaptureStartFailure { error, error.errorDescription() };
    }

    auto tap = std::make_shared<Tap>();
    tap->converter = std::move(converter);
    tap->manager = this;
    m_tap = tap;
    m_engine->setLossHandler([tap](const AudioInputFailure& failure) { tap->lost(failure.description); });
    if (auto failure = m_engine->start(framesPerBuffer, [tap](const AudioFrames& frames) { tap->process(frames); }))
        return CaptureStartFailure { std::nullopt, failure->description };
    m_running = true;
    return std::nullopt;
}

void AudioCaptureManager::stop()
{
    if (m_tap)
        m_tap->finishing = true;
    if (m_engine) {
        // The input's stop() waits for a buffer under way and hands the tap what it
        // still holds, on this thread; after it nothing is delivered.
        m_engine->stop();
        m_engine.reset();
    }
    // Only a capture that got going has an utterance to finish.
    if (m_tap && m_running)
        m_tap->finish();
    // An input that breaks its word and delivers late still cannot reach the delegate.
    if (m_tap) {
        m_tap->manager = nullptr;
        m_tap.reset();
    }
    m_running = false;
}
