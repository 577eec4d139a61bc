// How much of the end of an utterance the capture loses when the key is released:
// a tone that runs to the very end of a 48 kHz stereo clip is played into a virtual
// microphone, stop() is called as soon as the player has finished, and the tone's
// captured length is compared with its played length. Run inside the desktop session:
//   scripts/desktop-session.sh --no-a11y --no-keyring -- build/release/bench/capture/bench_capture_stop_tail [trials]

#include "dictation/AudioCaptureManager.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr double toneSeconds = 1.0;
constexpr double leadSeconds = 0.5;

class Collector final : public AudioCaptureDelegate
{
public:
    void audioCaptureDidReceive(Pcm16Buffer pcmBuffer) override
    {
        const std::lock_guard lock(m_mutex);
        m_samples.insert(m_samples.end(), pcmBuffer.samples().begin(), pcmBuffer.samples().end());
    }
    void audioCaptureDidFail(const QString& error) override
    {
        std::fprintf(stderr, "conversion failed: %s\n", qPrintable(error));
    }
    void audioCaptureWasLost(const QString& reason) override
    {
        std::fprintf(stderr, "capture lost: %s\n", qPrintable(reason));
    }
    std::vector<qint16> samples() const
    {
        const std::lock_guard lock(m_mutex);
        return m_samples;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<qint16> m_samples;
};

bool run(const QString& program, const QStringList& arguments, QByteArray* output = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        std::fprintf(stderr, "%s %s failed: %s\n", qPrintable(program), qPrintable(arguments.join(u' ')),
            process.readAllStandardError().constData());
        return false;
    }
    if (output)
        *output = process.readAllStandardOutput();
    return true;
}

// Seconds of tone in the capture: from the first to the last sample above half the
// tone's amplitude (the clip is digital silence elsewhere), to about a millisecond.
double capturedToneSeconds(const std::vector<qint16>& samples, double amplitude)
{
    const auto loud = [amplitude](qint16 s) { return std::abs(double(s)) > amplitude / 2; };
    const auto first = std::find_if(samples.begin(), samples.end(), loud);
    if (first == samples.end())
        return 0;
    const auto last = std::find_if(samples.rbegin(), samples.rend(), loud);
    return double(std::distance(first, last.base())) / 16000.0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int trials = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    if (!qEnvironmentVariableIsSet("QUILLET_MIC_SOURCE")) {
        std::fprintf(stderr, "run inside scripts/desktop-session.sh\n");
        return 1;
    }
    QTemporaryDir dir;
    const QString clip = dir.filePath(u"tone.wav"_s);
    // Silence first, so the capture is surely running when the tone starts, then a
    // tone right up to the last sample: whatever the capture drops at the end shows.
    if (!run(u"sox"_s,
            { u"-n"_s, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, u"-b"_s, u"16"_s, clip, u"synth"_s,
                QString::number(toneSeconds), u"sine"_s, u"1000"_s, u"vol"_s, u"0.5"_s, u"pad"_s,
                QString::number(leadSeconds), u"0"_s }))
        return 1;

    QStringList modules;
    QByteArray id;
    if (!run(u"pactl"_s,
            { u"load-module"_s, u"module-null-sink"_s, u"sink_name=bench48_feed"_s, u"norewinds=1"_s, u"rate=48000"_s,
                u"channels=2"_s },
            &id))
        return 1;
    modules << QString::fromUtf8(id.trimmed());
    if (!run(u"pactl"_s,
            { u"load-module"_s, u"module-virtual-source"_s, u"source_name=bench48"_s, u"master=bench48_feed.monitor"_s,
                u"rate=48000"_s, u"channels=2"_s },
            &id))
        return 1;
    modules << QString::fromUtf8(id.trimmed());
    run(u"pactl"_s, { u"set-default-source"_s, u"bench48"_s });

    const double amplitude = 0.5 * 32768;
    std::vector<double> lost;
    for (int t = 0; t < trials; ++t) {
        auto collector = std::make_shared<Collector>();
        AudioCaptureManager capture;
        capture.setDelegate(collector);
        if (const auto failure = capture.start()) {
            std::fprintf(stderr, "capture failed: %s\n", qPrintable(failure->description));
            return 1;
        }
        if (!run(u"paplay"_s, { u"-d"_s, u"bench48_feed"_s, clip }))
            return 1;
        QElapsedTimer stopping;
        stopping.start();
        capture.stop();
        const double stopMs = double(stopping.nsecsElapsed()) / 1e6;
        const double heard = capturedToneSeconds(collector->samples(), amplitude);
        lost.push_back((toneSeconds - heard) * 1000);
        std::printf("trial %2d: audio lost at stop %6.1f ms (stop() took %.1f ms)\n", t + 1, lost.back(), stopMs);
    }
    run(u"pactl"_s, { u"set-default-source"_s, qEnvironmentVariable("QUILLET_MIC_SOURCE") });
    for (auto it = modules.crbegin(); it != modules.crend(); ++it)
        run(u"pactl"_s, { u"unload-module"_s, *it });

    std::sort(lost.begin(), lost.end());
    std::printf("audio lost at stop, 48 kHz stereo, %d trials: median %.1f ms, min %.1f ms, max %.1f ms\n", trials,
        lost[lost.size() / 2], lost.front(), lost.back());
    return 0;
}
