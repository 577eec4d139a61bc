#include "dictation/AudioConverter.h"

#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

// Rates outside this range are no microphone we know of; soxr would accept some of
// them and then spend seconds building filters on the audio thread.
constexpr double lowestRate = 1000;
constexpr double highestRate = 1000000;
constexpr int mostChannels = 64;
// What one capture buffer holds; more only if an input hands over bigger buffers.
constexpr size_t usualFrames = 4096;

} // namespace

std::optional<quint32> outputFrameCapacity(quint32 frameLength, double inputSampleRate)
{
    const double frames = double(frameLength) * Pcm16Buffer::sampleRate / inputSampleRate;
    if (!std::isfinite(frames) || frames < 0 || frames >= double(std::numeric_limits<quint32>::max()) + 1.0)
        return std::nullopt;
    return quint32(std::ceil(frames));
}

std::unique_ptr<AudioConverter> AudioConverter::create(const AudioFormat& input, QString* error)
{
    const auto fail = [error](const QString& why) {
        if (error)
            *error = why;
        return std::unique_ptr<AudioConverter>();
    };
    if (!std::isfinite(input.sampleRate) || input.sampleRate < lowestRate || input.sampleRate > highestRate)
        return fail(u"unsupported sample rate %1"_s.arg(input.sampleRate));
    if (input.channelCount < 1 || input.channelCount > mostChannels)
        return fail(u"unsupported channel count %1"_s.arg(input.channelCount));

    // No dither: speech sits far above the last bit, and an exact, repeatable result
    // makes the conversion testable sample by sample.
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
    soxr_io_spec_t ioNoDither = io;
    ioNoDither.flags |= SOXR_NO_DITHER;
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    // One thread: the conversion runs on the audio thread and must not spread out.
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    soxr_error_t soxrError = nullptr;
    soxr_t resampler
        = soxr_create(input.sampleRate, Pcm16Buffer::sampleRate, 1, &soxrError, &ioNoDither, &quality, &runtime);
    if (soxrError || !resampler)
        return fail(QString::fromUtf8(soxrError ? soxrError : "no resampler"));
    return std::unique_ptr<AudioConverter>(new AudioConverter(input, resampler));
}

AudioConverter::AudioConverter(const AudioFormat& input, soxr* resampler)
    : m_input(input)
    , m_resampler(resampler)
{
    if (m_input.channelCount > 1)
        m_mono.resize(usualFrames);
    m_made.resize(size_t(double(usualFrames) * Pcm16Buffer::sampleRate / m_input.sampleRate) + 64);
    m_owed.reserve(usualFrames);
}

AudioConverter::~AudioConverter()
{
    soxr_delete(m_resampler);
}

std::optional<QString> AudioConverter::resample(const AudioFrames& input, size_t& made)
{
    made = 0;
    if (m_finished)
        return u"The converter has already been finished."_s;
    const auto channels = size_t(m_input.channelCount);
    const size_t frames = input.frameLength;
    if (input.samples.size() < frames * channels)
        return u"The captured buffer is shorter than its frame count."_s;

    const float* mono = input.samples.data();
    if (channels > 1) {
        if (m_mono.size() < frames)
            m_mono.resize(frames);
        // The average rather than the sum: a full-scale signal on every channel stays
        // full scale instead of clipping.
        const float scale = 1.0f / float(channels);
        const float* frame = input.samples.data();
        for (size_t i = 0; i < frames; ++i, frame += channels) {
            float sum = 0;
            for (size_t c = 0; c < channels; ++c)
                sum += frame[c];
            m_mono[i] = sum * scale;
        }
        mono = m_mono.data();
    }

    // soxr takes only as much input as the output room it is given can hold. Handed
    // the output buffer alone, it would leave input behind whenever a buffer's share
    // comes out a frame above the room, a click each time; so it gets room for the
    // whole buffer, and whatever overflows is owed to the next one.
    const size_t expected = size_t(double(frames) * Pcm16Buffer::sampleRate / m_input.sampleRate) + 64;
    if (m_made.size() < expected)
        m_made.resize(expected);
    size_t consumed = 0;
    while (consumed < frames) {
        size_t used = 0;
        size_t madeNow = 0;
        if (const soxr_error_t error = soxr_process(m_resampler, mono + consumed, frames - consumed, &used,
                m_made.data() + made, m_made.size() - made, &madeNow))
            return QString::fromUtf8(error);
        consumed += used;
        made += madeNow;
        if (made == m_made.size())
            m_made.resize(m_made.size() * 2);
        else if (used == 0 && madeNow == 0)
            return u"The resampler took no input."_s;
    }
    return std::nullopt;
}

std::optional<QString> AudioConverter::convert(const AudioFrames& input, Pcm16Buffer& output)
{
    size_t made = 0;
    if (auto error = resample(input, made))
        return error;
    const std::span<qint16> room = output.storage();
    const size_t fromOwed = std::min(m_owed.size(), room.size());
    std::copy_n(m_owed.begin(), fromOwed, room.begin());
    m_owed.erase(m_owed.begin(), m_owed.begin() + long(fromOwed));
    const size_t fromMade = std::min(made, room.size() - fromOwed);
    std::copy_n(m_made.begin(), fromMade, room.begin() + long(fromOwed));
    m_owed.insert(m_owed.end(), m_made.begin() + long(fromMade), m_made.begin() + long(made));
    output.setFrameLength(quint32(fromOwed + fromMade));
    return std::nullopt;
}

std::optional<QString> AudioConverter::convertAll(const AudioFrames& input, std::vector<qint16>& output)
{
    size_t made = 0;
    if (auto error = resample(input, made))
        return error;
    output.insert(output.end(), m_owed.begin(), m_owed.end());
    m_owed.clear();
    output.insert(output.end(), m_made.begin(), m_made.begin() + long(made));
    return std::nullopt;
}

std::optional<QString> AudioConverter::finish(std::vector<qint16>& output)
{
    if (m_finished)
        return u"The converter has already been finished."_s;
    m_finished = true;
    output.insert(output.end(), m_owed.begin(), m_owed.end());
    m_owed.clear();
    // No input tells soxr the stream has ended: it then runs its filter over the
    // samples it was holding back and gives them out, a few calls' worth at most.
    for (;;) {
        size_t madeNow = 0;
        if (const soxr_error_t error
            = soxr_process(m_resampler, nullptr, 0, nullptr, m_made.data(), m_made.size(), &madeNow))
            return QString::fromUtf8(error);
        if (madeNow == 0)
            return std::nullopt;
        output.insert(output.end(), m_made.begin(), m_made.begin() + long(madeNow));
    }
}
