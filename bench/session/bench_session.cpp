// Whole dictations with every part real, timed: quillet-server on loopback, LibriVox
// speech played into the headless desktop's PulseAudio microphone, the capsule on
// the X server, the text services, the history and AT-SPI insertion into a focused
// GTK 3 entry. The stream goes through a byte-for-byte TCP relay on loopback that
// timestamps the client's WebSocket frames as they arrive, so "on the wire" means
// "received by a peer". Prints figures; asserts nothing.
//
// Run: scripts/desktop-session.sh -- build/release/bin/bench_session [runs per length, default 10]
#include "FieldApp.h"
#include "ServerProcess.h"
#include "dictation/DictationSession.h"
#include "dictation/TextInserter.h"
#include "services/AppConfig.h"
#include "services/HistoryManager.h"
#include "services/KeychainHelper.h"
#include "services/Log.h"
#include "services/SettingsStore.h"
#include "ui/HUDWindowController.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QQuickWindow>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <malloc.h>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

using Clock = std::chrono::steady_clock;

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

double msBetween(qint64 from, qint64 to)
{
    return from && to ? double(to - from) / 1e6 : -1;
}

long residentKiB()
{
    QFile status(u"/proc/self/status"_s);
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

// What the relay saw of the client's stream, written on its thread.
struct WireMarks {
    std::atomic<qint64> firstAudioNs { 0 };
    std::atomic<int> clientCloseCode { -1 };
    void reset()
    {
        firstAudioNs = 0;
        clientCloseCode = -1;
    }
};

// Reads the client's side of one WebSocket connection: the upgrade request, then
// masked frames. Notes when the first audio message is complete and which close
// code the client sends.
class FrameSniffer
{
public:
    explicit FrameSniffer(WireMarks& marks)
        : m_marks(marks)
    { }

    void feed(const QByteArray& bytes)
    {
        if (m_off)
            return;
        m_buffer += bytes;
        if (!m_upgraded) {
            const qsizetype end = m_buffer.indexOf("\r\n\r\n");
            if (end < 0)
                return;
            if (!m_buffer.startsWith("GET /ws/transcribe")) {
                m_off = true; // a clean-up or rewrite request: nothing to read
                return;
            }
            m_upgraded = true;
            m_buffer.remove(0, end + 4);
        }
        while (parseFrame()) { }
    }

private:
    bool parseFrame()
    {
        const auto* b = reinterpret_cast<const uchar*>(m_buffer.constData());
        const qsizetype size = m_buffer.size();
        if (size < 2)
            return false;
        const int opcode = b[0] & 0x0f;
        const bool masked = b[1] & 0x80;
        quint64 length = b[1] & 0x7f;
        qsizetype at = 2;
        if (length == 126) {
            if (size < 4)
                return false;
            length = (quint64(b[2]) << 8) | b[3];
            at = 4;
        } else if (length == 127) {
            if (size < 10)
                return false;
            length = 0;
            for (int i = 0; i < 8; ++i)
                length = (length << 8) | b[2 + i];
            at = 10;
        }
        uchar mask[4] = { 0, 0, 0, 0 };
        if (masked) {
            if (size < at + 4)
                return false;
            std::copy(b + at, b + at + 4, mask);
            at += 4;
        }
        if (quint64(size - at) < length)
            return false;
        QByteArray head = m_buffer.mid(at, qsizetype(std::min<quint64>(length, 16)));
        for (qsizetype i = 0; i < head.size(); ++i)
            head[i] = char(uchar(head[i]) ^ mask[i % 4]);
        if (opcode == 1 && head.startsWith(R"({"type":"audio")") && m_marks.firstAudioNs == 0)
            m_marks.firstAudioNs = nowNs();
        if (opcode == 8 && head.size() >= 2)
            m_marks.clientCloseCode = (uchar(head[0]) << 8) | uchar(head[1]);
        m_buffer.remove(0, at + qsizetype(length));
        return true;
    }

    WireMarks& m_marks;
    QByteArray m_buffer;
    bool m_upgraded = false;
    bool m_off = false;
};

// A TCP relay to the server's API port, on its own thread so the dictation's own
// work on the main thread never delays a timestamp.
class Relay : public QObject
{
public:
    Relay(quint16 upstream, WireMarks& marks)
        : m_server(this)
        , m_upstream(upstream)
        , m_marks(marks)
    {
        connect(&m_server, &QTcpServer::newConnection, this, &Relay::accept);
    }
    bool listen() { return m_server.listen(QHostAddress::LocalHost, 0); }
    quint16 port() const { return m_server.serverPort(); }

private:
    void accept()
    {
        while (QTcpSocket* client = m_server.nextPendingConnection()) {
            client->setParent(this);
            auto* server = new QTcpSocket(client);
            auto sniffer = std::make_shared<FrameSniffer>(m_marks);
            auto pending = std::make_shared<QByteArray>();
            server->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            client->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            connect(client, &QTcpSocket::readyRead, client, [client, server, sniffer, pending] {
                const QByteArray bytes = client->readAll();
                sniffer->feed(bytes);
                if (server->state() == QAbstractSocket::ConnectedState)
                    server->write(bytes);
                else
                    *pending += bytes;
            });
            connect(server, &QTcpSocket::connected, client, [server, pending] {
                server->write(*pending);
                pending->clear();
            });
            connect(server, &QTcpSocket::readyRead, client, [client, server] { client->write(server->readAll()); });
            // The client still answers the server's close frame; give its reply time to pass
            // (and to be read) before the relay hangs up on it.
            connect(server, &QTcpSocket::disconnected, client,
                [client] { QTimer::singleShot(500, client, [client] { client->disconnectFromHost(); }); });
            connect(client, &QTcpSocket::disconnected, client, [client, server] {
                server->disconnectFromHost();
                client->deleteLater();
            });
            server->connectToHost(QHostAddress::LocalHost, m_upstream);
        }
    }

    QTcpServer m_server;
    quint16 m_upstream;
    WireMarks& m_marks;
};

// When the session's own steps happened, seen by wrapping the real stream.
struct SessionMarks {
    qint64 connectedNs = 0;
    qint64 firstSendNs = 0;
    qint64 cleanupBeginNs = 0;
    qint64 cleanupEndNs = 0;
    qint64 insertBeginNs = 0;
    qint64 insertEndNs = 0;
    qint64 hudExposedNs = 0;
};

// The real TranscriptionService with timestamps on the calls the session makes.
class TimedStream final : public TranscriptionStream
{
public:
    explicit TimedStream(SessionMarks& marks)
        : m_marks(marks)
    { }
    void setDelegate(QObject* owner, TranscriptionDelegate* delegate) override { m_real.setDelegate(owner, delegate); }
    QCoro::Task<std::optional<StreamConnectFailure>> connect() override
    {
        std::optional<StreamConnectFailure> failure = co_await m_real.connect();
        m_marks.connectedNs = nowNs();
        co_return failure;
    }
    void sendAudio(std::span<const qint16> samples) override
    {
        if (!m_marks.firstSendNs)
            m_marks.firstSendNs = nowNs();
        m_real.sendAudio(samples);
    }
    void stop() override { m_real.stop(); }
    void cancel() override { m_real.cancel(); }

private:
    SessionMarks& m_marks;
    TranscriptionService m_real;
};

// Notes the first Expose that leaves the window on screen.
class ExposeWatch : public QObject
{
public:
    ExposeWatch(QWindow* window, qint64& mark)
        : m_window(window)
        , m_mark(mark)
    { }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched == m_window && event->type() == QEvent::Expose && m_window->isExposed() && !m_mark)
            m_mark = nowNs();
        return false;
    }

private:
    QWindow* m_window;
    qint64& m_mark;
};

double percentile(std::vector<double> values, double p)
{
    std::erase_if(values, [](double v) { return v < 0; });
    if (values.empty())
        return -1;
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, size_t(p * double(values.size() - 1) + 0.5));
    return values[index];
}

struct Series {
    std::vector<double> values;
    void add(double v) { values.push_back(v); }
    void print(const char* name) const
    {
        std::printf("  %-44s p50 %7.1f ms  p95 %7.1f ms  min %7.1f  max %7.1f  (n=%zu)\n", name,
            percentile(values, 0.5), percentile(values, 0.95), percentile(values, 0.0), percentile(values, 1.0),
            values.size());
    }
};

// Runs the event loop, sleeping while nothing happens, until done() or the timeout.
// (QTest::qWaitFor sleeps 10 ms between rounds in Qt 6.4, which would hold up the
// very dictation being timed.)
bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    QTimer tick;
    tick.start(20);
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return true;
}

struct Run {
    bool ok = false;
    QString text;
    double startToHud = -1;
    double startToConnected = -1;
    double startToFirstSend = -1;
    double startToWire = -1;
    double stopToEnd = -1;
    double cleanupCost = -1;
    double stopToInsertCall = -1;
    double stopToInsertReturn = -1;
    int closeCode = -1;
};

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    Log::makeStdoutUnbuffered();
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 10;

    QTemporaryDir dir;
    SettingsStore::resetShared(std::make_unique<SettingsStore>(
        std::make_unique<QSettings>(dir.filePath(u"settings.ini"_s), QSettings::IniFormat)));
    HistoryManager::resetShared(std::make_unique<HistoryManager>(
        std::make_unique<QSettings>(dir.filePath(u"history.ini"_s), QSettings::IniFormat)));
    TextInserter::shared();

    ServerProcess server;
    QString error;
    if (!server.start(&error)) {
        std::fprintf(stderr, "quillet-server: %s\n", qPrintable(error));
        return 1;
    }
    Http http;
    const TokenPair pair = signInThroughSite(http, server, &error);
    if (!error.isEmpty()) {
        std::fprintf(stderr, "sign-in: %s\n", qPrintable(error));
        return 1;
    }
    KeychainHelper::save(KeychainHelper::accessTokenKey, pair.access);
    KeychainHelper::save(KeychainHelper::refreshTokenKey, pair.refresh);

    WireMarks wire;
    QThread relayThread;
    auto* relay = new Relay(server.apiPort(), wire);
    relay->moveToThread(&relayThread);
    relayThread.start();
    bool listening = false;
    QMetaObject::invokeMethod(
        relay, [&] { listening = relay->listen(); }, Qt::BlockingQueuedConnection);
    if (!listening) {
        std::fprintf(stderr, "the relay cannot listen\n");
        return 1;
    }
    QTemporaryFile info;
    info.open();
    info.write(
        QJsonDocument(QJsonObject { { u"API_BASE_URL"_s, u"http://127.0.0.1:%1"_s.arg(relay->port()) } }).toJson());
    info.flush();
    AppConfig::setInfoFilePathForTesting(info.fileName());

    // Speech of about 2 s and 5 s, as a desktop microphone delivers it (48 kHz stereo).
    const QString librivox = u"/usr/share/pocketsphinx/test/data/librivox/"_s;
    const QString short2 = dir.filePath(u"speech-2s.wav"_s);
    const QString long5 = dir.filePath(u"speech-5s.wav"_s);
    if (Desktop::run(u"sox"_s,
            { librivox + u"sense_and_sensibility_01_austen_64kb-0880.wav"_s, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s,
                short2, u"trim"_s, u"0"_s, u"2.0"_s })
            != 0
        || Desktop::run(u"sox"_s,
               { librivox + u"sense_and_sensibility_01_austen_64kb-0890.wav"_s, u"-r"_s, u"48000"_s, u"-c"_s, u"2"_s,
                   long5, u"trim"_s, u"0"_s, u"5.0"_s })
            != 0) {
        std::fprintf(stderr, "sox failed\n");
        return 1;
    }
    const QString sink
        = qEnvironmentVariableIsSet("QUILLET_MIC_SINK") ? qEnvironmentVariable("QUILLET_MIC_SINK") : u"mic_feed"_s;

    FieldApp gtk(QStringLiteral(QUILLET_GTK_FIELDS));
    if (!gtk.start() || !gtk.focus(u"entry"_s)) {
        std::fprintf(stderr, "the GTK window did not come up\n");
        return 1;
    }

    const long rssBaseline = residentKiB();
    QElapsedTimer preloadClock;
    preloadClock.start();
    const bool preloaded = HUDWindowController::preload();
    const double preloadMs = double(preloadClock.nsecsElapsed()) / 1e6;
    const long rssBeforeFirstHud = residentKiB();

    int sessionsAlive = 0;
    auto dictate = [&](const QString& speech) {
        Run run;
        if (!gtk.set(u"entry"_s, QString(), 0, 0))
            return run;
        wire.reset();
        SessionMarks marks;
        bool completed = false;
        DictationEnvironment environment = DictationEnvironment::system();
        environment.makeStream = [&marks] { return std::make_unique<TimedStream>(marks); };
        const auto realCleanup = environment.cleanup;
        environment.cleanup = [&marks, realCleanup](const QString& text) -> QCoro::Task<std::optional<QString>> {
            marks.cleanupBeginNs = nowNs();
            std::optional<QString> cleaned = co_await realCleanup(text);
            marks.cleanupEndNs = nowNs();
            co_return cleaned;
        };
        const auto realInsert = environment.insert;
        environment.insert = [&marks, realInsert](const QString& text) {
            marks.insertBeginNs = nowNs();
            const InsertionResult result = realInsert(text);
            marks.insertEndNs = nowNs();
            return result;
        };
        auto session = DictationSession::create(
            false, [&completed] { completed = true; }, std::move(environment));

        const qint64 startNs = nowNs();
        session->start();
        auto& hud = dynamic_cast<HUDWindowController&>(session->hud());
        ExposeWatch watch(hud.window(), marks.hudExposedNs);
        if (hud.window()) {
            if (hud.window()->isExposed())
                marks.hudExposedNs = nowNs();
            hud.window()->installEventFilter(&watch);
        }
        if (!waitUntil([&] { return marks.firstSendNs != 0 && wire.firstAudioNs != 0; }, 20000))
            return run;
        QProcess player;
        player.start(u"paplay"_s, { u"-d"_s, sink, speech });
        if (!waitUntil([&] { return player.state() == QProcess::NotRunning; }, 20000))
            return run;
        const qint64 stopNs = nowNs();
        session->stop();
        waitUntil([&] { return completed; }, 20000);
        if (hud.window())
            hud.window()->removeEventFilter(&watch);
        // Read back through the GTK application: the insertion's AT-SPI calls were answered
        // by it, so the text was in the entry when insert() returned.
        const std::optional<FieldApp::Content> content = gtk.content(u"entry"_s);
        const QList<HistoryEntry> history = HistoryManager::shared().entries();
        run.ok = content && !content->text.isEmpty() && !history.isEmpty() && history.first().text == content->text;
        run.text = content ? content->text : QString();
        run.startToHud = msBetween(startNs, marks.hudExposedNs);
        run.startToConnected = msBetween(startNs, marks.connectedNs);
        run.startToFirstSend = msBetween(startNs, marks.firstSendNs);
        run.startToWire = msBetween(startNs, wire.firstAudioNs.load());
        run.stopToEnd = msBetween(stopNs, marks.cleanupBeginNs);
        run.cleanupCost = msBetween(marks.cleanupBeginNs, marks.cleanupEndNs);
        run.stopToInsertCall = msBetween(stopNs, marks.insertBeginNs);
        run.stopToInsertReturn = msBetween(stopNs, marks.insertEndNs);
        const std::weak_ptr<DictationSession> gone = session;
        session.reset();
        if (!gone.expired())
            ++sessionsAlive;
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
        run.closeCode = wire.clientCloseCode;
        return run;
    };

    std::vector<Run> shortRuns;
    std::vector<Run> longRuns;
    long rssAfterFirst = 0;
    for (int i = 0; i < runs; ++i) {
        shortRuns.push_back(dictate(short2));
        if (i == 0)
            rssAfterFirst = residentKiB();
        longRuns.push_back(dictate(long5));
        std::fprintf(stderr, "run %d: \"%s\" / \"%s\"\n", i + 1, qPrintable(shortRuns.back().text),
            qPrintable(longRuns.back().text));
    }
    const long rssAfterAll = residentKiB();
    // What of it the allocator only keeps for reuse: hand free pages back and look again.
    malloc_trim(0);
    const long rssAfterTrim = residentKiB();
    const qsizetype windowsAlive = QGuiApplication::allWindows().size();
    const int dictations = 2 * runs;

    Series hudFirst;
    Series hudLater;
    Series connected;
    Series firstSend;
    Series onWire;
    Series stopInsert2;
    Series stopInsert5;
    Series stopCall;
    Series stopEnd;
    Series cleanupCost;
    Series insertCost;
    int failures = 0;
    QList<int> closeCodes;
    std::vector<Run> all;
    for (int i = 0; i < runs; ++i) {
        all.push_back(shortRuns[size_t(i)]);
        all.push_back(longRuns[size_t(i)]);
    }
    for (size_t i = 0; i < all.size(); ++i) {
        const Run& run = all[i];
        (i == 0 ? hudFirst : hudLater).add(run.startToHud);
        connected.add(run.startToConnected);
        firstSend.add(run.startToFirstSend);
        onWire.add(run.startToWire);
        stopCall.add(run.stopToInsertCall);
        stopEnd.add(run.stopToEnd);
        cleanupCost.add(run.cleanupCost);
        insertCost.add(run.ok ? run.stopToInsertReturn - run.stopToInsertCall : -1);
        if (!run.ok)
            ++failures;
        closeCodes.append(run.closeCode);
    }
    for (const Run& run : shortRuns)
        stopInsert2.add(run.ok ? run.stopToInsertReturn : -1);
    for (const Run& run : longRuns)
        stopInsert5.add(run.ok ? run.stopToInsertReturn : -1);

    std::printf("Dictation session, everything real (quillet-server %s, %d x 2 s + %d x 5 s, %s)\n",
        qPrintable(QFileInfo(QStringLiteral(QUILLET_SERVER_BINARY)).fileName()), runs, runs,
        qPrintable(QGuiApplication::platformName()));
    std::printf("  runs whose entry matched the history: %d of %d\n", dictations - failures, dictations);
    std::printf("Key release (stop()) -> text in the GTK entry (TextInserter.insert returned: its AT-SPI calls\n"
                "were answered by the GTK application; the entry was read back after each run)\n");
    stopInsert2.print("2 s utterance:");
    stopInsert5.print("5 s utterance:");
    std::printf("  where it goes (both lengths):\n");
    stopEnd.print("stop -> end of transcript (server closed):");
    cleanupCost.print("clean-up request to the server:");
    stopCall.print("stop -> insert called:");
    insertCost.print("TextInserter.insert itself:");
    std::printf("Key press (start()) -> audio\n");
    connected.print("start -> stream connected (auth sent):");
    firstSend.print("start -> first sendAudio call:");
    onWire.print("start -> first audio message at the relay:");
    std::printf("Key press (start()) -> capsule mapped (first Expose)\n");
    std::printf("  %-44s %7.1f ms (preload beforehand: %.1f ms%s)\n", "first session:", hudFirst.values.front(),
        preloadMs, preloaded ? "" : ", FAILED");
    hudLater.print("later sessions:");
    std::printf("Resident memory\n");
    std::printf("  before preload:                    %7ld KiB\n", rssBaseline);
    std::printf("  before the first HUD:              %7ld KiB\n", rssBeforeFirstHud);
    std::printf("  after the first dictation:         %7ld KiB\n", rssAfterFirst);
    std::printf("  after %2d dictations:               %7ld KiB (%+.1f KiB per dictation after the first)\n",
        dictations, rssAfterAll, double(rssAfterAll - rssAfterFirst) / std::max(1, dictations - 1));
    std::printf("  after %2d dictations, malloc_trim:  %7ld KiB (%+.1f KiB per dictation after the first)\n",
        dictations, rssAfterTrim, double(rssAfterTrim - rssAfterFirst) / std::max(1, dictations - 1));
    std::printf(
        "  sessions still alive after release: %d; Qt windows alive: %lld\n", sessionsAlive, qlonglong(windowsAlive));
    QStringList codes;
    for (int code : closeCodes)
        codes << QString::number(code);
    std::printf("Close codes the client sent, per run: %s\n", qPrintable(codes.join(u' ')));

    QMetaObject::invokeMethod(
        relay, [relay] { delete relay; }, Qt::BlockingQueuedConnection);
    relayThread.quit();
    relayThread.wait();
    AppConfig::setInfoFilePathForTesting({});
    return 0;
}
