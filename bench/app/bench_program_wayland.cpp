// The program on a Wayland desktop, timed for both hotkey routes. Compositor bindings:
// sway's bindings run `quillet --press` and `--release` while wtype holds the Menu key.
// The GlobalShortcuts portal: the real xdg-desktop-portal frontend with the tests' stand-in
// for a desktop's backend, whose Activated and Deactivated the bench sends. Speech goes
// into the virtual microphone, and the text is read back from a native Wayland GTK entry.
// Run it inside the headless Wayland desktop:
//   scripts/desktop-session.sh --wayland -- build/dev/bin/bench_program_wayland [dictations] [round trips]
// It prints figures and asserts nothing.

#include "FieldApp.h"
#include "Percentile.h"
#include "ServerProcess.h"
#include "support/QuilletProgram.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <functional>

using namespace Qt::StringLiterals;

namespace {

const QString clip = u"/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav"_s;

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
    // One route's figures: press -> capture, release -> text, misses.
    struct Figures {
        QList<double> pressToCapture;
        QList<double> releaseToText;
        int missed = 0;
    };
    // press() starts a hold and returns when the key went down; waitForRelease() returns
    // once it is up, or false.
    const auto dictate = [&](QuilletProgram& program, const std::function<void()>& press,
                             const std::function<bool()>& waitForRelease) {
        Figures figures;
        for (int i = 0; i < dictations; ++i) {
            gtk.set(u"entry"_s, QString(), 0, 0);
            QTest::qWait(1700); // the previous dictation's success linger
            const qsizetype from = program.lineCount();
            const qint64 pressed = program.clock().elapsed();
            press();
            const std::optional<qsizetype> captured = program.waitForLine(u"🎤 [Quillet] audio capture started"_s, from);
            if (!captured) {
                waitForRelease();
                ++figures.missed;
                continue;
            }
            figures.pressToCapture << double(program.lines().at(*captured).atMs - pressed);
            Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, speech });
            if (!waitForRelease()) {
                ++figures.missed;
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
                ++figures.missed;
                continue;
            }
            figures.releaseToText << double(sinceRelease.nsecsElapsed()) / 1e6;
        }
        return figures;
    };

    // Bindings: wtype holds the key in one process and exits once the compositor has its
    // release, the moment the key went up.
    QProcess holder;
    const Figures bindings = dictate(
        program,
        [&] {
            holder.start(u"wtype"_s, { u"-P"_s, u"Menu"_s, u"-s"_s, QString::number(holdMs), u"-p"_s, u"Menu"_s });
        },
        [&] {
            if (QTest::qWaitFor([&] { return holder.state() == QProcess::NotRunning; }, holdMs + 5000))
                return true;
            holder.kill();
            holder.waitForFinished(2000);
            return false;
        });
    sway(u"unbindsym Menu"_s);
    sway(u"unbindsym --release Menu"_s);

    // The portal: the real frontend, with the stand-in backend chosen for this desktop.
    QProcess backend;
    QProcess frontend;
    const QString portals = dir.filePath(u"portals"_s);
    QDir().mkpath(portals);
    QFile description(portals + u"/quillettest.portal"_s);
    if (description.open(QIODevice::WriteOnly))
        description.write("[portal]\nDBusName=org.freedesktop.impl.portal.desktop.quillettest\n"
                          "Interfaces=org.freedesktop.impl.portal.GlobalShortcuts;\nUseIn=sway\n");
    description.close();
    backend.start(QStringLiteral(QUILLET_FAKE_PORTAL), {});
    backend.waitForReadyRead(5000);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"XDG_DESKTOP_PORTAL_DIR"_s, portals);
    frontend.setProcessEnvironment(environment);
    frontend.setStandardOutputFile(QProcess::nullDevice());
    frontend.setStandardErrorFile(QProcess::nullDevice());
    frontend.start(u"/usr/libexec/xdg-desktop-portal"_s, { u"--replace"_s });
    QTest::qWait(1500); // the frontend takes its name, then reads its backends
    QuilletProgram portalProgram(quillet, server.apiUrl(QString()).toString(QUrl::StripTrailingSlash),
        server.siteUrl(QString()).toString(QUrl::StripTrailingSlash),
        { u"hotkey=fn"_s, u"onboarding.complete=true"_s });
    Figures portal;
    program.stop();
    const TokenPair portalPair = signInThroughSite(http, server, &error);
    if (!portalProgram.start() || portalPair.deepLink.isEmpty() || portalProgram.runAgain({ portalPair.deepLink }) != 0
        || !portalProgram.waitForLine(u"🔑 [Quillet] GlobalShortcuts portal: \"Hold to dictate\" is bound"_s)) {
        std::fprintf(stderr, "quillet did not bind its shortcut through the portal\n");
        portal.missed = dictations;
    } else {
        gtk.focus(u"entry"_s);
        portal = dictate(
            portalProgram, [&] { backend.write("press\n"); },
            [&] {
                QTest::qWait(holdMs);
                backend.write("release\n");
                return backend.waitForBytesWritten(1000);
            });
    }
    backend.closeWriteChannel();
    for (QProcess* helper : { &backend, &frontend }) {
        helper->terminate();
        if (!helper->waitForFinished(3000))
            helper->kill();
    }

    std::printf("quillet on headless sway (%d dictations per route; %d edges)\n", dictations, roundTrips);
    std::printf("  quillet --press/--release, start to exit:     p50 %7.1f ms   p95 %7.1f ms   (target p50 <= 30 ms)\n",
        percentile(roundTrip, 0.5), percentile(roundTrip, 0.95));
    const auto report = [](const char* route, const Figures& figures) {
        std::printf("  %s (%d missed)\n", route, figures.missed);
        std::printf(
            "    press -> \"audio capture started\":       p50 %7.1f ms   p95 %7.1f ms   (target p50 <= 150 ms)\n",
            percentile(figures.pressToCapture, 0.5), percentile(figures.pressToCapture, 0.95));
        std::printf(
            "    release -> text in a native GTK entry:  p50 %7.1f ms   p95 %7.1f ms   (target p50 <= 150 ms)\n",
            percentile(figures.releaseToText, 0.5), percentile(figures.releaseToText, 0.95));
    };
    report("compositor bindings", bindings);
    report("GlobalShortcuts portal", portal);
    std::printf("  (bindings: the press is timed from starting wtype, so it includes wtype's own start, and the\n"
                "   release from wtype's exit, which follows the compositor's receipt of the release; portal: from\n"
                "   the moment the bench tells the desktop's backend to send Activated or Deactivated)\n");
    return 0;
}
