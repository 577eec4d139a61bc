#include "Capacity.h"

#include <QtEndian>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace Capacity {

namespace {

constexpr int sampleRate = 16000;
// Share of each core the streams may plan on. The clip is speech from end to end and a
// dictation has pauses, which are cheap to decode; that slack and this tenth pay for the
// rest (base64 JSON over WebSockets, reading partial hypotheses, other threads).
constexpr double headroom = 0.9;
constexpr int mostStreams = 256;

struct Vowel {
    double f1, f2, f3;
};

} // namespace

QByteArray calibrationClip()
{
    constexpr std::array<Vowel, 5> vowels { { { 730, 1090, 2440 }, { 270, 2290, 3010 }, { 530, 1840, 2480 },
        { 570, 840, 2410 }, { 300, 870, 2240 } } };
    constexpr int seconds = 2;
    constexpr int syllableSamples = sampleRate / 5; // five syllables a second
    QByteArray pcm(seconds * sampleRate * 2, Qt::Uninitialized);
    auto* out = reinterpret_cast<qint16*>(pcm.data());
    quint32 noise = 12345;
    double phase = 0;
    for (int i = 0; i < seconds * sampleRate; ++i) {
        const int syllable = i / syllableSamples;
        const double within = double(i % syllableSamples) / syllableSamples;
        // The vowel glides into the next one over the syllable.
        const Vowel& a = vowels[size_t(syllable) % vowels.size()];
        const Vowel& b = vowels[size_t(syllable + 1) % vowels.size()];
        const double f1 = a.f1 + (b.f1 - a.f1) * within;
        const double f2 = a.f2 + (b.f2 - a.f2) * within;
        const double f3 = a.f3 + (b.f3 - a.f3) * within;
        const double pitch
            = 120.0 + 25.0 * std::sin(2 * std::numbers::pi * 0.7 * i / sampleRate) + 8.0 * (syllable % 3);
        phase += 2 * std::numbers::pi * pitch / sampleRate;
        double voiced = 0;
        for (int h = 1; h * pitch < 4000; ++h) {
            const double f = h * pitch;
            auto peak = [f](double centre, double width) { return 1.0 / (1.0 + std::pow((f - centre) / width, 2)); };
            const double gain = peak(f1, 90) + 0.6 * peak(f2, 120) + 0.3 * peak(f3, 160) + 0.02;
            voiced += gain / h * std::sin(h * phase);
        }
        noise = noise * 1664525u + 1013904223u;
        const double hiss = (double(noise >> 8) / double(1 << 24) - 0.5);
        // Voiced for the first three quarters of each syllable, a consonant's hiss after.
        const double envelope = within < 0.75 ? std::sin(std::numbers::pi * within / 0.75) : 0.0;
        const double sample = 6000.0 * envelope * voiced + (within >= 0.75 ? 1500.0 * hiss : 60.0 * hiss);
        out[i] = qToLittleEndian(qint16(std::clamp(sample, -32000.0, 32000.0)));
    }
    return pcm;
}

int streams(int cores, double realTimeFactor)
{
    if (cores < 1 || !(realTimeFactor > 0))
        return 1;
    const double fit = std::floor(double(cores) * headroom / realTimeFactor);
    return int(std::clamp(fit, 1.0, double(mostStreams)));
}

} // namespace Capacity
