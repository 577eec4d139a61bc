// Memory per stream and admission control of the real quillet-server binary on loopback:
//   1. proportional set size (PSS) idle and with 1, 8 and 14 streams decoding at once,
//      and the time from connecting to the first partial;
//   2. twice the measured capacity offered at once: how late the admitted streams' last
//      results come after "stop", and how fast the others hear SERVER_BUSY.
// Prints only; the numbers depend on the machine and on what else runs on it.
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <unistd.h>

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

// Sleeps in the event loop between looks: a busy client would take processor time from
// the server it measures.
bool spinUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < timeoutMs)
        spin(5);
    return done();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? -1.0 : values[values.size() / 2];
}

double worst(const std::vector<double>& values)
{
    return values.empty() ? -1.0 : *std::max_element(values.begin(), values.end());
}

qint64 pssKiB(qint64 pid)
{
    QFile rollup(u"/proc/%1/smaps_rollup"_s.arg(pid));
    if (!rollup.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : rollup.readAll().split('\n')) {
        if (line.startsWith("Pss:"))
            return line.mid(4).trimmed().split(' ').first().toLongLong();
    }
    return 0;
}

// User and system processor time of the process so far, in seconds.
double cpuSeconds(qint64 pid)
{
    QFile stat(u"/proc/%1/stat"_s.arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = stat.readAll();
    // Fields after the command name, which is in parentheses and may hold spaces.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return 0;
    return double(fields[11].toLongLong() + fields[12].toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

QString loadAverage()
{
    QFile file(u"/proc/loadavg"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLatin1(file.readAll().trimmed());
}

int capacityFromLog(ServerProcess& server, QString* line)
{
    static const QRegularExpression pattern(u"capacity: (\\d+) streams \\([^)]*\\)"_s);
    QRegularExpressionMatch match;
    spinUntil(
        [&] {
            match = pattern.match(QString::fromUtf8(server.output()));
            return match.hasMatch();
        },
        30'000);
    *line = match.captured(0);
    return match.hasMatch() ? match.captured(1).toInt() : 0;
}

// n clients speaking `chunks` together at the pace of speech. Records when each one's
// first partial arrived (from its connect) and how long after "stop" its socket closed.
struct Crowd {
    std::vector<std::unique_ptr<StreamClient>> clients;
    std::vector<QElapsedTimer> since;
    std::vector<double> firstPartialMs;
    std::vector<double> busyMs;
    std::vector<double> stopToCloseMs;
    int admitted = 0;
    int busy = 0;
    QStringList otherErrors; // admitted streams that ended with an error
    int withoutFinal = 0; // admitted streams that closed without a final

    void open(const ServerProcess& server, const QString& access, int n)
    {
        for (int i = 0; i < n; ++i) {
            since.emplace_back().start();
            clients.push_back(std::make_unique<StreamClient>());
            clients.back()->open(server.streamUrl());
            clients.back()->sendAuth(access);
        }
    }

    // Sends the audio; calls `whileSpeaking` once all of it is out, before "stop".
    void speak(const QList<QByteArray>& chunks, const std::function<void()>& whileSpeaking = {})
    {
        const size_t n = clients.size();
        firstPartialMs.assign(n, -1);
        std::vector<double> busyAt(n, -1);
        QElapsedTimer clock;
        clock.start();
        qint64 samples = 0;
        auto look = [&] {
            for (size_t i = 0; i < n; ++i) {
                if (firstPartialMs[i] < 0 && !clients[i]->texts(u"partial"_s).isEmpty())
                    firstPartialMs[i] = double(since[i].nsecsElapsed()) / 1e6;
                if (busyAt[i] < 0
                    && clients[i]->firstOfType(u"error"_s).value(u"code"_s).toString() == u"SERVER_BUSY"_s)
                    busyAt[i] = double(since[i].nsecsElapsed()) / 1e6;
            }
        };
        for (const QByteArray& chunk : chunks) {
            for (auto& c : clients) {
                if (!c->closed())
                    c->sendAudio(chunk);
            }
            samples += chunk.size() / 2;
            const qint64 due = samples * 1000 / sampleRate;
            while (clock.elapsed() < due) {
                spin(int(std::min<qint64>(10, due - clock.elapsed())));
                look();
            }
        }
        look();
        if (whileSpeaking)
            whileSpeaking();
        QElapsedTimer stopped;
        stopped.start();
        for (auto& c : clients) {
            if (!c->closed())
                c->sendStop();
        }
        std::vector<double> closedAt(n, -1);
        spinUntil(
            [&] {
                bool all = true;
                for (size_t i = 0; i < n; ++i) {
                    if (closedAt[i] < 0 && clients[i]->closed())
                        closedAt[i] = double(stopped.nsecsElapsed()) / 1e6;
                    all = all && closedAt[i] >= 0;
                }
                return all;
            },
            120'000);
        for (size_t i = 0; i < n; ++i) {
            if (busyAt[i] >= 0) {
                ++busy;
                busyMs.push_back(busyAt[i]);
            } else {
                ++admitted;
                stopToCloseMs.push_back(closedAt[i]);
                const QString code = clients[i]->firstOfType(u"error"_s).value(u"code"_s).toString();
                if (!code.isEmpty())
                    otherErrors << code;
                if (clients[i]->texts(u"final"_s).isEmpty())
                    ++withoutFinal;
            }
        }
        firstPartialMs.erase(std::remove(firstPartialMs.begin(), firstPartialMs.end(), -1.0), firstPartialMs.end());
    }
};

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
    const QByteArray clip = readWavPcm(clipDir + wavs.first());
    const double clipSeconds = double(clip.size() / 2) / sampleRate;
    // A second and a half of silence after the speech ends the segment while the stream is
    // still live, so what remains after "stop" is only the decoder's backlog.
    const QList<QByteArray> chunks = chunked(clip + QByteArray(sampleRate * 3, 0), chunkSamples);
    std::printf("load average at start: %s\n", qPrintable(loadAverage()));

    // 1. Memory and first partial.
    {
        ServerProcess server({ u"--account-name"_s, u"bench"_s, u"--max-streams"_s, u"32"_s });
        QString error;
        if (!server.start(&error)) {
            std::printf("server did not start: %s\n", qPrintable(error));
            return 1;
        }
        QString capacityLine;
        capacityFromLog(server, &capacityLine);
        Http http;
        const QString access = signInThroughSite(http, server, &error).access;
        if (access.isEmpty()) {
            std::printf("sign-in failed: %s\n", qPrintable(error));
            return 1;
        }
        spin(500);
        const qint64 idle = pssKiB(server.processId());
        std::printf("1. memory (PSS from /proc/<pid>/smaps_rollup) and connect-to-first-partial, %.1f s clip in "
                    "real time\n   idle: %.1f MiB (%s)\n",
            clipSeconds, double(idle) / 1024, qPrintable(capacityLine));
        qint64 one = 0;
        for (int n : { 1, 8, 14 }) {
            Crowd crowd;
            const double cpuBefore = cpuSeconds(server.processId());
            crowd.open(server, access, n);
            qint64 pss = 0;
            crowd.speak(chunks, [&] { pss = pssKiB(server.processId()); });
            const double cpu = cpuSeconds(server.processId()) - cpuBefore;
            if (n == 1)
                one = pss;
            std::printf("   %2d streams: PSS %.1f MiB (%+.1f MiB per stream over one), first partial median %.0f ms, "
                        "worst %.0f ms, worst stop-to-close %.0f ms, server processor time %.3f s per second of "
                        "audio per stream [load %s]\n",
                n, double(pss) / 1024, n > 1 ? double(pss - one) / 1024 / (n - 1) : double(pss - idle) / 1024,
                median(crowd.firstPartialMs), worst(crowd.firstPartialMs), worst(crowd.stopToCloseMs),
                cpu / n / (double(clip.size() / 2) / sampleRate + 3.0), qPrintable(loadAverage()));
            spin(300);
        }
        server.stop();
    }

    // 2. Admission at twice the measured capacity.
    {
        ServerProcess server({ u"--account-name"_s, u"bench"_s });
        QString error;
        if (!server.start(&error)) {
            std::printf("server did not start: %s\n", qPrintable(error));
            return 1;
        }
        QString capacityLine;
        const int capacity = capacityFromLog(server, &capacityLine);
        Http http;
        const QString access = signInThroughSite(http, server, &error).access;
        if (capacity <= 0 || access.isEmpty()) {
            std::printf("no capacity line or sign-in failed\n");
            return 1;
        }
        std::printf("2. admission: %s; offering %d streams at once\n", qPrintable(capacityLine), 2 * capacity);
        for (int run = 0; run < 2; ++run) {
            Crowd crowd;
            crowd.open(server, access, 2 * capacity);
            crowd.speak(chunks);
            std::printf("   run %d: %d admitted, %d told SERVER_BUSY (median %.0f ms, worst %.0f ms after connect); "
                        "admitted streams' stop-to-close median %.0f ms, worst %.0f ms [load %s]\n",
                run + 1, crowd.admitted, crowd.busy, median(crowd.busyMs), worst(crowd.busyMs),
                median(crowd.stopToCloseMs), worst(crowd.stopToCloseMs), qPrintable(loadAverage()));
            if (!crowd.otherErrors.isEmpty() || crowd.withoutFinal > 0)
                std::printf("   run %d: admitted streams without a final: %d; errors: %s\n", run + 1,
                    crowd.withoutFinal, qPrintable(crowd.otherErrors.join(u", "_s)));
            spin(500);
        }
        server.stop();
    }
    return 0;
}
