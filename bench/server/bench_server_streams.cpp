// Figures for the transcription stream of the real quillet-server binary on loopback:
//   1. real-time factor of one stream against pocketsphinx_continuous on the same audio;
//   2. how many real-time streams the machine holds before one falls behind, and memory per stream;
//   3. time from "stop" to the socket's close for a 5-second utterance.
// Prints only; the numbers depend on the machine and on what else runs on it.
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>
#include <QtEndian>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString clipDir = u"/usr/share/pocketsphinx/test/data/librivox/"_s;
constexpr int sampleRate = 16000;
constexpr int chunkSamples = 1365;

void spin(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

void spinUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : values[values.size() / 2];
}

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    if (values.empty())
        return 0.0;
    const size_t index = std::min(values.size() - 1, size_t(p / 100.0 * double(values.size() - 1) + 0.5));
    return values[index];
}

QByteArray wavFile(const QByteArray& pcm)
{
    QByteArray header(44, 0);
    auto put32 = [&header](int at, quint32 v) { qToLittleEndian(v, header.data() + at); };
    auto put16 = [&header](int at, quint16 v) { qToLittleEndian(v, header.data() + at); };
    header.replace(0, 4, "RIFF");
    put32(4, quint32(36 + pcm.size()));
    header.replace(8, 8, "WAVEfmt ");
    put32(16, 16);
    put16(20, 1);
    put16(22, 1);
    put32(24, sampleRate);
    put32(28, sampleRate * 2);
    put16(32, 2);
    put16(34, 16);
    header.replace(36, 4, "data");
    put32(40, quint32(pcm.size()));
    return header + pcm;
}

double runContinuous(const QString& wav, const QStringList& extra = {})
{
    QElapsedTimer clock;
    clock.start();
    QProcess process;
    process.start(QStringLiteral(POCKETSPHINX_CONTINUOUS),
        QStringList { u"-infile"_s, wav, u"-logfn"_s, u"/dev/null"_s } + extra);
    process.waitForFinished(300'000);
    return double(clock.nsecsElapsed()) / 1e9;
}

qint64 residentKiB(qint64 pid)
{
    QFile status(u"/proc/%1/status"_s.arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    }
    return 0;
}

// Sends `chunks` at `speed` times real time, then "stop"; returns when "stop" was sent.
void streamPaced(StreamClient& client, const QList<QByteArray>& chunks, double speed)
{
    QElapsedTimer clock;
    clock.start();
    qint64 samples = 0;
    for (const QByteArray& chunk : chunks) {
        client.sendAudio(chunk);
        samples += chunk.size() / 2;
        const qint64 due = qint64(double(samples) * 1000.0 / sampleRate / speed);
        if (due > clock.elapsed())
            spin(int(due - clock.elapsed()));
    }
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IONBF, 0);

    const QStringList wavs = QDir(clipDir).entryList({ u"*.wav"_s }, QDir::Files, QDir::Name);
    if (wavs.isEmpty()) {
        std::printf("pocketsphinx-testdata is not installed; nothing to measure\n");
        return 1;
    }
    QByteArray allPcm;
    for (const QString& wav : wavs)
        allPcm += readWavPcm(clipDir + wav);
    const double allSeconds = double(allPcm.size() / 2) / sampleRate;
    const QByteArray longClip = readWavPcm(clipDir + wavs.first());

    ServerProcess server({ u"--account-name"_s, u"bench"_s, u"--max-streams"_s, u"32"_s });
    QString error;
    if (!server.start(&error)) {
        std::printf("server did not start: %s\n", qPrintable(error));
        return 1;
    }
    Http http;
    const QString access = signInThroughSite(http, server, &error).access;
    if (access.isEmpty()) {
        std::printf("sign-in failed: %s\n", qPrintable(error));
        return 1;
    }

    // 1. Real-time factor, one stream, audio sent as fast as the socket takes it.
    {
        QTemporaryDir dir;
        const QString all = dir.filePath(u"all.wav"_s);
        const QString blank = dir.filePath(u"blank.wav"_s);
        QFile f(all);
        f.open(QIODevice::WriteOnly);
        f.write(wavFile(allPcm));
        f.close();
        QFile b(blank);
        b.open(QIODevice::WriteOnly);
        b.write(wavFile(QByteArray(sampleRate / 5 * 2, 0)));
        b.close();

        // The server decodes without the flat-lexicon second pass; compare like with like,
        // and show the command-line decoder's defaults too.
        const QStringList sameSettings { u"-fwdflat"_s, u"no"_s };
        std::vector<double> theirs, theirsDefault, ours;
        for (int run = 0; run < 3; ++run) {
            // The command-line decoder loads its model on every run; subtract that.
            const double load = runContinuous(blank, sameSettings);
            theirs.push_back(std::max(0.0, runContinuous(all, sameSettings) - load));
            theirsDefault.push_back(std::max(0.0, runContinuous(all) - runContinuous(blank)));

            StreamClient client;
            client.open(server.streamUrl());
            client.sendAuth(access);
            QElapsedTimer clock;
            clock.start();
            for (const QByteArray& chunk : chunked(allPcm, chunkSamples))
                client.sendAudio(chunk);
            client.sendStop();
            client.waitClosed(300'000);
            ours.push_back(double(clock.nsecsElapsed()) / 1e9);
        }
        const double t = median(theirs), o = median(ours), d = median(theirsDefault);
        std::printf("1. real-time factor over %.1f s of LibriVox speech (median of 3 runs)\n", allSeconds);
        std::printf("   pocketsphinx_continuous -fwdflat no: %.3f s decoding, %.4f xRT (model loading subtracted)\n", t,
            t / allSeconds);
        std::printf("   pocketsphinx_continuous (defaults):  %.3f s decoding, %.4f xRT\n", d, d / allSeconds);
        std::printf(
            "   quillet-server stream:               %.3f s first audio to close, %.4f xRT\n", o, o / allSeconds);
        std::printf("   server overhead against the same settings: %+.1f%%\n", 100.0 * (o - t) / t);
    }

    // 2. Concurrent real-time streams: each speaks the longest clip at the pace of speech;
    //    a stream has fallen behind when its close comes over a second after its "stop".
    {
        std::printf("2. concurrent real-time streams of %.1f s of speech and 1.5 s of silence each\n"
                    "   (a stream has fallen behind when its close comes over 500 ms after its stop)\n",
            double(longClip.size() / 2) / sampleRate);
        const qint64 idleKiB = residentKiB(server.processId());
        // A second and a half of silence after the speech lets the segment end while the
        // stream is still live, so what remains after "stop" is only the decoder's backlog.
        const QList<QByteArray> chunks = chunked(longClip + QByteArray(sampleRate * 3, 0), chunkSamples);
        int held = 0;
        qint64 lastKiB = idleKiB;
        int lastN = 1;
        for (int n : { 2, 4, 6, 8, 10, 12, 14, 16 }) {
            {
                // Warm-up: n short streams at once leave n decoders in the pool, so that
                // building decoders (a one-time cost per level of concurrency) is not measured.
                QElapsedTimer warm;
                warm.start();
                std::vector<std::unique_ptr<StreamClient>> warmers;
                for (int i = 0; i < n; ++i) {
                    warmers.push_back(std::make_unique<StreamClient>());
                    warmers.back()->open(server.streamUrl());
                    warmers.back()->sendAuth(access);
                    warmers.back()->sendAudio(QByteArray(3200, 0));
                }
                for (auto& w : warmers)
                    w->sendStop();
                for (auto& w : warmers)
                    w->waitClosed(120'000);
                std::printf("   (pool warmed to %d decoders in %.1f s)\n", n, double(warm.elapsed()) / 1000.0);
            }
            std::vector<std::unique_ptr<StreamClient>> clients;
            for (int i = 0; i < n; ++i) {
                clients.push_back(std::make_unique<StreamClient>());
                clients.back()->open(server.streamUrl());
                clients.back()->sendAuth(access);
            }
            QElapsedTimer clock;
            clock.start();
            qint64 samples = 0;
            for (const QByteArray& chunk : chunks) {
                for (auto& c : clients)
                    c->sendAudio(chunk);
                samples += chunk.size() / 2;
                const qint64 due = samples * 1000 / sampleRate;
                if (due > clock.elapsed())
                    spin(int(due - clock.elapsed()));
            }
            for (auto& c : clients)
                c->sendStop();
            const qint64 stoppedAt = clock.elapsed();
            std::vector<double> lags(size_t(n), -1.0);
            spinUntil(
                [&] {
                    bool all = true;
                    for (int i = 0; i < n; ++i) {
                        if (lags[size_t(i)] < 0 && clients[size_t(i)]->closed())
                            lags[size_t(i)] = double(clock.elapsed() - stoppedAt);
                        all = all && lags[size_t(i)] >= 0;
                    }
                    return all;
                },
                120'000);
            const double worst = *std::max_element(lags.begin(), lags.end());
            const qint64 kib = residentKiB(server.processId());
            std::printf("   %2d streams: worst stop-to-close %6.0f ms, server RSS %lld MiB\n", n, worst,
                static_cast<long long>(kib / 1024));
            if (worst < 0 || worst > 500.0)
                break;
            held = n;
            lastKiB = kib;
            lastN = n;
            spin(300);
        }
        std::printf("   held in real time: %d streams\n", held);
        if (lastN > 1)
            std::printf(
                "   memory per stream (one pooled decoder each): %.1f MiB (RSS %lld MiB idle with one decoder)\n",
                double(lastKiB - idleKiB) / 1024.0 / double(lastN - 1), static_cast<long long>(idleKiB / 1024));
    }

    // 3. Stop to close for a 5-second utterance, sent at three times the pace of speech
    //    (the decoder keeps up either way; this only shortens the run).
    {
        const QList<QByteArray> chunks = chunked(longClip.left(5 * sampleRate * 2), chunkSamples);
        std::vector<double> latencies;
        for (int run = 0; run < 20; ++run) {
            StreamClient client;
            client.open(server.streamUrl());
            client.sendAuth(access);
            streamPaced(client, chunks, 3.0);
            spin(50);
            QElapsedTimer clock;
            clock.start();
            client.sendStop();
            spinUntil([&] { return client.closed(); }, 30'000);
            latencies.push_back(double(clock.nsecsElapsed()) / 1e6);
        }
        std::printf("3. stop to close, 5-second utterance, 20 runs: median %.1f ms, 95th percentile %.1f ms\n",
            median(latencies), percentile(latencies, 95));
    }
    server.stop();
    return 0;
}
