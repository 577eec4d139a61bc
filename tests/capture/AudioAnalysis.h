#pragma once

#include <QtGlobal>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>
#include <vector>

// Small signal helpers shared by the capture tests.
namespace AudioAnalysis {

// frames × channels interleaved floats; channel c carries a sine of amplitudes[c]
// (a negative amplitude inverts it). startFrame continues a tone across buffers.
inline std::vector<float> sine(
    size_t frames, double rate, double frequency, const std::vector<float>& amplitudes, size_t startFrame = 0)
{
    const size_t channels = amplitudes.size();
    std::vector<float> out(frames * channels);
    for (size_t i = 0; i < frames; ++i) {
        const double value = std::sin(2 * std::numbers::pi * frequency * double(startFrame + i) / rate);
        for (size_t c = 0; c < channels; ++c)
            out[i * channels + c] = float(value) * amplitudes[c];
    }
    return out;
}

inline double rms(std::span<const qint16> samples)
{
    if (samples.empty())
        return 0;
    double sum = 0;
    for (const qint16 s : samples)
        sum += double(s) * double(s);
    return std::sqrt(sum / double(samples.size()));
}

// Frequency from the number of upward zero crossings, for a clean tone.
inline double toneFrequency(std::span<const qint16> samples, double rate)
{
    size_t first = 0;
    size_t last = 0;
    int crossings = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            if (crossings == 0)
                first = i;
            last = i;
            ++crossings;
        }
    }
    if (crossings < 2)
        return 0;
    return double(crossings - 1) * rate / double(last - first);
}

// How far the samples are from the best-fitting pure tone of this frequency, as the
// ratio of the residual's level to the tone's. A frame lost or repeated anywhere
// shifts the phase from there on and makes this large.
inline double toneResidual(std::span<const qint16> samples, double rate, double frequency)
{
    double ss = 0, cc = 0, sc = 0, sy = 0, cy = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double phase = 2 * std::numbers::pi * frequency * double(i) / rate;
        const double s = std::sin(phase), c = std::cos(phase), y = samples[i];
        ss += s * s;
        cc += c * c;
        sc += s * c;
        sy += s * y;
        cy += c * y;
    }
    const double det = ss * cc - sc * sc;
    const double a = (sy * cc - cy * sc) / det;
    const double b = (cy * ss - sy * sc) / det;
    double residual = 0, tone = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double phase = 2 * std::numbers::pi * frequency * double(i) / rate;
        const double fit = a * std::sin(phase) + b * std::cos(phase);
        residual += (samples[i] - fit) * (samples[i] - fit);
        tone += fit * fit;
    }
    return tone > 0 ? std::sqrt(residual / tone) : 1;
}

// Normalised correlation of a with b shifted by lag (b[i] against a[i + lag]),
// over the samples both cover.
inline double correlationAt(std::span<const double> a, std::span<const double> b, long lag)
{
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < b.size(); ++i) {
        const long j = long(i) + lag;
        if (j < 0 || j >= long(a.size()))
            continue;
        ab += a[size_t(j)] * b[i];
        aa += a[size_t(j)] * a[size_t(j)];
        bb += b[i] * b[i];
    }
    if (aa <= 0 || bb <= 0)
        return 0;
    return ab / std::sqrt(aa * bb);
}

struct Alignment {
    long lag = 0;
    double correlation = 0;
};

// Where the reference sits inside the recording (all of it, the recording being the
// longer): the lag with the highest
// normalised correlation, searched coarsely on 10 ms energy envelopes first and then
// sample by sample around the best coarse lag.
inline Alignment align(std::span<const qint16> recording, std::span<const qint16> reference, double rate)
{
    const std::vector<double> a(recording.begin(), recording.end());
    const std::vector<double> b(reference.begin(), reference.end());
    const auto hop = size_t(rate / 100);
    const auto envelope = [hop](const std::vector<double>& x) {
        std::vector<double> e(x.size() / hop);
        for (size_t k = 0; k < e.size(); ++k) {
            double sum = 0;
            for (size_t i = 0; i < hop; ++i)
                sum += x[k * hop + i] * x[k * hop + i];
            e[k] = std::sqrt(sum / double(hop));
        }
        return e;
    };
    const std::vector<double> ea = envelope(a);
    const std::vector<double> eb = envelope(b);
    long bestCoarse = 0;
    double bestCoarseValue = -2;
    for (long lag = 0; lag + long(eb.size()) <= long(ea.size()); ++lag) {
        const double c = correlationAt(ea, eb, lag);
        if (c > bestCoarseValue) {
            bestCoarseValue = c;
            bestCoarse = lag;
        }
    }
    Alignment best { 0, -2 };
    const long centre = bestCoarse * long(hop);
    const long lastLag = long(a.size()) - long(b.size());
    for (long lag = std::max(0L, centre - 2 * long(hop)); lag <= std::min(lastLag, centre + 2 * long(hop)); ++lag) {
        const double c = correlationAt(a, b, lag);
        if (c > best.correlation)
            best = { lag, c };
    }
    return best;
}

// First and last sample of the stretch where the signal is louder than a tenth of
// its loudest 10 ms: the span of the speech, ignoring silence around it.
inline std::pair<size_t, size_t> activeSpan(std::span<const qint16> samples, double rate)
{
    const auto hop = size_t(rate / 100);
    std::vector<double> e(samples.size() / hop);
    for (size_t k = 0; k < e.size(); ++k)
        e[k] = rms(samples.subspan(k * hop, hop));
    const double loudest = e.empty() ? 0 : *std::max_element(e.begin(), e.end());
    size_t first = 0, last = 0;
    bool seen = false;
    for (size_t k = 0; k < e.size(); ++k) {
        if (e[k] > loudest / 10) {
            if (!seen)
                first = k;
            last = k;
            seen = true;
        }
    }
    return { first * hop, (last + 1) * hop };
}

} // namespace AudioAnalysis
