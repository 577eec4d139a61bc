// One dictation with every part real: quillet-server on loopback (signed in through
// its web pages, tokens in the session's secret store), the headless desktop's
// PulseAudio microphone fed with recorded speech, the capsule on the X server, the
// clean-up and rewrite services, the history in a private settings file and the
// text inserted over AT-SPI into a focused GTK 3 entry.
#include "FieldApp.h"
#include "HUDProbe.h"
#include "ServerProcess.h"
#include "StdoutCapture.h"
#include "TestInfoFile.h"
#include "dictation/DictationSession.h"
#include "dictation/TextInserter.h"
#include "services/HistoryManager.h"
#include "services/KeychainHelper.h"
#include "services/Log.h"
#include "services/SettingsStore.h"
#include "ui/HUDState.h"
#include "ui/HUDWindowController.h"

#include <QApplication>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QSet>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

const QString librivox = u"/usr/share/pocketsphinx/test/data/librivox/"_s;
const QString captureStarted = u"🎤 [Quillet] audio capture started"_s;
const QString closedBeforeResponse = u"Connection closed before any response. Check backend or token."_s;

// The clip's words as its transcription file gives them, lower case.
QStringList transcriptOf(const QString& clip)
{
    QFile file(librivox + u"transcription"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n');
    for (const QString& line : lines) {
        if (!line.endsWith(u'(' + clip + u')'))
            continue;
        QString words = line.left(line.lastIndexOf(u'('));
        words.remove(u"<s>"_s).remove(u"</s>"_s);
        return words.simplified().split(u' ', Qt::SkipEmptyParts);
    }
    return {};
}

QSet<QString> wordsOf(const QString& text)
{
    static const QRegularExpression nonLetters(u"[^a-z']+"_s);
    const QStringList words = text.toLower().split(nonLetters, Qt::SkipEmptyParts);
    return QSet<QString>(words.begin(), words.end());
}

// What one session did, as its owner and a viewer of the capsule see it.
struct Observed {
    int completions = 0;
    QList<HUDMode::Kind> modes;
};

} // namespace

class TestDictationSessionReal : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    ServerProcess m_server;
    std::unique_ptr<TestInfoFile> m_info;
    std::unique_ptr<FieldApp> m_gtk;
    QString m_accessToken;

    // Points the client at this server and stores a pair of tokens from its sign-in page.
    QString useServer(ServerProcess& server)
    {
        QString error;
        if (!server.isRunning() && !server.start(&error))
            return error;
        Http http;
        const TokenPair pair = signInThroughSite(http, server, &error);
        if (!error.isEmpty())
            return error;
        m_info.reset(); // its destructor restores the default lookup
        m_info = std::make_unique<TestInfoFile>(QJsonObject { { u"API_BASE_URL"_s, server.apiUrl({}).toString() } });
        KeychainHelper::save(KeychainHelper::accessTokenKey, pair.access);
        KeychainHelper::save(KeychainHelper::refreshTokenKey, pair.refresh);
        if (KeychainHelper::load(KeychainHelper::accessTokenKey) != pair.access)
            return u"the secret store did not keep the access token"_s;
        m_accessToken = pair.access;
        return {};
    }

    // The clip as a 48 kHz stereo file, what a desktop microphone usually delivers.
    QString speechFile(const QString& clip)
    {
        const QString path = m_dir.filePath(clip + u"-48k.wav"_s);
        if (QFile::exists(path))
            return path;
        const int rc
            = Desktop::run(u"sox"_s, { librivox + clip + u".wav"_s, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s, path });
        return rc == 0 ? path : QString();
    }

    std::shared_ptr<DictationSession> makeSession(bool toneMode, Observed& observed)
    {
        auto session = DictationSession::create(
            toneMode, [&observed] { ++observed.completions; }, DictationEnvironment::system());
        HUDState& state = session->hud().hudState();
        observed.modes.append(state.kind());
        connect(&state, &HUDState::modeChanged, this, [&observed, &state] { observed.modes.append(state.kind()); });
        return session;
    }

    static HUDWindowController& controllerOf(DictationSession& session)
    {
        return dynamic_cast<HUDWindowController&>(session.hud());
    }

    // Speaks the clip into the virtual microphone in real time; true once it has played.
    bool speak(const QString& file) { return Desktop::run(u"paplay"_s, { u"-d"_s, micSink(), file }) == 0; }

    static QString micSink()
    {
        const QString sink = qEnvironmentVariable("QUILLET_MIC_SINK");
        return sink.isEmpty() ? u"mic_feed"_s : sink;
    }

    // The newest history entry's text, or nothing.
    static std::optional<QString> newestHistoryText()
    {
        const QList<HistoryEntry> entries = HistoryManager::shared().entries();
        if (entries.isEmpty())
            return std::nullopt;
        return entries.first().text;
    }

    // One spoken dictation up to the success state; fills in the session for the checks.
    void dictate(bool toneMode, const QString& clip, Observed& observed, std::shared_ptr<DictationSession>& session,
        StdoutCapture& out)
    {
        const QString file = speechFile(clip);
        QVERIFY2(!file.isEmpty(), "sox could not convert the clip");
        session = makeSession(toneMode, observed);
        session->start();
        QTRY_VERIFY_WITH_TIMEOUT(out.lines().contains(captureStarted), 20000);
        QVERIFY(HUDProbe::waitForExposed(controllerOf(*session)));
        QVERIFY(speak(file));
        session->stop();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        Log::makeStdoutUnbuffered();
        SettingsStore::resetShared(std::make_unique<SettingsStore>(
            std::make_unique<QSettings>(m_dir.filePath(u"settings.ini"_s), QSettings::IniFormat)));
        HistoryManager::resetShared(std::make_unique<HistoryManager>(
            std::make_unique<QSettings>(m_dir.filePath(u"history.ini"_s), QSettings::IniFormat)));
        // As the program does: the inserter follows focus events from before the window exists.
        TextInserter::shared();
        QVERIFY(HUDWindowController::preload());

        const QString error = useServer(m_server);
        QVERIFY2(error.isEmpty(), qPrintable(error));

        m_gtk = std::make_unique<FieldApp>(QStringLiteral(QUILLET_GTK_FIELDS));
        QVERIFY(m_gtk->start());
    }

    void init()
    {
        // Every case starts on the running server with an empty, focused entry.
        if (!m_server.isRunning() || !m_info) {
            const QString error = useServer(m_server);
            QVERIFY2(error.isEmpty(), qPrintable(error));
        }
        QVERIFY(m_gtk->focus(u"entry"_s));
        QVERIFY(m_gtk->set(u"entry"_s, QString(), 0, 0));
    }

    void cleanupTestCase()
    {
        m_gtk.reset();
        m_info.reset();
        HistoryManager::resetShared();
        SettingsStore::resetShared();
    }

    void plainDictationInsertsTheRecognisedText()
    {
        const QString clip = u"sense_and_sensibility_01_austen_64kb-0870"_s;
        const qsizetype historyBefore = HistoryManager::shared().entries().size();
        Observed observed;
        std::shared_ptr<DictationSession> session;
        StdoutCapture out;
        dictate(false, clip, observed, session, out);
        if (QTest::currentTestFailed())
            return;
        HUDWindowController& hud = controllerOf(*session);
        QSignalSpy dismissed(&hud, &HUDWindowController::dismissed);

        QTRY_COMPARE_WITH_TIMEOUT(session->hud().hudState().kind(), HUDMode::Kind::success, 30000);
        QCOMPARE(observed.modes,
            (QList<HUDMode::Kind> { HUDMode::Kind::dictating, HUDMode::Kind::cleaning, HUDMode::Kind::success }));
        QVERIFY(!session->hud().hudState().mode().associatedTone());
        QTRY_COMPARE(HUDProbe::item(hud, u"hudText"_s)->property("text").toString(), u"Inserted"_s);

        // The history holds what was inserted, and the entry holds exactly that.
        QCOMPARE(HistoryManager::shared().entries().size(), historyBefore + 1);
        const std::optional<QString> inserted = newestHistoryText();
        QVERIFY(inserted && !inserted->trimmed().isEmpty());
        const auto content = m_gtk->waitForText(u"entry"_s, *inserted);
        QVERIFY(content);
        QCOMPARE(content->text, *inserted);
        QCOMPARE(content->beforeCaret, *inserted);

        // PocketSphinx is not perfect, but what it heard must be this clip.
        const QSet<QString> expected = wordsOf(transcriptOf(clip).join(u' '));
        QVERIFY(!expected.isEmpty());
        qInfo("recognised: %s", qPrintable(*inserted));
        const QSet<QString> shared = wordsOf(*inserted) & expected;
        QVERIFY2(shared.size() >= 4,
            qPrintable(u"recognised \"%1\" shares only %2 words with the clip"_s.arg(*inserted).arg(shared.size())));
        // It is the server's clean-up of the transcript, asked for separately.
        Http http;
        const HttpResult cleanup = http.postJson(m_server.apiUrl(u"/cleanup"_s),
            QJsonObject { { u"text"_s, session->accumulated().trimmed() }, { u"dictionary"_s, QJsonArray() } },
            m_accessToken.toUtf8());
        QCOMPARE(cleanup.status, 200);
        QCOMPARE(*inserted, cleanup.json().value(u"text"_s).toString());

        // The capsule fades out after the success delay, before the owner is told.
        QTRY_COMPARE_WITH_TIMEOUT(dismissed.size(), 1, 5000);
        QVERIFY(!hud.window()->isVisible());
        QTRY_COMPARE_WITH_TIMEOUT(observed.completions, 1, 5000);
        QTest::qWait(500);
        QCOMPARE(observed.completions, 1);

        const QStringList lines = out.lines();
        QVERIFY(lines.contains(u"▶️ [Quillet] DictationSession.start (tone=false)"_s));
        QVERIFY(lines.contains(u"🔌 [Quillet] connecting WebSocket → "_s
            + TranscriptionService::streamAddress(m_server.apiUrl({}).toString())));
        QVERIFY(lines.contains(u"✅ [Quillet] WebSocket connected, starting audio capture"_s));
        QVERIFY(lines.contains(
            u"🏁 [Quillet] transcriptionDidEnd accumulated=%1 chars"_s.arg(session->accumulated().trimmed().size())));

        // The server finished the stream and saw it close cleanly.
        const QString serverLog = QString::fromUtf8(m_server.output());
        static const QRegularExpression finished(u"stream (\\d+) finished: [0-9.]+ s of audio"_s);
        QRegularExpressionMatchIterator it = finished.globalMatch(serverLog);
        QString stream;
        while (it.hasNext())
            stream = it.next().captured(1);
        QVERIFY2(!stream.isEmpty(), qPrintable(serverLog));
        QVERIFY(serverLog.contains(u"stream %1 closed\n"_s.arg(stream)));
    }

    void toneModeRewritesInTheChosenTone()
    {
        const QString clip = u"sense_and_sensibility_01_austen_64kb-0920"_s;
        const qsizetype historyBefore = HistoryManager::shared().entries().size();
        Observed observed;
        std::shared_ptr<DictationSession> session;
        StdoutCapture out;
        dictate(true, clip, observed, session, out);
        if (QTest::currentTestFailed())
            return;
        HUDWindowController& hud = controllerOf(*session);
        QVERIFY(out.lines().contains(u"▶️ [Quillet] DictationSession.start (tone=true)"_s));

        QTRY_COMPARE_WITH_TIMEOUT(session->hud().hudState().kind(), HUDMode::Kind::tonePicker, 30000);
        QTRY_COMPARE(HUDProbe::item(hud, u"toneButton4"_s) != nullptr, true);
        QQuickItem* button = HUDProbe::item(hud, u"toneButton4"_s);
        QCOMPARE(button->property("modelData").toString(), u"Supportive"_s);
        // The window grows for the picker: wait until it is drawn at its new size.
        QCOMPARE(HUDProbe::grab(hud).size(), hud.window()->size() * hud.window()->devicePixelRatio());
        const QPoint centre = button->mapToGlobal(QPointF(button->width() / 2, button->height() / 2)).toPoint();
        QVERIFY(hud.window()->geometry().contains(centre));
        QCOMPARE(Desktop::run(u"xdotool"_s,
                     { u"mousemove"_s, QString::number(centre.x()), QString::number(centre.y()), u"click"_s, u"1"_s }),
            0);

        QTRY_COMPARE_WITH_TIMEOUT(session->hud().hudState().kind(), HUDMode::Kind::success, 20000);
        // A fresh capsule's state says dictating until show() puts up the tone mode.
        QCOMPARE(observed.modes,
            (QList<HUDMode::Kind> { HUDMode::Kind::dictating, HUDMode::Kind::tone, HUDMode::Kind::cleaning,
                HUDMode::Kind::tonePicker, HUDMode::Kind::rewriting, HUDMode::Kind::success }));
        QCOMPARE(session->hud().hudState().mode().associatedTone(), std::optional<Tone>(Tone::supportive));
        QTRY_COMPARE(HUDProbe::item(hud, u"hudText"_s)->property("text").toString(), u"Rewritten in Supportive"_s);

        // The transcript went to the history when the picker showed, the rewrite after it.
        QCOMPARE(HistoryManager::shared().entries().size(), historyBefore + 2);
        QCOMPARE(HistoryManager::shared().entries().at(1).text, session->accumulated().trimmed());
        const std::optional<QString> inserted = newestHistoryText();
        QVERIFY(inserted);
        // The server's rule rewrite for that tone, asked for separately with the same transcript.
        Http http;
        const HttpResult rewrite = http.postJson(m_server.apiUrl(u"/rewrite"_s),
            QJsonObject { { u"text"_s, session->accumulated().trimmed() }, { u"dictionary"_s, QJsonArray() },
                { u"tone"_s, u"supportive"_s } },
            m_accessToken.toUtf8());
        QCOMPARE(rewrite.status, 200);
        QCOMPARE(*inserted, rewrite.json().value(u"text"_s).toString());
        qInfo("rewritten: %s", qPrintable(*inserted));
        QVERIFY(inserted->endsWith(u" I'm here to help if you need anything."_s));
        const auto content = m_gtk->waitForText(u"entry"_s, *inserted);
        QVERIFY(content);
        QCOMPARE(content->text, *inserted);

        const QSet<QString> shared = wordsOf(session->accumulated()) & wordsOf(transcriptOf(clip).join(u' '));
        QVERIFY2(shared.size() >= 3,
            qPrintable(u"recognised \"%1\" shares only %2 words with the clip"_s.arg(session->accumulated())
                           .arg(shared.size())));

        QTRY_VERIFY_WITH_TIMEOUT(!hud.window()->isVisible(), 5000);
        QTRY_COMPARE_WITH_TIMEOUT(observed.completions, 1, 5000);
        QTest::qWait(500);
        QCOMPARE(observed.completions, 1);
    }

    void backendStoppedBeforeStartShowsTheSocketError()
    {
        ServerProcess server;
        const QString error = useServer(server);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        const quint16 port = server.apiPort();
        server.stop();
        // What the operating system says about this address now, in Qt's words.
        QTcpSocket probe;
        probe.connectToHost(u"127.0.0.1"_s, port);
        QVERIFY(!probe.waitForConnected(5000));
        const QString socketError = probe.errorString();

        const qsizetype historyBefore = HistoryManager::shared().entries().size();
        Observed observed;
        StdoutCapture out;
        auto session = makeSession(false, observed);
        session->start();
        QTRY_COMPARE_WITH_TIMEOUT(session->hud().hudState().kind(), HUDMode::Kind::error, 20000);
        const QString shown = session->hud().hudState().message();
        QVERIFY(!shown.isEmpty());
        QCOMPARE(shown, socketError);
        HUDWindowController& hud = controllerOf(*session);
        QVERIFY(HUDProbe::waitForExposed(hud));
        QTRY_COMPARE(HUDProbe::item(hud, u"hudText"_s)->property("text").toString(), shown);
        QVERIFY(out.lines().contains(u"✗ [Quillet] DictationSession failed: "_s + shown));
        QVERIFY(!out.lines().contains(captureStarted));

        // The key comes up while the error shows: the capsule says cleaning, the completion still comes.
        session->stop();
        QTRY_COMPARE_WITH_TIMEOUT(observed.completions, 1, 10000);
        QTest::qWait(500);
        QCOMPARE(observed.completions, 1);
        QCOMPARE(observed.modes,
            (QList<HUDMode::Kind> { HUDMode::Kind::dictating, HUDMode::Kind::error, HUDMode::Kind::cleaning }));
        QCOMPARE(HistoryManager::shared().entries().size(), historyBefore);
        const auto content = m_gtk->content(u"entry"_s);
        QVERIFY(content);
        QCOMPARE(content->text, QString());
    }

    void backendGoneMidwayShowsTheClosedStream()
    {
        ServerProcess server;
        const QString error = useServer(server);
        QVERIFY2(error.isEmpty(), qPrintable(error));

        const qsizetype historyBefore = HistoryManager::shared().entries().size();
        Observed observed;
        StdoutCapture out;
        auto session = makeSession(false, observed);
        session->start();
        QTRY_VERIFY_WITH_TIMEOUT(out.lines().contains(captureStarted), 20000);
        // The server has taken the stream's authentication; now it dies.
        QTRY_VERIFY_WITH_TIMEOUT(server.output().contains(" signed in as "), 10000);
        QCOMPARE(::kill(pid_t(server.processId()), SIGKILL), 0);

        QTRY_COMPARE_WITH_TIMEOUT(session->hud().hudState().kind(), HUDMode::Kind::error, 10000);
        const QString shown = session->hud().hudState().message();
        QCOMPARE(shown, closedBeforeResponse);
        HUDWindowController& hud = controllerOf(*session);
        QTRY_COMPARE(HUDProbe::item(hud, u"hudText"_s)->property("text").toString(), shown);
        QVERIFY(out.lines().contains(u"✗ [Quillet] transcriptionDidFail code=WS_CLOSED message="_s + shown));
        QVERIFY(session->failed());

        // The key is released after the error: the capsule keeps the error.
        session->stop();
        QCOMPARE(session->hud().hudState().kind(), HUDMode::Kind::error);
        QTRY_COMPARE_WITH_TIMEOUT(observed.completions, 1, 10000);
        QTRY_VERIFY_WITH_TIMEOUT(!hud.window()->isVisible(), 5000);
        QTest::qWait(500);
        QCOMPARE(observed.completions, 1);
        QCOMPARE(observed.modes, (QList<HUDMode::Kind> { HUDMode::Kind::dictating, HUDMode::Kind::error }));
        QCOMPARE(HistoryManager::shared().entries().size(), historyBefore);
        const auto content = m_gtk->content(u"entry"_s);
        QVERIFY(content);
        QCOMPARE(content->text, QString());
        server.stop();
    }
};

int main(int argc, char** argv)
{
    // The capsule is a Qt Quick window; FieldApp's helpers run tools with the event loop going.
    QApplication app(argc, argv);
    TestDictationSessionReal test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_dictationsession_real.moc"
