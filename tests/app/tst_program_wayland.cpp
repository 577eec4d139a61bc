#include "FieldApp.h"
#include "ServerProcess.h"
#include "support/QuilletProgram.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QRegularExpression>
#include <QtTest>

#include <cstdio>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

const QString clip = u"/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav"_s;

bool sway(const QString& command)
{
    QByteArray reply;
    return Desktop::run(u"swaymsg"_s, { command }, &reply) == 0 && !reply.contains("\"success\": false");
}

// Where the visible capsule (an Xwayland window 320 wide, our class) is.
std::optional<QRect> capsuleGeometry()
{
    QByteArray ids;
    if (Desktop::run(u"xdotool"_s, { u"search"_s, u"--onlyvisible"_s, u"--classname"_s, u"quillet"_s }, &ids) != 0)
        return std::nullopt;
    for (const QByteArray& id : ids.split('\n')) {
        QByteArray shell;
        if (id.trimmed().isEmpty()
            || Desktop::run(
                   u"xdotool"_s, { u"getwindowgeometry"_s, u"--shell"_s, QString::fromLatin1(id.trimmed()) }, &shell)
                != 0)
            continue;
        QMap<QByteArray, int> values;
        for (const QByteArray& line : shell.split('\n')) {
            const QList<QByteArray> pair = line.split('=');
            if (pair.size() == 2)
                values[pair[0]] = pair[1].toInt();
        }
        if (values.value("WIDTH") == 320)
            return QRect(values.value("X"), values.value("Y"), values.value("WIDTH"), values.value("HEIGHT"));
    }
    return std::nullopt;
}

// Whether the capsule is on the screen.
bool capsuleVisible()
{
    return capsuleGeometry().has_value();
}

} // namespace

// The program on a Wayland desktop (headless sway with Xwayland): the compositor's key
// bindings run `quillet --press` and `--release`, the words land in a native Wayland
// GTK window, through AT-SPI or, for a window not on the accessibility bus, through
// wl-copy and a wtype paste keystroke; the window keeps the keyboard throughout.
class TestProgramWayland : public QObject
{
    Q_OBJECT
private:
    // Holds the Menu key on a virtual keyboard of its own for this long: sway runs the
    // press binding at once and the release binding when it lets go.
    void holdMenuKey(int ms)
    {
        m_holder.start(u"wtype"_s, { u"-P"_s, u"Menu"_s, u"-s"_s, QString::number(ms), u"-p"_s, u"Menu"_s });
        QVERIFY(m_holder.waitForStarted(5000));
    }

    // One dictation of the clip, held through the binding; the text recorded for it.
    std::optional<QString> dictate()
    {
        const qsizetype from = m_program->lineCount();
        const int holdMs = 2000 + int(m_clipSeconds * 1000) + 600;
        holdMenuKey(holdMs);
        if (!m_program->waitForLine(u"🎤 [Quillet] audio capture started"_s, from))
            return std::nullopt;
        // A new virtual keyboard on the seat (the holder's) makes sway send the focused window
        // a leave and an enter before its first key: that flicker is the test's, not ours.
        if (m_field)
            m_field->takeEvents();
        m_capsuleSeen = capsuleVisible();
        m_focusKeptWhileCapsuleShows = m_field && m_field->hasFocus(u"entry"_s);
        if (Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, m_dir.filePath(u"speech.wav"_s) }) != 0)
            return std::nullopt;
        if (!m_program->waitForLine(u"🛑 [Quillet] hotkeyEnded"_s, from, holdMs + 5000))
            return std::nullopt;
        m_holder.waitForFinished(5000);
        if (!m_program->waitForLine(u"🏁 [Quillet] transcriptionDidEnd"_s, from))
            return std::nullopt;
        std::optional<QString> recorded;
        if (!QTest::qWaitFor([&] { return (recorded = m_program->newestHistoryText()).has_value(); }, 10000))
            return std::nullopt;
        return recorded;
    }

    // A new Quillet on the test's backend, with fn as its hotkey, in place of the one before
    // (which ends first: only one runs at a time). Not started yet.
    void replaceProgram()
    {
        m_program.reset();
        m_program = std::make_unique<QuilletProgram>(QStringLiteral(QUILLET_BINARY),
            m_server->apiUrl(QString()).toString(QUrl::StripTrailingSlash),
            m_server->siteUrl(QString()).toString(QUrl::StripTrailingSlash),
            QStringList { u"hotkey=fn"_s, u"onboarding.complete=true"_s });
    }

    // Waits for the portal backend to write a line starting with this, after `from` bytes of its output.
    bool waitForBackend(const QByteArray& prefix, qsizetype from = 0)
    {
        return QTest::qWaitFor(
            [&] {
                m_backendOutput += m_backend.readAllStandardOutput();
                for (const QByteArray& line : m_backendOutput.mid(from).split('\n')) {
                    if (line.startsWith(prefix))
                        return true;
                }
                return false;
            },
            10000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCOMPARE(qEnvironmentVariable("XDG_SESSION_TYPE"), u"wayland"_s);
        QVERIFY(QFile::exists(clip));
        QVERIFY(Desktop::run(u"sox"_s, { clip, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, m_dir.filePath(u"speech.wav"_s) })
            == 0);
        QByteArray seconds;
        QCOMPARE(Desktop::run(u"soxi"_s, { u"-D"_s, m_dir.filePath(u"speech.wav"_s) }, &seconds), 0);
        m_clipSeconds = seconds.trimmed().toDouble();
        QVERIFY(m_clipSeconds > 1);

        QString error;
        m_server = std::make_unique<ServerProcess>();
        QVERIFY2(m_server->start(&error), qPrintable(error));
        replaceProgram();

        // Before it runs, a binding has nobody to hand its press to.
        QByteArray output;
        QCOMPARE(m_program->runAgain({ u"--press"_s }, &output), 1);
        QVERIFY2(output.contains("Quillet is not running"), output.constData());

        QVERIFY(m_program->start());
        QVERIFY(m_program->waitForLine(
            u"▶️ [Quillet] desktop session wayland: hotkey from the GlobalShortcuts portal where the desktop has "
            "one, and from compositor bindings (quillet --press, --release, --toggle); text through AT-SPI, else "
            "wl-copy and a wtype paste keystroke; capsule as an override-redirect "
            "window through Xwayland"_s));

        Http http;
        const TokenPair pair = signInThroughSite(http, *m_server, &error);
        QVERIFY2(!pair.deepLink.isEmpty(), qPrintable(error));
        QCOMPARE(m_program->runAgain({ pair.deepLink }), 0);

        // The README's sway snippet.
        const QString quillet = QStringLiteral(QUILLET_BINARY);
        QVERIFY(sway(u"bindsym --no-repeat Menu exec %1 --press"_s.arg(quillet)));
        QVERIFY(sway(u"bindsym --release Menu exec %1 --release"_s.arg(quillet)));
    }

    void heldBindingDictatesIntoANativeWindowThatKeepsTheFocus()
    {
        m_field = std::make_unique<FieldApp>(QStringLiteral(QUILLET_GTK_FIELDS));
        m_field->setEnvironmentVariable(u"GDK_BACKEND"_s, u"wayland"_s);
        QVERIFY(m_field->start());
        QVERIFY(m_field->focus(u"entry"_s));
        QVERIFY(m_field->set(u"entry"_s, QString(), 0, 0));
        m_field->takeEvents();

        const std::optional<QString> recorded = dictate();
        QVERIFY(recorded);
        QVERIFY(!recorded->isEmpty());
        const auto shown = m_field->waitForText(u"entry"_s, *recorded);
        QVERIFY(shown);
        QCOMPARE(shown->text, *recorded);
        int known = 0;
        for (const QString& word : { u"was"_s, u"not"_s, u"young"_s, u"man"_s })
            known += recorded->contains(word, Qt::CaseInsensitive) ? 1 : 0;
        QVERIFY2(known >= 2, qPrintable(*recorded));

        // The capsule was up while the entry had the keyboard, and the entry never lost it.
        QVERIFY(m_capsuleSeen);
        QVERIFY(m_focusKeptWhileCapsuleShows);
        QVERIFY(m_field->hasFocus(u"entry"_s));
        const QStringList events = m_field->takeEvents();
        QVERIFY2(events.filter(u"unfocus"_s).isEmpty(), qPrintable(events.join(u", "_s)));
        bool viaAccessibility = false;
        for (const QuilletProgram::Line& line : m_program->lines())
            viaAccessibility = viaAccessibility || line.text == u"   → AX insert succeeded"_s;
        QVERIFY(viaAccessibility);
    }

    void aWindowOffTheAccessibilityBusGetsAPasteAndTheClipboardBack()
    {
        // Wait out the previous dictation's completion, or the press is refused.
        QTest::qWait(2000);
        m_field.reset();
        m_field = std::make_unique<FieldApp>(QStringLiteral(QUILLET_GTK_FIELDS));
        m_field->setEnvironmentVariable(u"GDK_BACKEND"_s, u"wayland"_s);
        m_field->setEnvironmentVariable(u"NO_AT_BRIDGE"_s, u"1"_s);
        QVERIFY(m_field->start());
        QVERIFY(m_field->focus(u"entry"_s));
        QVERIFY(m_field->set(u"entry"_s, QString(), 0, 0));
        QCOMPARE(Desktop::run(u"wl-copy"_s, { u"--type"_s, u"text/plain"_s }, nullptr, "previous words"), 0);
        m_field->takeEvents();

        const qsizetype from = m_program->lineCount();
        const std::optional<QString> recorded = dictate();
        QVERIFY(recorded);
        const auto shown = m_field->waitForText(u"entry"_s, *recorded);
        QVERIFY(shown);
        QCOMPARE(shown->text, *recorded);
        QVERIFY(m_program->waitForLine(u"   → AX failed, falling back to clipboard paste"_s, from));
        // A paste is a key press the window saw: Control+V from the virtual keyboard.
        QVERIFY(m_field->takeEvents().contains(u"key v control"_s));

        // 0.3 s after the paste the clipboard holds what it held before.
        QByteArray clipboard;
        QVERIFY(QTest::qWaitFor(
            [&] {
                return Desktop::run(u"wl-paste"_s, { u"--no-newline"_s }, &clipboard) == 0
                    && clipboard == "previous words";
            },
            5000));
        QVERIFY(m_field->hasFocus(u"entry"_s));
    }

    void theAppIdReachesThePortalBeforeAnythingElse()
    {
        // A stand-in for the portal frontend that sees every call and holds the answer to
        // Register until told.
        QProcess frontend;
        frontend.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        frontend.start(QStringLiteral(QUILLET_FAKE_PORTAL), { u"--frontend"_s });
        QVERIFY(frontend.waitForStarted(5000));
        QByteArray seen;
        const auto waitForFrontend = [&](const QByteArray& prefix) {
            return QTest::qWaitFor(
                [&] {
                    seen += frontend.readAllStandardOutput();
                    return seen.split('\n').contains(prefix);
                },
                10000);
        };
        QVERIFY(waitForFrontend("ready"));

        replaceProgram();
        QVERIFY(m_program->launch());
        QVERIFY(waitForFrontend("register " QUILLET_APP_ID));
        // While the portal has not answered, Quillet has not gone on to make its application
        // object: it has not even said which session it runs in.
        QTest::qWait(500);
        for (const QuilletProgram::Line& line : m_program->lines())
            QVERIFY2(!line.text.contains(u"desktop session"_s), qPrintable(line.text));
        frontend.write("answer\n");
        QVERIFY(m_program->waitForLine(u"▶️ [Quillet] desktop session wayland"_s));
        // The shortcut's session is asked for after that, never before.
        QVERIFY(waitForFrontend("call org.freedesktop.portal.GlobalShortcuts.CreateSession"));
        const QList<QByteArray> calls = seen.split('\n');
        QCOMPARE(calls.value(1), QByteArray("register " QUILLET_APP_ID));
        // The desktop had no shortcut to give: Quillet says so and goes on.
        QVERIFY(
            m_program->waitForLine(u"🔑 [Quillet] GlobalShortcuts portal: the desktop has no GlobalShortcuts portal"_s));
        m_program.reset();
        frontend.closeWriteChannel();
        frontend.terminate();
        QVERIFY(frontend.waitForFinished(5000));
    }

    void theDesktopsPortalShortcutHoldsAndDoubleTaps()
    {
        QTest::qWait(2000);
        // The real portal frontend, with our backend as the desktop's GlobalShortcuts.
        const QString portals = m_dir.filePath(u"portals"_s);
        QVERIFY(QDir().mkpath(portals));
        QFile description(portals + u"/quillettest.portal"_s);
        QVERIFY(description.open(QIODevice::WriteOnly));
        description.write("[portal]\nDBusName=org.freedesktop.impl.portal.desktop.quillettest\n"
                          "Interfaces=org.freedesktop.impl.portal.GlobalShortcuts;\nUseIn=sway\n");
        description.close();
        m_backend.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_backend.start(QStringLiteral(QUILLET_FAKE_PORTAL), {});
        QVERIFY(m_backend.waitForStarted(5000));
        QVERIFY(waitForBackend("ready"));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"XDG_DESKTOP_PORTAL_DIR"_s, portals);
        m_frontend.setProcessEnvironment(environment);
        m_frontend.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_frontend.setStandardOutputFile(QProcess::nullDevice());
        m_frontend.start(u"/usr/libexec/xdg-desktop-portal"_s, { u"--replace"_s });
        QVERIFY(m_frontend.waitForStarted(5000));
        QVERIFY(QTest::qWaitFor(
            [] {
                return QDBusConnection::sessionBus().interface()->isServiceRegistered(
                    u"org.freedesktop.portal.Desktop"_s);
            },
            10000));
        QTest::qWait(500); // the frontend takes its name before it has read its backends

        // A Quillet started now binds "dictate" through the portal, with fn's stand-in as its wish.
        replaceProgram();
        QVERIFY(m_program->start());
        QVERIFY(waitForBackend("bound dictate Menu|Hold to dictate"));
        QVERIFY(m_program->waitForLine(u"🔑 [Quillet] GlobalShortcuts portal: \"Hold to dictate\" is bound to Menu"_s));
        // The user gives it another key in the desktop's settings: the frontend passes ShortcutsChanged on.
        m_backend.write("rebind Ctrl+Alt+D\n");
        QVERIFY(m_program->waitForLine(
            u"🔑 [Quillet] GlobalShortcuts portal: \"Hold to dictate\" is bound to Ctrl+Alt+D"_s));

        m_field.reset();
        m_field = std::make_unique<FieldApp>(QStringLiteral(QUILLET_GTK_FIELDS));
        m_field->setEnvironmentVariable(u"GDK_BACKEND"_s, u"wayland"_s);
        QVERIFY(m_field->start());
        QVERIFY(m_field->focus(u"entry"_s));
        QVERIFY(m_field->set(u"entry"_s, QString(), 0, 0));

        // Hold: Activated is the press, Deactivated the release.
        qsizetype from = m_program->lineCount();
        m_backend.write("press\n");
        QVERIFY(m_program->waitForLine(u"🔑 [Quillet] shortcut pressed hotkey=fn"_s, from));
        QVERIFY(m_program->waitForLine(u"🎤 [Quillet] audio capture started"_s, from));
        QCOMPARE(Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, m_dir.filePath(u"speech.wav"_s) }), 0);
        m_backend.write("release\n");
        QVERIFY(m_program->waitForLine(u"🛑 [Quillet] hotkeyEnded"_s, from));
        QVERIFY(m_program->waitForLine(u"🏁 [Quillet] transcriptionDidEnd"_s, from));
        std::optional<QString> recorded;
        QVERIFY(QTest::qWaitFor([&] { return (recorded = m_program->newestHistoryText()).has_value(); }, 10000));
        const auto shown = m_field->waitForText(u"entry"_s, *recorded);
        QVERIFY(shown);
        QCOMPARE(shown->text, *recorded);

        // Two quick presses: the second asks for tone mode, as a double tap of fn does.
        QTest::qWait(2000);
        from = m_program->lineCount();
        m_backend.write("press\nrelease\n");
        QVERIFY(m_program->waitForLine(u"🛑 [Quillet] hotkeyEnded"_s, from));
        m_backend.write("press\n");
        QVERIFY(m_program->waitForLine(u"🎙️ [Quillet] hotkeyBegan toneMode=true"_s, from));
        QVERIFY(m_program->waitForLine(u"▶️ [Quillet] DictationSession.start (tone=true)"_s, from));
        QVERIFY(m_program->waitForLine(u"🎤 [Quillet] audio capture started"_s, from));
        QCOMPARE(Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, m_dir.filePath(u"speech.wav"_s) }), 0);
        QVERIFY(m_field->set(u"entry"_s, QString(), 0, 0));
        m_backend.write("release\n");
        QVERIFY(m_program->waitForLine(u"🏁 [Quillet] transcriptionDidEnd"_s, from));

        // The capsule offers the tones: a click on the first, "Professional", through Xwayland.
        std::optional<QRect> capsule;
        QVERIFY(QTest::qWaitFor([&] { return (capsule = capsuleGeometry()).has_value() && capsule->height() > 56; }));
        // The capsule grows into the picker: click once its size has settled.
        std::optional<QRect> settled;
        QVERIFY(QTest::qWaitFor([&] {
            QTest::qWait(150);
            settled = capsuleGeometry();
            const bool same = settled && *settled == *capsule;
            if (settled)
                capsule = settled;
            return same;
        }));
        // Padding, the header row (title and close control, 18 high), spacing, half a button.
        const QPoint professional = capsule->topLeft() + QPoint(16 + 46, 12 + 18 + 8 + 11);
        QCOMPARE(Desktop::run(u"xdotool"_s,
                     { u"mousemove"_s, QString::number(professional.x()), QString::number(professional.y()), u"click"_s,
                         u"1"_s }),
            0);
        QVERIFY(m_program->waitForLine(u"✏️ [Quillet] TextInserter.insert"_s, from));
        QVERIFY(QTest::qWaitFor([&] { return (recorded = m_program->newestHistoryText()).has_value(); }, 10000));
        const auto rewritten = m_field->waitForText(u"entry"_s, *recorded);
        QVERIFY(rewritten);
        QCOMPARE(rewritten->text, *recorded);
        QVERIFY(m_field->hasFocus(u"entry"_s));
    }

    void aSecondStartReusesTheShortcutTheDesktopRemembers()
    {
        // The desktop remembers "dictate" and the key the user gave it (Ctrl+Alt+D, in the
        // test before): a new start takes that as it is, and binds nothing again.
        m_backendOutput += m_backend.readAllStandardOutput();
        const qsizetype from = m_backendOutput.size();
        replaceProgram();
        QVERIFY(m_program->start());
        QVERIFY(waitForBackend("listed dictate", from));
        QVERIFY(m_program->waitForLine(
            u"🔑 [Quillet] GlobalShortcuts portal: \"Hold to dictate\" is bound to Ctrl+Alt+D"_s));
        m_backendOutput += m_backend.readAllStandardOutput();
        QVERIFY2(!m_backendOutput.mid(from).contains("bound "), m_backendOutput.mid(from).constData());

        // And the remembered shortcut still works.
        const qsizetype lines = m_program->lineCount();
        m_backend.write("press\n");
        QVERIFY(m_program->waitForLine(u"🔑 [Quillet] shortcut pressed hotkey=fn"_s, lines));
        m_backend.write("release\n");
        QVERIFY(m_program->waitForLine(u"🛑 [Quillet] hotkeyEnded"_s, lines));
    }

    void cleanup()
    {
        // What the program said is the first thing to read when a dictation went wrong.
        if (QTest::currentTestFailed() && m_program) {
            for (const QuilletProgram::Line& line : m_program->lines())
                std::fprintf(stderr, "quillet: %s\n", qPrintable(line.text));
        }
    }

    void cleanupTestCase()
    {
        m_backend.closeWriteChannel();
        for (QProcess* helper : { &m_backend, &m_frontend }) {
            if (helper->state() == QProcess::NotRunning)
                continue;
            helper->terminate();
            if (!helper->waitForFinished(3000))
                helper->kill();
            helper->waitForFinished(2000);
        }
        if (m_holder.state() != QProcess::NotRunning)
            m_holder.kill();
        m_holder.waitForFinished(2000);
        m_field.reset();
        m_program.reset();
        m_server.reset();
    }

private:
    QTemporaryDir m_dir;
    double m_clipSeconds = 0;
    std::unique_ptr<ServerProcess> m_server;
    std::unique_ptr<QuilletProgram> m_program;
    std::unique_ptr<FieldApp> m_field;
    QProcess m_holder;
    QProcess m_backend;
    QProcess m_frontend;
    QByteArray m_backendOutput;
    bool m_capsuleSeen = false;
    bool m_focusKeptWhileCapsuleShows = false;
};

QTEST_GUILESS_MAIN(TestProgramWayland)
#include "tst_program_wayland.moc"
