// The program on KDE's compositor, timed for the RemoteDesktop portal route: `quillet
// --press` and `--release` as a desktop shortcut would run them, speech into the virtual
// microphone, the text read back from a native Wayland GTK entry that is not on the
// accessibility bus, so it arrives through wl-copy and the portal's Control+V. Run it
// inside the headless KWin desktop:
//   scripts/desktop-session.sh --kwin -- build/dev/bin/bench_program_kwin [dictations] [empty]
// It prints figures and asserts nothing.

#include "FieldApp.h"
#include "Percentile.h"
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

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const int dictations = argc > 1 ? std::max(1, atoi(argv[1])) : 10;
    const bool emptyClipboard = argc > 2 && qstrcmp(argv[2], "empty") == 0;
    if (qEnvironmentVariable("XDG_CURRENT_DESKTOP") != u"KDE"_s) {
        std::fprintf(stderr, "run this inside scripts/desktop-session.sh --kwin\n");
        return 1;
    }

    QTemporaryDir dir;
    const QString speech = dir.filePath(u"speech.wav"_s);
    if (Desktop::run(u"sox"_s, { clip, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, speech }) != 0) {
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
    const qint64 started = program.clock().elapsed();
    if (!program.start()) {
        std::fprintf(stderr, "quillet did not start\n");
        return 1;
    }
    const std::optional<qsizetype> ready
        = program.waitForLine(u"✏️ [Quillet] RemoteDesktop portal: the paste keystroke is ready"_s);
    if (!ready) {
        std::fprintf(stderr, "the RemoteDesktop portal session did not start\n");
        return 1;
    }
    const qint64 startToReady = program.lines().at(*ready).atMs - started;

    Http http;
    const TokenPair pair = signInThroughSite(http, server, &error);
    if (pair.deepLink.isEmpty() || program.runAgain({ pair.deepLink }) != 0) {
        std::fprintf(stderr, "sign-in failed: %s\n", qPrintable(error));
        return 1;
    }
    FieldApp gtk(QStringLiteral(QUILLET_GTK_FIELDS));
    gtk.setEnvironmentVariable(u"GDK_BACKEND"_s, u"wayland"_s);
    gtk.setEnvironmentVariable(u"NO_AT_BRIDGE"_s, u"1"_s);
    if (!gtk.start() || !gtk.focus(u"entry"_s)) {
        std::fprintf(stderr, "the GTK window did not come up\n");
        return 1;
    }

    QList<double> pressToCapture;
    QList<double> releaseToText;
    QList<double> insertToText;
    int missed = 0;
    for (int i = 0; i < dictations; ++i) {
        gtk.set(u"entry"_s, QString(), 0, 0);
        QTest::qWait(2000); // the previous dictation's success linger and clipboard restore
        // Some text on the clipboard, as there usually is: on KWin 5.27 wl-paste waits for
        // ever on an empty one (until Quillet gives up on it after 1 s). Pass "empty" to time that.
        if (!emptyClipboard)
            Desktop::run(u"wl-copy"_s, { u"--type"_s, u"text/plain"_s }, nullptr, "on the clipboard before");
        else
            Desktop::run(u"wl-copy"_s, { u"--clear"_s });
        const qsizetype from = program.lineCount();
        const qint64 pressed = program.clock().elapsed();
        QProcess::startDetached(quillet, { u"--press"_s });
        const std::optional<qsizetype> captured = program.waitForLine(u"🎤 [Quillet] audio capture started"_s, from);
        if (!captured) {
            ++missed;
            continue;
        }
        pressToCapture << double(program.lines().at(*captured).atMs - pressed);
        Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, speech });
        // The key stays down a while after the last word, as in the sway benchmark: the
        // figure is Quillet's, not the backend's wait for the end of the utterance.
        QTest::qWait(1900);
        QElapsedTimer sinceRelease;
        sinceRelease.start();
        QProcess::startDetached(quillet, { u"--release"_s });
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
        // Where that went: the transcript's end, then the insertion itself.
        const qint64 landedAt = program.clock().elapsed();
        const std::optional<qsizetype> inserting
            = program.waitForLine(u"✏️ [Quillet] TextInserter.insert"_s, from, 0);
        if (inserting)
            insertToText << double(landedAt - program.lines().at(*inserting).atMs);
    }

    std::printf("quillet on headless KWin, RemoteDesktop portal paste (%d dictations, %d missed; clipboard %s)\n",
        dictations, missed, emptyClipboard ? "empty" : "holding text");
    std::printf("  program start -> portal session ready:      %7.1f ms\n", double(startToReady));
    std::printf("  quillet --press -> \"audio capture started\": p50 %7.1f ms   p95 %7.1f ms\n",
        percentile(pressToCapture, 0.5), percentile(pressToCapture, 0.95));
    std::printf("  quillet --release -> text in the GTK entry:  p50 %7.1f ms   p95 %7.1f ms\n",
        percentile(releaseToText, 0.5), percentile(releaseToText, 0.95));
    std::printf("  \"TextInserter.insert\" -> text in the entry:  p50 %7.1f ms   p95 %7.1f ms\n",
        percentile(insertToText, 0.5), percentile(insertToText, 0.95));
    std::printf("  (both edges timed from starting the quillet process that hands them over, the release\n"
                "   1.9 s after the clip ends; the text goes through wl-paste, wl-copy and four\n"
                "   NotifyKeyboardKeysym calls)\n");
    return 0;
}
