// The program as a user meets it, timed: the real quillet and quillet-server, the hotkey
// pressed on the X server, speech into the virtual microphone, the text read back from
// a GTK entry. Run it inside the headless desktop:
//   scripts/desktop-session.sh -- build/release/bin/bench_program [dictations] [idle seconds]
// It prints figures and asserts nothing.

#include "FieldApp.h"
#include "Percentile.h"
#include "ServerProcess.h"
#include "support/QuilletProgram.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString clip = u"/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav"_s;

// Resident memory of a process in KiB, from /proc.
qint64 residentKiB(qint64 pid)
{
    QFile status(u"/proc/%1/status"_s.arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

// User plus system CPU time of a process, in clock ticks.
qint64 cpuTicks(qint64 pid)
{
    QFile stat(u"/proc/%1/stat"_s.arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = stat.readAll();
    // Fields after the command name, which is in parentheses and may hold blanks.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.size() > 12 ? fields[11].toLongLong() + fields[12].toLongLong() : -1;
}

bool xdotool(const QStringList& arguments)
{
    return Desktop::run(u"xdotool"_s, arguments) == 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const int dictations = argc > 1 ? std::max(1, atoi(argv[1])) : 20;
    const int idleSeconds = argc > 2 ? std::max(1, atoi(argv[2])) : 60;
    // Any recording sox can read; the default is a 3 s LibriVox sentence.
    const QString recording = argc > 3 ? QString::fromLocal8Bit(argv[3]) : clip;

    QTemporaryDir dir;
    const QString speech = dir.filePath(u"speech.wav"_s);
    if (Desktop::run(u"sox"_s, { recording, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, speech }) != 0) {
        std::fprintf(stderr, "sox could not make the 48 kHz clip\n");
        return 1;
    }
    ServerProcess server;
    QString error;
    if (!server.start(&error)) {
        std::fprintf(stderr, "quillet-server: %s\n", qPrintable(error));
        return 1;
    }
    QuilletProgram program(QStringLiteral(QUILLET_BINARY), server.apiUrl(QString()).toString(QUrl::StripTrailingSlash),
        server.siteUrl(QString()).toString(QUrl::StripTrailingSlash),
        { u"hotkey=fn"_s, u"onboarding.complete=true"_s });
    if (!program.start()) {
        std::fprintf(stderr, "quillet did not start its key monitor\n");
        return 1;
    }
    const qint64 pid = program.processId();

    // Idle first: nothing to do, nothing done.
    const qint64 rssIdleStart = residentKiB(pid);
    const qint64 ticksBefore = cpuTicks(pid);
    QTest::qWait(idleSeconds * 1000);
    const qint64 ticksIdle = cpuTicks(pid) - ticksBefore;
    const qint64 rssIdleEnd = residentKiB(pid);

    Http http;
    const TokenPair pair = signInThroughSite(http, server, &error);
    if (pair.deepLink.isEmpty() || program.runAgain({ pair.deepLink }) != 0) {
        std::fprintf(stderr, "sign-in failed: %s\n", qPrintable(error));
        return 1;
    }
    FieldApp gtk(QStringLiteral(QUILLET_GTK_FIELDS));
    if (!gtk.start() || !gtk.focus(u"entry"_s)) {
        std::fprintf(stderr, "the GTK window did not come up\n");
        return 1;
    }

    QList<double> releaseToText;
    QList<double> releaseToEndedLine;
    QList<double> releaseToTranscriptEnd;
    QList<double> releaseToInsertion;
    QList<double> downToCapture;
    QList<qint64> rssAfter;
    int missed = 0;
    for (int i = 0; i < dictations; ++i) {
        gtk.set(u"entry"_s, QString(), 0, 0);
        QTest::qWait(1700); // the previous dictation's success linger
        const qsizetype from = program.lineCount();
        const qint64 down = program.clock().elapsed();
        xdotool({ u"keydown"_s, u"Menu"_s });
        const std::optional<qsizetype> captured = program.waitForLine(u"🎤 [Quillet] audio capture started"_s, from);
        if (!captured) {
            xdotool({ u"keyup"_s, u"Menu"_s });
            ++missed;
            continue;
        }
        downToCapture << double(program.lines().at(*captured).atMs - down);
        Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, speech });
        xdotool({ u"keyup"_s, u"Menu"_s });
        QElapsedTimer sinceRelease;
        sinceRelease.start();
        const qint64 released = program.clock().elapsed();
        // Read the entry back as often as the window answers.
        bool landed = false;
        while (sinceRelease.elapsed() < 10000) {
            const auto shown = gtk.content(u"entry"_s);
            if (shown && !shown->text.isEmpty()) {
                landed = true;
                break;
            }
        }
        if (!landed) {
            ++missed;
            continue;
        }
        releaseToText << double(sinceRelease.nsecsElapsed()) / 1e6;
        rssAfter << residentKiB(pid);
        // Where the time went, from the moments the program's own lines reached us.
        const auto after = [&](const QString& prefix) -> std::optional<double> {
            const std::optional<qsizetype> at = program.waitForLine(prefix, from, 2000);
            if (!at)
                return std::nullopt;
            return double(program.lines().at(*at).atMs - released);
        };
        if (const auto t = after(u"🛑 [Quillet] hotkeyEnded"_s))
            releaseToEndedLine << *t;
        if (const auto t = after(u"🏁 [Quillet] transcriptionDidEnd"_s))
            releaseToTranscriptEnd << *t;
        if (const auto t = after(u"✏️ [Quillet] TextInserter.insert"_s))
            releaseToInsertion << *t;
    }

    std::printf("quillet, the whole program (%d dictations of %s, %d missed)\n", dictations,
        qPrintable(QFileInfo(recording).fileName()), missed);
    std::printf("  key release -> text in a GTK entry:   p50 %7.1f ms   p95 %7.1f ms   (target p50 <= 150 ms)\n",
        percentile(releaseToText, 0.5), percentile(releaseToText, 0.95));
    std::printf("    of which, p50 from release: \"hotkeyEnded\" %.1f ms, end of transcript %.1f ms, insertion starts "
                "%.1f ms\n",
        percentile(releaseToEndedLine, 0.5), percentile(releaseToTranscriptEnd, 0.5),
        percentile(releaseToInsertion, 0.5));
    std::printf("  key down -> \"audio capture started\": p50 %7.1f ms   p95 %7.1f ms   (target p50 <= 150 ms)\n",
        percentile(downToCapture, 0.5), percentile(downToCapture, 0.95));
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    std::printf("  idle for %d s: RSS %lld -> %lld KiB (%.1f MiB; target <= 60 MB), CPU %.2f s (%.3f%%)\n", idleSeconds,
        static_cast<long long>(rssIdleStart), static_cast<long long>(rssIdleEnd), double(rssIdleEnd) / 1024.0,
        double(ticksIdle) / double(ticksPerSecond),
        100.0 * double(ticksIdle) / double(ticksPerSecond) / double(idleSeconds));
    if (!rssAfter.isEmpty()) {
        const qsizetype half = rssAfter.size() / 2;
        const double growth = rssAfter.size() > 1
            ? double(rssAfter.last() - rssAfter.at(half)) / double(rssAfter.size() - 1 - half)
            : 0;
        std::printf("  RSS after the first dictation %lld KiB, after %lld: %lld KiB; growth over the second half "
                    "%.1f KiB per dictation\n",
            static_cast<long long>(rssAfter.first()), static_cast<long long>(rssAfter.size()),
            static_cast<long long>(rssAfter.last()), growth);
    }
    // The backend's own account of each stream: how long after "stop" it closed.
    for (const QByteArray& line : server.output().split('\n')) {
        if (line.contains("finished:"))
            std::printf("  quillet-server: %s\n", line.constData());
    }
    return 0;
}
