// The program on a Wayland desktop, timed for the compositor-binding route: sway's
// bindings run `quillet --press` and `--release` while wtype holds the Menu key, speech
// goes into the virtual microphone, the text is read back from a native Wayland GTK
// entry. Run it inside the headless Wayland desktop:
//   scripts/desktop-session.sh --wayland -- build/dev/bin/bench_program_wayland [dictations] [round trips]
// It prints figures and asserts nothing.

#include "FieldApp.h"
#include "ServerProcess.h"
#include "support/QuilletProgram.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

const QString clip = u"/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav"_s;

double percentile(QList<double> values, double p)
{
    if (values.isEmpty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto index = static_cast<qsizetype>(p * double(values.size() - 1) + 0.5);
    return values[std::clamp<qsizetype>(index, 0, values.size() - 1)];
}

bool sway(const QString& command)
{
    return Desktop::run(u"swaymsg"_s, { command }) == 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const int dictations = argc > 1 ? std::max(1, atoi(argv[1])) : 10;
    const int roundTrips = argc > 2 ? std::max(1, atoi(argv[2])) : 40;
    if (qEnvironmentVariable("XDG_SESSION_TYPE") != u"wayland"_s) {
        std::fprintf(stderr, "run this inside scripts/desktop-session.sh --wayland\n");
        return 1;
    }

    QTemporaryDir dir;
    const QString speech = dir.filePath(u"speech.wav"_s);
    QByteArray seconds;
    if (Desktop::run(u"sox"_s, { clip, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, speech }) != 0
        || Desktop::run(u"soxi"_s, { u"-D"_s, speech }, &seconds) != 0) {
        std::fprintf(stderr, "sox could not make the 48 kHz clip\n");
        return 1;
    }
    ServerProcess server;
    QString error;
    if (!server.start(&error)) {
        std::fprintf(stderr, "quillet-server: %s\n", qPrintable(error));
        return 1;
    }
    const QString quillet = QStringLiteral(QUILLET_BINARY);
    QuilletProgram program(quillet, server.apiUrl(QString()).toString(QUrl::StripTrailingSlash),
        server.siteUrl(QString()).toString(QUrl::StripTrailingSlash),
        { u"hotkey=fn"_s, u"onboarding.complete=true"_s });
    if (!program.start()) {
        std::fprintf(stderr, "quillet did not start\n");
        return 1;
    }

    // `quillet --press` / `--release` as a binding runs them: start to exit. Signed out, so
    // each press's dictation ends at once.
    QList<double> roundTrip;
    for (int i = 0; i < roundTrips; ++i) {
        QElapsedTimer clock;
        clock.start();
        QProcess edge;
        edge.start(quillet, { i % 2 == 0 ? u"--press"_s : u"--release"_s });
        edge.waitForFinished(5000);
        if (edge.exitStatus() == QProcess::NormalExit && edge.exitCode() == 0)
            roundTrip << double(clock.nsecsElapsed()) / 1e6;
        QTest::qWait(50);
    }

    Http http;
    const TokenPair pair = signInThroughSite(http, server, &error);
    if (pair.deepLink.isEmpty() || program.runAgain({ pair.deepLink }) != 0) {
        std::fprintf(stderr, "sign-in failed: %s\n", qPrintable(error));
        return 1;
    }
    sway(u"bindsym --no-repeat Menu exec %1 --press"_s.arg(quillet));
    sway(u"bindsym --release Menu exec %1 --release"_s.arg(quillet));
    FieldApp gtk(QStringLiteral(QUILLET_GTK_FIELDS));
    gtk.setEnvironmentVariable(u"GDK_BACKEND"_s, u"wayland"_s);
    if (!gtk.start() || !gtk.focus(u"entry"_s)) {
        std::fprintf(stderr, "the GTK window did not come up\n");
        return 1;
    }

    const int holdMs = 2000 + int(seconds.trimmed().toDouble() * 1000);
    QList<double> pressToCapture;
    QList<double> releaseToText;
    int missed = 0;
    for (int i = 0; i < dictations; ++i) {
        gtk.set(u"entry"_s, QString(), 0, 0);
        QTest::qWait(1700); // the previous dictation's success linger
        const qsizetype from = program.lineCount();
        QProcess holder;
        const qint64 pressed = program.clock().elapsed();
        holder.start(u"wtype"_s, { u"-P"_s, u"Menu"_s, u"-s"_s, QString::number(holdMs), u"-p"_s, u"Menu"_s });
        const std::optional<qsizetype> captured = program.waitForLine(u"🎤 [Quillet] audio capture started"_s, from);
        if (!captured) {
            holder.waitForFinished(holdMs + 2000);
            ++missed;
            continue;
        }
        pressToCapture << double(program.lines().at(*captured).atMs - pressed);
        Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, speech });
        // wtype exits once the compositor has its release: the moment the key went up.
        if (!QTest::qWaitFor([&] { return holder.state() == QProcess::NotRunning; }, holdMs + 5000)) {
            holder.kill();
            ++missed;
            continue;
        }
        QElapsedTimer sinceRelease;
        sinceRelease.start();
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
    }

    std::printf("quillet on headless sway, compositor bindings (%d dictations, %d missed; %d edges)\n", dictations,
        missed, roundTrips);
    std::printf("  quillet --press/--release, start to exit:   p50 %7.1f ms   p95 %7.1f ms   (target p50 <= 30 ms)\n",
        percentile(roundTrip, 0.5), percentile(roundTrip, 0.95));
    std::printf("  key press -> \"audio capture started\":      p50 %7.1f ms   p95 %7.1f ms   (target p50 <= 150 ms)\n",
        percentile(pressToCapture, 0.5), percentile(pressToCapture, 0.95));
    std::printf("  key release -> text in a native GTK entry: p50 %7.1f ms   p95 %7.1f ms   (target p50 <= 150 ms)\n",
        percentile(releaseToText, 0.5), percentile(releaseToText, 0.95));
    std::printf("  (the press is timed from starting wtype, so it includes wtype's own start; the release from\n"
                "   wtype's exit, which follows the compositor's receipt of the release)\n");
    return 0;
}
