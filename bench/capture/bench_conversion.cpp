// What converting the microphone to the transcription format costs: CPU per second
// of 48 kHz stereo audio with our libsoxr converter (high quality) against speexdsp's
// resampler at quality 3, both behind the same channel mix-down and int16 output, and
// how much of a 10 kHz tone (above the 8 kHz that 16 kHz audio can carry) each lets
// through as an alias.

#include "dictation/AudioConverter.h"

#include <benchmark/benchmark.h>
#include <soxr.h>
#include <speex/speex_resampler.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numbers>
#include <vector>

namespace {

constexpr double inputRate = 48000;
constexpr int channels = 2;
constexpr size_t bufferFrames = 4096;

// Interleaved stereo: a tone, or (frequency 0) a speech-like mix of tones and noise.
std::vector<float> makeInput(size_t frames, double frequency)
{
    std::vector<float> out(frames * channels);
    unsigned noise = 12345;
    for (size_t i = 0; i < frames; ++i) {
        const double t = double(i) / inputRate;
        double value;
        if (frequency > 0) {
            value = 0.5 * std::sin(2 * std::numbers::pi * frequency * t);
        } else {
            noise = noise * 1103515245u + 12345u;
            value = 0.2 * std::sin(2 * std::numbers::pi * 220 * t) + 0.1 * std::sin(2 * std::numbers::pi * 1800 * t)
                + 0.05 * (double(noise >> 8) / double(1u << 24) - 0.5);
        }
        out[i * channels] = float(value);
        out[i * channels + 1] = float(value * 0.8);
    }
    return out;
}

// The speexdsp counterpart of AudioConverter: same mix-down, same int16 output.
class SpeexConverter
{
public:
    SpeexConverter()
    {
        int error = 0;
        m_state = speex_resampler_init(1, spx_uint32_t(inputRate), 16000, 3, &error);
        // The filter starts with its delay line empty; skip that like soxr does.
        speex_resampler_skip_zeros(m_state);
        m_mono.resize(bufferFrames);
        m_out.resize(bufferFrames);
    }
    ~SpeexConverter() { speex_resampler_destroy(m_state); }
    SpeexConverter(const SpeexConverter&) = delete;
    SpeexConverter& operator=(const SpeexConverter&) = delete;

    // Converts one buffer and appends the int16 result to output (which is reused).
    void convert(const float* interleaved, size_t frames, std::vector<qint16>& output)
    {
        for (size_t i = 0; i < frames; ++i)
            m_mono[i] = (interleaved[i * channels] + interleaved[i * channels + 1]) * 0.5f;
        spx_uint32_t in = spx_uint32_t(frames);
        spx_uint32_t out = spx_uint32_t(m_out.size());
        speex_resampler_process_float(m_state, 0, m_mono.data(), &in, m_out.data(), &out);
        for (spx_uint32_t i = 0; i < out; ++i)
            output.push_back(qint16(std::clamp(std::lround(m_out[i] * 32768.0f), -32768L, 32767L)));
    }

private:
    SpeexResamplerState* m_state = nullptr;
    std::vector<float> m_mono;
    std::vector<float> m_out;
};

// Runs 'seconds' of input through a converter in capture-sized buffers.
template <typename Convert> std::vector<qint16> convertAll(const std::vector<float>& input, Convert&& convert)
{
    std::vector<qint16> out;
    const size_t frames = input.size() / channels;
    for (size_t at = 0; at < frames; at += bufferFrames) {
        const size_t n = std::min(bufferFrames, frames - at);
        convert(input.data() + at * channels, n, out);
    }
    return out;
}

void soxrConvert(AudioConverter& converter, const float* data, size_t frames, std::vector<qint16>& out)
{
    // As the capture does it: a fresh output buffer of the computed capacity each time.
    Pcm16Buffer buffer(*outputFrameCapacity(quint32(frames), inputRate));
    converter.convert(AudioFrames { std::span<const float>(data, frames * channels), quint32(frames) }, buffer);
    out.insert(out.end(), buffer.samples().begin(), buffer.samples().end());
}

// The same two filters with float output, so an alias below the int16 step (which
// the transcription format would round to silence anyway) can still be measured.
std::vector<double> filterFloat(const std::vector<float>& interleaved, bool useSoxr)
{
    const size_t frames = interleaved.size() / channels;
    std::vector<float> mono(frames);
    for (size_t i = 0; i < frames; ++i)
        mono[i] = (interleaved[i * channels] + interleaved[i * channels + 1]) * 0.5f;
    std::vector<float> out(frames / 2);
    size_t made = 0;
    if (useSoxr) {
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
        soxr_t soxr = soxr_create(inputRate, 16000, 1, nullptr, nullptr, &quality, nullptr);
        size_t used = 0;
        soxr_process(soxr, mono.data(), frames, &used, out.data(), out.size(), &made);
        soxr_delete(soxr);
    } else {
        int error = 0;
        SpeexResamplerState* speex = speex_resampler_init(1, spx_uint32_t(inputRate), 16000, 3, &error);
        speex_resampler_skip_zeros(speex);
        spx_uint32_t in = spx_uint32_t(frames);
        spx_uint32_t outLength = spx_uint32_t(out.size());
        speex_resampler_process_float(speex, 0, mono.data(), &in, out.data(), &outLength);
        made = outLength;
        speex_resampler_destroy(speex);
    }
    return std::vector<double>(out.begin(), out.begin() + long(made));
}

template <typename Sample> double levelDb(const std::vector<Sample>& samples, size_t skip, double reference)
{
    double sum = 0;
    size_t n = 0;
    for (size_t i = skip; i + skip < samples.size(); ++i, ++n)
        sum += double(samples[i]) * double(samples[i]);
    const double rms = n ? std::sqrt(sum / double(n)) : 0;
    if (rms == 0)
        return -std::numeric_limits<double>::infinity();
    return 20 * std::log10(rms / reference);
}

void reportTones()
{
    // The tone is 0.5 of full scale on the left and 0.4 on the right: 0.45 once mixed.
    const double toneRms = 0.45 / std::sqrt(2.0);
    const size_t skip = 4000; // a quarter second at each end: past the filters' start-up
    std::printf("Tones through 48 kHz stereo -> 16 kHz mono, level relative to the tone (dB);\n"
                "above 8 kHz the output is pure alias. int16: what the capture sends; float: the filter alone.\n");
    for (const double frequency : { 1000.0, 7000.0, 7600.0, 8500.0, 10000.0 }) {
        const auto input = makeInput(size_t(2 * inputRate), frequency);
        auto soxr = AudioConverter::create(AudioFormat { inputRate, channels });
        SpeexConverter speex;
        const auto a
            = convertAll(input, [&](const float* d, size_t n, std::vector<qint16>& o) { soxrConvert(*soxr, d, n, o); });
        const auto b
            = convertAll(input, [&](const float* d, size_t n, std::vector<qint16>& o) { speex.convert(d, n, o); });
        std::printf("  %5.0f Hz: libsoxr HQ int16 %7.1f  float %7.1f   speexdsp q3 int16 %7.1f  float %7.1f\n",
            frequency, levelDb(a, skip, toneRms * 32768), levelDb(filterFloat(input, true), skip, toneRms),
            levelDb(b, skip, toneRms * 32768), levelDb(filterFloat(input, false), skip, toneRms));
    }
    std::fflush(stdout);
}

// One iteration converts one second of audio, so the time per iteration is the cost
// per second of audio.
void BM_Libsoxr_HQ(benchmark::State& state)
{
    const auto input = makeInput(size_t(inputRate), 0);
    auto converter = AudioConverter::create(AudioFormat { inputRate, channels });
    std::vector<qint16> out;
    out.reserve(20000);
    for (auto _ : state) {
        out.clear();
        const size_t frames = input.size() / channels;
        for (size_t at = 0; at < frames; at += bufferFrames)
            soxrConvert(*converter, input.data() + at * channels, std::min(bufferFrames, frames - at), out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetLabel("per second of 48 kHz stereo audio");
}

void BM_Speexdsp_Q3(benchmark::State& state)
{
    const auto input = makeInput(size_t(inputRate), 0);
    SpeexConverter converter;
    std::vector<qint16> out;
    out.reserve(20000);
    for (auto _ : state) {
        out.clear();
        const size_t frames = input.size() / channels;
        for (size_t at = 0; at < frames; at += bufferFrames)
            converter.convert(input.data() + at * channels, std::min(bufferFrames, frames - at), out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetLabel("per second of 48 kHz stereo audio");
}

BENCHMARK(BM_Libsoxr_HQ)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Speexdsp_Q3)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

} // namespace

int main(int argc, char** argv)
{
    reportTones();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
