#include "FieldApp.h"
#include "ServerProcess.h"
#include "support/QuilletProgram.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QtTest>

#include <cstdio>
#include <memory>
#include <vector>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString clip = u"/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav"_s;

const QString portalReady = u"✏️ [Quillet] RemoteDesktop portal: the paste keystroke is ready"_s;

bool kwinInstalled()
{
    return !QStandardPaths::findExecutable(u"kwin_wayland"_s).isEmpty();
}

// The version of the running portal frontend's RemoteDesktop interface; 0 when it does not say.
uint remoteDesktopVersion()
{
    QDBusMessage get = QDBusMessage::createMethodCall(u"org.freedesktop.portal.Desktop"_s,
        u"/org/freedesktop/portal/desktop"_s, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    get << u"org.freedesktop.portal.RemoteDesktop"_s << u"version"_s;
    const QDBusMessage reply = QDBusConnection::sessionBus().call(get, QDBus::Block, 5000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return 0;
    return reply.arguments().constFirst().value<QDBusVariant>().variant().toUInt();
}

} // namespace

// The program on KDE's compositor (headless KWin 5.27 with Xwayland, KDE's portal backend
// behind the real xdg-desktop-portal frontend): KWin takes no virtual keyboard, so for a
// native Wayland window that is not on the accessibility bus the text goes through
// wl-copy and a Control+V sent through the RemoteDesktop portal, opened when Quillet
// starts. The hotkey comes as `quillet --press` and `--release`, as a desktop shortcut
// or a test would send it. Last, a stand-in frontend whose RemoteDesktop can remember
// the consent (version 2, newer than Debian 12's) shows the app id registered first, the
// restore token kept and handed back, and a declined request leaving the text on the
// clipboard.
class TestProgramKwin : public QObject
{
    Q_OBJECT
private:
    // One dictation of the clip into the focused window; the text recorded for it.
    std::optional<QString> dictate()
    {
        const qsizetype from = m_program->lineCount();
        if (m_program->runAgain({ u"--press"_s }) != 0)
            return std::nullopt;
        if (!m_program->waitForLine(u"🎤 [Quillet] audio capture started"_s, from))
            return std::nullopt;
        if (Desktop::run(u"paplay"_s, { u"-d"_s, u"mic_feed"_s, m_dir.filePath(u"speech.wav"_s) }) != 0)
            return std::nullopt;
        if (m_program->runAgain({ u"--release"_s }) != 0)
            return std::nullopt;
        if (!m_program->waitForLine(u"🏁 [Quillet] transcriptionDidEnd"_s, from))
            return std::nullopt;
        std::optional<QString> recorded;
        if (!QTest::qWaitFor([&] { return (recorded = m_program->newestHistoryText()).has_value(); }, 10000))
            return std::nullopt;
        return recorded;
    }

    // A native Wayland GTK window whose entry has the focus, not on the accessibility bus.
    bool openWindowOffTheAccessibilityBus()
    {
        m_field.reset();
        m_field = std::make_unique<FieldApp>(QStringLiteral(QUILLET_GTK_FIELDS));
        m_field->setEnvironmentVariable(u"GDK_BACKEND"_s, u"wayland"_s);
        m_field->setEnvironmentVariable(u"NO_AT_BRIDGE"_s, u"1"_s);
        return m_field->start() && m_field->focus(u"entry"_s) && m_field->set(u"entry"_s, QString(), 0, 0);
    }

    // A dictation into the window through the clipboard and the portal's paste keystroke,
    // with the clipboard's previous text back afterwards.
    void dictationIsPastedAndTheClipboardComesBack(const QByteArray& previous)
    {
        QCOMPARE(Desktop::run(u"wl-copy"_s, { u"--type"_s, u"text/plain"_s }, nullptr, previous), 0);
        m_field->takeEvents();
        const qsizetype from = m_program->lineCount();
        const std::optional<QString> recorded = dictate();
        QVERIFY(recorded);
        QVERIFY(!recorded->isEmpty());
        const auto shown = m_field->waitForText(u"entry"_s, *recorded);
        // A paste is a key press the window saw: Control+V, from the portal's keyboard.
        const QStringList events = m_field->takeEvents();
        QVERIFY(shown);
        QVERIFY2(shown->text == *recorded, qPrintable(shown->text + u" | keys: "_s + events.join(u", "_s)));
        QVERIFY(m_program->waitForLine(u"   → AX failed, falling back to clipboard paste"_s, from));
        QVERIFY2(events.contains(u"key v control"_s), qPrintable(events.join(u", "_s)));

        // 0.3 s after the paste the clipboard holds what it held before.
        QByteArray clipboard;
        QVERIFY(QTest::qWaitFor(
            [&] {
                return Desktop::run(u"wl-paste"_s, { u"--no-newline"_s }, &clipboard) == 0 && clipboard == previous;
            },
            5000));
        QVERIFY(m_field->hasFocus(u"entry"_s));
    }

    // Waits for the stand-in portal to write a line starting with this.
    bool waitForPortal(const QByteArray& prefix)
    {
        return QTest::qWaitFor(
            [&] {
                m_portalOutput += m_portal.readAllStandardOutput();
                for (const QByteArray& line : m_portalOutput.split('\n')) {
                    if (line.startsWith(prefix))
                        return true;
                }
                return false;
            },
            10000);
    }

    // The restore token Quillet keeps, as its file holds it.
    QString keptToken() const
    {
        QFile token(m_tokenFile);
        if (!token.open(QIODevice::ReadOnly))
            return QString();
        return QString::fromUtf8(token.readAll()).trimmed();
    }

    void startProgram()
    {
        const QString api = m_server->apiUrl(QString()).toString(QUrl::StripTrailingSlash);
        const QString site = m_server->siteUrl(QString()).toString(QUrl::StripTrailingSlash);
        m_program = std::make_unique<QuilletProgram>(
            QStringLiteral(QUILLET_BINARY), api, site, QStringList { u"hotkey=fn"_s, u"onboarding.complete=true"_s });
        QVERIFY(m_program->start());
        QString error;
        Http http;
        const TokenPair pair = signInThroughSite(http, *m_server, &error);
        QVERIFY2(!pair.deepLink.isEmpty(), qPrintable(error));
        QCOMPARE(m_program->runAgain({ pair.deepLink }), 0);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!kwinInstalled())
            QSKIP("KWin is not installed (package kwin-wayland, which scripts/install-deps.sh installs)");
        QCOMPARE(qEnvironmentVariable("XDG_CURRENT_DESKTOP"), u"KDE"_s);
        QVERIFY(QFile::exists(clip));
        QVERIFY(Desktop::run(u"sox"_s, { clip, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, m_dir.filePath(u"speech.wav"_s) })
            == 0);
        m_tokenFile = qEnvironmentVariable("XDG_STATE_HOME") + u"/quillet/remote-desktop-token"_s;
        QVERIFY(!QFile::exists(m_tokenFile));

        QString error;
        m_server = std::make_unique<ServerProcess>();
        QVERIFY2(m_server->start(&error), qPrintable(error));
        startProgram();
        // KWin offers data-control but no virtual keyboard; its portal offers a keyboard.
        QVERIFY(m_program->waitForLine(
            u"▶️ [Quillet] desktop session wayland: hotkey from the GlobalShortcuts portal where the desktop has "
            "one, and from compositor bindings (quillet --press, --release, --toggle); text through AT-SPI, else "
            "wl-copy and a paste keystroke through the RemoteDesktop portal; capsule as an override-redirect "
            "window through Xwayland"_s));
        // The session is opened at start, with no dialog on this desktop.
        QVERIFY(m_program->waitForLine(portalReady));
    }

    void aWindowOffTheAccessibilityBusGetsAPortalPasteAndTheClipboardBack()
    {
        QVERIFY(openWindowOffTheAccessibilityBus());
        dictationIsPastedAndTheClipboardComesBack("previous words");
    }

    void theDesktopsPermissionIsKeptWhereThePortalCanKeepIt()
    {
        // xdg-desktop-portal before RemoteDesktop version 2 (Debian 12 ships 1.16) gives
        // no restore token: nothing is written, and the log says a dialog would come again.
        const uint version = remoteDesktopVersion();
        QVERIFY(version >= 1);
        if (version < 2) {
            QVERIFY(m_program->waitForLine(
                portalReady + u"; this portal keeps no permission between starts (it gave no restore token)"_s));
            QVERIFY(!QFile::exists(m_tokenFile));
            return;
        }
        QVERIFY(m_program->waitForLine(portalReady + u"; its permission is kept in "_s + m_tokenFile));
        QFile token(m_tokenFile);
        QVERIFY(token.exists());
        QCOMPARE(token.permissions() & ~(QFileDevice::ReadUser | QFileDevice::WriteUser),
            QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    }

    void aSecondStartOpensItsSessionAgain()
    {
        QTest::qWait(2000); // the previous dictation's completion, or the press is refused
        m_program.reset();
        startProgram();
        QVERIFY(m_program->waitForLine(portalReady));
        QVERIFY(openWindowOffTheAccessibilityBus());
        dictationIsPastedAndTheClipboardComesBack("words from before the second start");
    }

    void aSessionLostWithThePortalIsOpenedAgain()
    {
        QTest::qWait(2000);
        // A new portal frontend takes the name over: the old one's sessions end with it.
        const qsizetype from = m_program->lineCount();
        m_frontend.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_frontend.setStandardOutputFile(QProcess::nullDevice());
        m_frontend.setStandardErrorFile(QProcess::nullDevice());
        m_frontend.start(u"/usr/libexec/xdg-desktop-portal"_s, { u"--replace"_s });
        QVERIFY(m_frontend.waitForStarted(5000));
        QVERIFY(m_program->waitForLine(u"⚠️ [Quillet] RemoteDesktop portal: the portal went away"_s, from));
        QVERIFY(m_program->waitForLine(portalReady, from));
        QVERIFY(openWindowOffTheAccessibilityBus());
        dictationIsPastedAndTheClipboardComesBack("words from before the new portal");
    }

    void aPortalThatRemembersGetsItsRestoreTokenBack()
    {
        QTest::qWait(2000);
        // A frontend whose RemoteDesktop is version 2 takes the portal's name over.
        m_program.reset();
        m_portal.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_portal.start(QStringLiteral(QUILLET_FAKE_REMOTE_DESKTOP_PORTAL), {});
        QVERIFY(m_portal.waitForStarted(5000));
        QVERIFY(waitForPortal("ready"));
        startProgram();
        // The app id first, where the portal takes one: the consent is for Quillet by name.
        QVERIFY(waitForPortal("create"));
        const QList<QByteArray> first = m_portalOutput.split('\n').mid(0, 3);
        QCOMPARE(first, (QList<QByteArray> { "ready", "register " QUILLET_APP_ID, "create" }));
        // The keyboard alone, kept until revoked; nothing to restore yet.
        QVERIFY(waitForPortal("select 1 2 -"));
        QVERIFY(waitForPortal("start token-1"));
        QVERIFY(m_program->waitForLine(portalReady + u"; its permission is kept in "_s + m_tokenFile));
        QCOMPARE(keptToken(), u"token-1"_s);
        QFile token(m_tokenFile);
        QCOMPARE(token.permissions() & ~(QFileDevice::ReadUser | QFileDevice::WriteUser),
            QFileDevice::ReadOwner | QFileDevice::WriteOwner);

        // A dictation's paste: the chord's four edges, in order.
        QVERIFY(openWindowOffTheAccessibilityBus());
        QVERIFY(dictate());
        QVERIFY(waitForPortal("key 65507 0"));
        QList<QByteArray> keys;
        for (const QByteArray& line : m_portalOutput.split('\n')) {
            if (line.startsWith("key "))
                keys.append(line);
        }
        QCOMPARE(keys, (QList<QByteArray> { "key 65507 1", "key 118 1", "key 118 0", "key 65507 0" }));

        // The next start hands the token back, and keeps the new one.
        QTest::qWait(2000);
        m_program.reset();
        startProgram();
        QVERIFY(waitForPortal("select 1 2 token-1"));
        QVERIFY(m_program->waitForLine(portalReady + u"; its permission is kept in "_s + m_tokenFile));
        QCOMPARE(keptToken(), u"token-2"_s);

        // The desktop closes the session: it is asked again, with the newest token.
        const qsizetype from = m_program->lineCount();
        m_portal.write("close\n");
        QVERIFY(m_program->waitForLine(
            u"⚠️ [Quillet] RemoteDesktop portal: the desktop closed the session; asking for a new one"_s, from));
        QVERIFY(waitForPortal("select 1 2 token-2"));
        QVERIFY(m_program->waitForLine(portalReady, from));
        QCOMPARE(keptToken(), u"token-3"_s);
    }

    void declinedTheTextStaysOnTheClipboard()
    {
        QTest::qWait(2000);
        // The user says no in the desktop's dialog.
        m_portal.write("refuse\n");
        m_program.reset();
        startProgram();
        QVERIFY(waitForPortal("start refused"));
        QVERIFY(m_program->waitForLine(
            u"⚠️ [Quillet] RemoteDesktop portal: you declined the desktop's request to send keys; text AT-SPI "
            "cannot insert is left on the clipboard, to paste by hand"_s));
        QVERIFY(openWindowOffTheAccessibilityBus());
        const qsizetype keysBefore = m_portalOutput.count("key ");
        const qsizetype from = m_program->lineCount();
        const std::optional<QString> recorded = dictate();
        QVERIFY(recorded);
        QVERIFY(!recorded->isEmpty());
        QVERIFY(m_program->waitForLine(
            u"   → no paste keystroke on this desktop: the text is left on the clipboard"_s, from));
        QByteArray clipboard;
        QVERIFY(QTest::qWaitFor(
            [&] {
                return Desktop::run(u"wl-paste"_s, { u"--no-newline"_s }, &clipboard) == 0
                    && QString::fromUtf8(clipboard) == *recorded;
            },
            5000));
        // Nothing was typed, and the window's text is its own.
        m_portalOutput += m_portal.readAllStandardOutput();
        QCOMPARE(m_portalOutput.count("key "), keysBefore);
        QCOMPARE(m_field->content(u"entry"_s)->text, QString());
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
        m_field.reset();
        m_program.reset();
        m_server.reset();
        m_portal.closeWriteChannel();
        for (QProcess* helper : { &m_frontend, &m_portal }) {
            if (helper->state() == QProcess::NotRunning)
                continue;
            helper->terminate();
            if (!helper->waitForFinished(3000))
                helper->kill();
            helper->waitForFinished(2000);
        }
    }

private:
    QTemporaryDir m_dir;
    QString m_tokenFile;
    std::unique_ptr<ServerProcess> m_server;
    std::unique_ptr<QuilletProgram> m_program;
    std::unique_ptr<FieldApp> m_field;
    QProcess m_frontend;
    QProcess m_portal;
    QByteArray m_portalOutput;
};

int main(int argc, char** argv)
{
    // ctest starts this outside any desktop: it brings up the headless KWin desktop and
    // runs itself again inside it. Without KWin it runs here, to say why it skips.
    if (!qEnvironmentVariableIsSet("QUILLET_DESKTOP_SESSION") && kwinInstalled()) {
        std::vector<char*> arguments { const_cast<char*>(QUILLET_DESKTOP_SESSION_SCRIPT), const_cast<char*>("--kwin"),
            const_cast<char*>("--") };
        for (int i = 0; i < argc; ++i)
            arguments.push_back(argv[i]);
        arguments.push_back(nullptr);
        execv(QUILLET_DESKTOP_SESSION_SCRIPT, arguments.data());
        std::perror(QUILLET_DESKTOP_SESSION_SCRIPT);
        return 1;
    }
    QCoreApplication application(argc, argv);
    TestProgramKwin test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_program_kwin.moc"
