#include "HttpTestServer.h"
#include "MemorySecretStore.h"
#include "ScriptedStreamServer.h"
#include "StdoutCapture.h"
#include "TestInfoFile.h"
#include "TestNetwork.h"
#include "TestTokens.h"
#include "dictation/DictationSession.h"
#include "dictation/TranscriptionService.h"
#include "services/KeychainHelper.h"
#include "ui/HUDState.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

#include <vector>

using namespace Qt::StringLiterals;

namespace {

// JSON written with single quotes, for readability (and because moc trips over raw strings).
QByteArray j(const char* singleQuoted)
{
    return QByteArray(singleQuoted).replace('\'', '"');
}

// Runs connect() to its end and keeps what it returned.
QCoro::Task<> runConnect(TranscriptionService* service, std::optional<std::optional<StreamConnectFailure>>* result)
{
    *result = co_await service->connect();
}

// A backend that accepts connections and never says a word: the handshake hangs.
class SilentBackend : public QTcpServer
{
public:
    SilentBackend()
    {
        if (!listen(QHostAddress::LocalHost, 0))
            qFatal("silent backend cannot listen");
        QObject::connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = nextPendingConnection()) {
                socket->setParent(this);
                ++accepted;
            }
        });
    }
    QString apiBase() const { return u"http://127.0.0.1:"_s + QString::number(serverPort()); }
    int accepted = 0;
};

// One port for the stream and for the token refresh, as the real backend has: requests for
// /auth/refresh are answered here, everything else is handed to the scripted stream server.
class FrontDoor : public QTcpServer
{
public:
    FrontDoor(ScriptedStreamServer& stream, QByteArray refreshReply)
        : m_refreshReply(std::move(refreshReply))
    {
        if (!listen(QHostAddress::LocalHost, 0))
            qFatal("front door cannot listen");
        QObject::connect(this, &QTcpServer::newConnection, this, [this, &stream] {
            while (QTcpSocket* socket = nextPendingConnection()) {
                socket->setParent(this);
                QObject::connect(socket, &QTcpSocket::readyRead, this, [this, socket, &stream] {
                    const QByteArray head = socket->peek(64 * 1024);
                    if (!head.startsWith("POST /auth/refresh")) {
                        socket->disconnect(this);
                        stream.adopt(socket);
                        return;
                    }
                    const qsizetype end = head.indexOf("\r\n\r\n");
                    if (end < 0)
                        return;
                    const QByteArray lower = head.left(end).toLower();
                    const qsizetype at = lower.indexOf("content-length:");
                    const qsizetype length
                        = at < 0 ? 0 : lower.mid(at + 15, lower.indexOf('\r', at) - at - 15).trimmed().toLongLong();
                    if (head.size() < end + 4 + length)
                        return;
                    refreshBodies.append(head.mid(end + 4, length));
                    socket->readAll();
                    socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: "
                        + QByteArray::number(m_refreshReply.size()) + "\r\nConnection: close\r\n\r\n" + m_refreshReply);
                    socket->disconnectFromHost();
                });
            }
        });
    }
    QString apiBase() const { return u"http://127.0.0.1:"_s + QString::number(serverPort()); }
    QList<QByteArray> refreshBodies;

private:
    QByteArray m_refreshReply;
};

// What a whole dictation did, with the real stream client and a quiet capsule and microphone.
struct SessionWorld {
    QStringList shown;
    QStringList history;
    QStringList inserted;
    int completions = 0;
    HUDState* state = nullptr;
};

class RecordingHUD : public HUDPresenter
{
public:
    explicit RecordingHUD(SessionWorld& world)
        : m_world(world)
    {
        m_world.state = &m_state;
    }
    HUDState& hudState() override { return m_state; }
    void show(const HUDMode& mode) override { m_state.setMode(mode); }
    void showError(const QString& message) override
    {
        m_world.shown << message;
        m_state.setMode(HUDMode::error(message));
    }
    void showSuccess(const QString&, std::optional<Tone> tone) override
    {
        m_world.shown << u"success"_s;
        m_state.setMode(HUDMode::success(tone));
    }
    void dismiss() override { m_world.shown << u"dismissed"_s; }

private:
    SessionWorld& m_world;
    HUDState m_state;
};

// A microphone that starts and hears nothing: these dictations are about the stream.
class SilentMicrophone : public AudioCapture
{
public:
    void setDelegate(std::weak_ptr<AudioCaptureDelegate>) override { }
    std::optional<CaptureStartFailure> start() override { return std::nullopt; }
    void stop() override { }
};

DictationEnvironment sessionEnvironment(SessionWorld& world, const QString& apiBase)
{
    DictationEnvironment env;
    env.makeStream = [] { return std::make_unique<TranscriptionService>(); };
    env.makeCapture = [] { return std::make_unique<SilentMicrophone>(); };
    env.makeHUD = [&world] { return std::make_unique<RecordingHUD>(world); };
    env.cleanup = [](const QString&) -> QCoro::Task<std::optional<QString>> { co_return std::nullopt; };
    env.rewrite = [](const QString&, Tone) -> QCoro::Task<std::optional<QString>> { co_return std::nullopt; };
    env.addToHistory = [&world](const QString& text) { world.history << text; };
    env.insert = [&world](const QString& text) {
        world.inserted << text;
        return InsertionResult::inserted;
    };
    env.apiBaseURL = [apiBase] { return apiBase; };
    env.timings = { std::chrono::milliseconds(400), std::chrono::milliseconds(600), std::chrono::milliseconds(100),
        std::chrono::milliseconds(100) };
    return env;
}

} // namespace

// Records every call the stream makes on its delegate.
class RecordingDelegate : public QObject, public TranscriptionDelegate
{
    Q_OBJECT
public:
    QStringList calls;

    void transcriptionDidReceivePartial(const QString& text) override { calls.append(u"partial:"_s + text); }
    void transcriptionDidReceiveFinal(const QString& text) override { calls.append(u"final:"_s + text); }
    void transcriptionDidEnd() override
    {
        calls.append(u"end"_s);
        Q_EMIT finished();
    }
    void transcriptionDidFail(const QString& message, const QString& code) override
    {
        calls.append(u"fail:"_s + code + u':' + message);
        Q_EMIT finished();
    }

Q_SIGNALS:
    void finished();
};

// The stream client against a real WebSocket server on loopback, scripted per case.
class TestTranscriptionService : public QObject
{
    Q_OBJECT

    std::unique_ptr<ScriptedStreamServer> m_server;
    std::unique_ptr<TestInfoFile> m_info;
    std::unique_ptr<RecordingDelegate> m_delegate;
    std::unique_ptr<TranscriptionService> m_service;
    MemorySecretStore* m_store = nullptr;
    const QString m_token = TestTokens::expiringIn(900);

    void pointConfigAt(const QString& base)
    {
        m_info.reset();
        m_info = std::make_unique<TestInfoFile>(QJsonObject { { u"API_BASE_URL"_s, base } });
    }

    // Connects, then waits until the stream has reported its end (or a failure).
    void connectAndRunToEnd()
    {
        QSignalSpy done(m_delegate.get(), &RecordingDelegate::finished);
        const std::optional<StreamConnectFailure> failure = QCoro::waitFor(m_service->connect());
        QVERIFY2(!failure, failure ? qPrintable(failure->description) : "");
        QVERIFY(done.wait(5000) || done.count() > 0);
    }

    static std::vector<qint16> ramp(int frames)
    {
        std::vector<qint16> samples(static_cast<size_t>(frames));
        for (int i = 0; i < frames; ++i)
            samples[static_cast<size_t>(i)] = static_cast<qint16>((i * 37) % 65536 - 32768);
        return samples;
    }

private Q_SLOTS:
    void init()
    {
        auto store = std::make_unique<MemorySecretStore>();
        m_store = store.get();
        m_store->items.insert(KeychainHelper::accessTokenKey, m_token.toUtf8());
        KeychainHelper::setStore(std::move(store));
        m_server = std::make_unique<ScriptedStreamServer>();
        pointConfigAt(m_server->apiBase());
        m_delegate = std::make_unique<RecordingDelegate>();
        m_service = std::make_unique<TranscriptionService>();
        m_service->setDelegate(m_delegate.get());
    }
    void cleanup()
    {
        m_service.reset();
        m_delegate.reset();
        m_server.reset();
        m_info.reset();
        KeychainHelper::setStore(nullptr);
    }

    void streamAddress_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("address");
        QTest::newRow("https") << u"https://api.example.test"_s << u"wss://api.example.test/ws/transcribe"_s;
        QTest::newRow("http") << u"http://127.0.0.1:8000"_s << u"ws://127.0.0.1:8000/ws/transcribe"_s;
        QTest::newRow("path kept") << u"https://example.test/v1"_s << u"wss://example.test/v1/ws/transcribe"_s;
        QTest::newRow("trailing slash") << u"http://h:1/"_s << u"ws://h:1//ws/transcribe"_s;
        QTest::newRow("no scheme") << u"example.test"_s << u"example.test/ws/transcribe"_s;
    }
    void streamAddress()
    {
        QFETCH(QString, base);
        QFETCH(QString, address);
        QCOMPARE(TranscriptionService::streamAddress(base), address);
    }

    void errorDescriptions()
    {
        QCOMPARE(TranscriptionError(TranscriptionError::notSignedIn).errorDescription(),
            u"Sign in to Quillet to use dictation."_s);
        QCOMPARE(TranscriptionError(TranscriptionError::connectionTimeout).errorDescription(),
            u"Connection timed out. Check your internet connection."_s);
    }

    void audioMessageOf1600FramesHas4268Characters()
    {
        const std::vector<qint16> samples = ramp(1600);
        const QJsonObject message = QJsonDocument::fromJson(TranscriptionService::audioMessage(samples)).object();
        QCOMPARE(message.value(u"type"_s).toString(), u"audio"_s);
        QCOMPARE(message.value(u"data"_s).toString().size(), 4268);
        QCOMPARE(message.size(), 2);
    }

    void wholeDictationByteForByte()
    {
        m_server->script = { ScriptedStreamServer::text(j("{'type':'partial','text':'hello'}")),
            ScriptedStreamServer::waitForStop(), ScriptedStreamServer::text(j("{'type':'final','text':'hello world'}")),
            ScriptedStreamServer::close() };
        const std::optional<StreamConnectFailure> failure = QCoro::waitFor(m_service->connect());
        QVERIFY(!failure);
        QVERIFY(m_service->hasSocket());

        const std::vector<qint16> first = ramp(1365);
        const std::vector<qint16> second = { 0, 1, -1, 32767, -32768, 256 };
        m_service->sendAudio(first);
        m_service->sendAudio(second);
        m_service->sendAudio({}); // a buffer without samples sends nothing
        m_service->stop();

        QSignalSpy done(m_delegate.get(), &RecordingDelegate::finished);
        QVERIFY(done.wait(5000));
        QCOMPARE(m_delegate->calls, (QStringList { u"partial:hello"_s, u"final:hello world"_s, u"end"_s }));
        QCOMPARE(m_server->requestPath, u"/ws/transcribe"_s);
        QCOMPARE(m_server->binaryFramesReceived, 0);

        QCOMPARE(m_server->received.size(), 4);
        const QJsonObject auth = QJsonDocument::fromJson(m_server->received[0]).object();
        QCOMPARE(auth, (QJsonObject { { u"type"_s, u"auth"_s }, { u"token"_s, m_token } }));
        QByteArray expected;
        for (qint16 s : first) {
            expected.append(static_cast<char>(s & 0xff));
            expected.append(static_cast<char>((s >> 8) & 0xff));
        }
        QCOMPARE(m_server->received[1], j("{'type':'audio','data':'") + expected.toBase64() + j("'}"));
        // 00 00 01 00 ff ff ff 7f 00 80 00 01
        QCOMPARE(m_server->received[2], QByteArray(j("{'type':'audio','data':'AAABAP///38AgAAB'}")));
        QCOMPARE(QJsonDocument::fromJson(m_server->received[3]).object(), (QJsonObject { { u"type"_s, u"stop"_s } }));
        QVERIFY(m_service->gotAnyResponse());
        QVERIFY(!m_service->sawError());
    }

    void serverMessages_data()
    {
        QTest::addColumn<QList<QByteArray>>("messages");
        QTest::addColumn<QStringList>("calls");
        using L = QList<QByteArray>;
        QTest::newRow("partial then final")
            << L { j("{'type':'partial','text':'a'}"), j("{'type':'final','text':'a b'}") }
            << QStringList { u"partial:a"_s, u"final:a b"_s, u"end"_s };
        QTest::newRow("partial without text still counts") << L { j("{'type':'partial'}") } << QStringList { u"end"_s };
        QTest::newRow("final with a number") << L { j("{'type':'final','text':5}") } << QStringList { u"end"_s };
        QTest::newRow("unknown type counts") << L { j("{'type':'progress','pct':3}") } << QStringList { u"end"_s };
        QTest::newRow("error with members")
            << L { j("{'type':'error','code':'AUTH_EXPIRED','message':'Your session expired. Sign in again.'}") }
            << QStringList { u"fail:AUTH_EXPIRED:Your session expired. Sign in again."_s };
        QTest::newRow("error without members")
            << L { j("{'type':'error'}") } << QStringList { u"fail:UNKNOWN:Unknown error"_s };
        QTest::newRow("error with wrong member types")
            << L { j("{'type':'error','code':7,'message':null}") } << QStringList { u"fail:UNKNOWN:Unknown error"_s };
        QTest::newRow("nothing after an error")
            << L { j("{'type':'error','code':'X','message':'m'}"), j("{'type':'final','text':'late'}") }
            << QStringList { u"fail:X:m"_s, u"final:late"_s };
        QTest::newRow("malformed json is ignored and does not count")
            << L { "{not json", "[1,2]", j("{'text':'no type'}"), j("{'type':3}") }
            << QStringList { u"fail:WS_CLOSED:Connection closed before any response. Check backend or token."_s };
        QTest::newRow("malformed then valid")
            << L { "{oops", j("{'type':'final','text':'ok'}") } << QStringList { u"final:ok"_s, u"end"_s };
        QTest::newRow("non-ascii text") << L { j("{'type':'final','text':'café ☕ 👋'}") }
                                        << QStringList { u"final:café ☕ 👋"_s, u"end"_s };
    }
    void serverMessages()
    {
        QFETCH(QList<QByteArray>, messages);
        QFETCH(QStringList, calls);
        for (const QByteArray& m : messages)
            m_server->script.append(ScriptedStreamServer::text(m));
        m_server->script.append(ScriptedStreamServer::close());
        connectAndRunToEnd();
        QTest::qWait(50); // nothing more may arrive after the end
        QCOMPARE(m_delegate->calls, calls);
    }

    void binaryFramesAreHandledLikeText()
    {
        m_server->script = { ScriptedStreamServer::binary(j("{'type':'partial','text':'bin'}")),
            ScriptedStreamServer::binary(j("{'type':'final','text':'binary final'}")),
            ScriptedStreamServer::binary(j("{'type':'error','code':'E','message':'from binary'}")),
            ScriptedStreamServer::close() };
        connectAndRunToEnd();
        QTest::qWait(50);
        QCOMPARE(
            m_delegate->calls, (QStringList { u"partial:bin"_s, u"final:binary final"_s, u"fail:E:from binary"_s }));
    }

    void closeRightAfterErrorReportsNothingMore()
    {
        m_server->script = { ScriptedStreamServer::text(j("{'type':'error','code':'SERVER_BUSY','message':'Busy'}")),
            ScriptedStreamServer::close(1011) };
        connectAndRunToEnd();
        QTRY_VERIFY(!m_service->hasSocket());
        QTest::qWait(50);
        QCOMPARE(m_delegate->calls, QStringList { u"fail:SERVER_BUSY:Busy"_s });
        QVERIFY(m_service->sawError());
    }

    void closeBeforeAnyMessageIsWsClosed()
    {
        m_server->script = { ScriptedStreamServer::close() };
        connectAndRunToEnd();
        QCOMPARE(m_delegate->calls,
            QStringList { u"fail:WS_CLOSED:Connection closed before any response. Check backend or token."_s });
        QVERIFY(!m_service->gotAnyResponse());
    }

    void refusedHandshakeFailsConnect()
    {
        HttpTestServer refusing([](const HttpTestRequest&) {
            return HttpTestReply { 403, j("{'detail':'forbidden'}") };
        });
        pointConfigAt(refusing.baseUrl());
        const std::optional<StreamConnectFailure> failure = QCoro::waitFor(m_service->connect());
        QVERIFY(failure.has_value());
        QVERIFY(!failure->error.has_value());
        QVERIFY(!failure->description.isEmpty());
        QCOMPARE(refusing.requests.size(), 1);
        QCOMPARE(refusing.requests.first().path, QByteArray("/ws/transcribe"));
        QVERIFY(!m_service->hasSocket());
        QTest::qWait(50);
        QVERIFY(m_delegate->calls.isEmpty()); // the receive loop never started
    }

    void deadBackendFailsConnect()
    {
        const quint16 port = unusedLoopbackPort();
        pointConfigAt(u"http://127.0.0.1:%1"_s.arg(port));
        const std::optional<StreamConnectFailure> failure = QCoro::waitFor(m_service->connect());
        QVERIFY(failure.has_value());
        QCOMPARE(failure->description, u"Connection refused"_s);
        QTest::qWait(50);
        QVERIFY(m_delegate->calls.isEmpty());
    }

    void noTokenIsNotSignedInWithoutTraffic()
    {
        m_store->items.clear();
        m_store->calls.clear();
        const std::optional<StreamConnectFailure> failure = QCoro::waitFor(m_service->connect());
        QVERIFY(failure.has_value());
        QCOMPARE(
            failure->error, std::optional<TranscriptionError>(TranscriptionError(TranscriptionError::notSignedIn)));
        QCOMPARE(failure->description, u"Sign in to Quillet to use dictation."_s);
        QTest::qWait(50);
        QCOMPARE(m_server->connections, 0);
        QVERIFY(!m_service->hasSocket());
        // stop() without a socket sends nothing and does not crash.
        m_service->stop();
        m_service->sendAudio(ramp(10));
    }

    void aLockedKeyringSaysSoInsteadOfSignIn()
    {
        m_store->locked = true;
        const std::optional<StreamConnectFailure> failure = QCoro::waitFor(m_service->connect());
        m_store->locked = false;
        QVERIFY(failure.has_value());
        QCOMPARE(failure->description, u"Your keyring is locked. Unlock it to use dictation."_s);
        QCOMPARE(failure->description, TranscriptionService::keyringLockedMessage);
        QTest::qWait(50);
        QCOMPARE(m_server->connections, 0);
    }

    void cancelClosesWithCode1000()
    {
        m_server->script = { ScriptedStreamServer::text(j("{'type':'partial','text':'x'}")) };
        QSignalSpy gone(m_server.get(), &ScriptedStreamServer::clientGone);
        QVERIFY(!QCoro::waitFor(m_service->connect()));
        QTRY_COMPARE(m_delegate->calls, QStringList { u"partial:x"_s });
        m_service->cancel();
        QVERIFY(!m_service->hasSocket());
        QVERIFY(gone.wait(5000));
        QCOMPARE(m_server->clientCloseCode, 1000);
        // The stream still ends once, as a close after a response.
        QTRY_COMPARE(m_delegate->calls, (QStringList { u"partial:x"_s, u"end"_s }));
        m_service->stop(); // nothing to send to
        m_service->cancel();
    }

    void delegateIsHeldWeakly()
    {
        m_server->script = { ScriptedStreamServer::waitForStop(),
            ScriptedStreamServer::text(j("{'type':'final','text':'f'}")), ScriptedStreamServer::close() };
        QSignalSpy gone(m_server.get(), &ScriptedStreamServer::clientGone);
        QVERIFY(!QCoro::waitFor(m_service->connect()));
        m_delegate.reset(); // the session went away
        m_service->stop();
        QVERIFY(gone.wait(5000));
        QTRY_VERIFY(!m_service->hasSocket());
        QVERIFY(m_service->gotAnyResponse()); // the message was still parsed
    }

    // A backend that accepts the connection and never answers the handshake: cancelling
    // gives up the handshake, and connect() returns.
    void cancelDuringAHungHandshakeEndsConnect()
    {
        SilentBackend silent;
        pointConfigAt(silent.apiBase());
        std::optional<std::optional<StreamConnectFailure>> result;
        runConnect(m_service.get(), &result);
        QTRY_COMPARE(silent.accepted, 1);
        QTest::qWait(50);
        QVERIFY(!result.has_value());
        m_service->cancel();
        QTRY_VERIFY_WITH_TIMEOUT(result.has_value(), 5000);
        QVERIFY(result->has_value()); // a failure, not a stream
        QVERIFY(!m_service->hasSocket());
        QTest::qWait(50);
        QVERIFY(m_delegate->calls.isEmpty());
    }

    // Each connection timeout against a hung backend used to leave its session (and its
    // capsule) behind for good; now the session is gone once its owner lets go.
    void sessionAgainstAHungBackendIsReleasedAfterItsTimeout()
    {
        SilentBackend silent;
        pointConfigAt(silent.apiBase());
        SessionWorld world;
        std::shared_ptr<DictationSession> session = DictationSession::create(
            false, [&world] { ++world.completions; }, sessionEnvironment(world, silent.apiBase()));
        const std::weak_ptr<DictationSession> weak = session;
        session->start();
        QTRY_COMPARE(silent.accepted, 1);
        QTRY_COMPARE(world.shown, QStringList { u"Connection timed out. Check your internet connection."_s });
        QTRY_COMPARE(world.completions, 1);
        session.reset(); // what the owner does on completion
        QTRY_VERIFY_WITH_TIMEOUT(weak.expired(), 5000);
    }

    // The backend dies mid-dictation, after partials: they are kept in the history.
    void sessionWhoseBackendDiesAfterPartialsKeepsThem()
    {
        m_server->script = { ScriptedStreamServer::text(j("{'type':'partial','text':'the quick brown fox'}")),
            ScriptedStreamServer::text(j("{'type':'partial','text':'the quick brown fox runs away into'}")),
            ScriptedStreamServer::abort() };
        SessionWorld world;
        std::shared_ptr<DictationSession> session = DictationSession::create(
            false, [&world] { ++world.completions; }, sessionEnvironment(world, m_server->apiBase()));
        session->start();
        QTRY_COMPARE(world.history, QStringList { u"the quick brown fox runs away into"_s });
        QCOMPARE(world.shown, QStringList { u"Connection lost. Your words are in the history."_s });
        session->stop(); // the key comes up after the loss
        QTRY_COMPARE(world.completions, 1);
        QTest::qWait(700); // past the watchdog
        QCOMPARE(world.shown, QStringList { u"Connection lost. Your words are in the history."_s });
        QVERIFY(world.inserted.isEmpty());
    }

    // The backend sends its final after the stop and never closes: the watchdog inserts it.
    void sessionWhoseBackendNeverClosesInsertsTheFinal()
    {
        m_server->script
            = { ScriptedStreamServer::text(j("{'type':'partial','text':'hello'}")), ScriptedStreamServer::waitForStop(),
                  ScriptedStreamServer::text(j("{'type':'final','text':'hello world'}")) };
        SessionWorld world;
        std::shared_ptr<DictationSession> session = DictationSession::create(
            false, [&world] { ++world.completions; }, sessionEnvironment(world, m_server->apiBase()));
        session->start();
        QTRY_COMPARE(world.state->partialText(), u"hello"_s);
        session->stop();
        QTRY_COMPARE(world.state->partialText(), u"hello world"_s);
        QTRY_COMPARE(world.inserted, QStringList { u"hello world"_s });
        QCOMPARE(world.history, QStringList { u"hello world"_s });
        QCOMPARE(world.shown, QStringList { u"success"_s });
        QTRY_COMPARE(world.completions, 1);
        QTRY_COMPARE(m_server->clientCloseCode, 1000); // and the stream was closed from this side
    }

    // Nothing said: the backend answers the stop with a normal close and no message.
    void normalCloseAfterStopWithNoWordsIsAnEmptyTranscript()
    {
        m_server->script = { ScriptedStreamServer::waitForStop(), ScriptedStreamServer::close() };
        QSignalSpy done(m_delegate.get(), &RecordingDelegate::finished);
        QVERIFY(!QCoro::waitFor(m_service->connect()));
        m_service->stop();
        QVERIFY(done.wait(5000));
        QCOMPARE(m_delegate->calls, QStringList { u"end"_s });
    }

    void finalWithInvalidUtf8IsDecodedAndLogged()
    {
        m_server->script = { ScriptedStreamServer::binary("{\"type\":\"final\",\"text\":\"caf\xC3\xA9 \xFF ok\"}"),
            ScriptedStreamServer::close() };
        StdoutCapture out;
        connectAndRunToEnd();
        QCOMPARE(m_delegate->calls, (QStringList { u"final:café \uFFFD ok"_s, u"end"_s }));
        QVERIFY(
            out.lines().contains(u"⚠️ [Quillet] the server sent a binary frame that is not valid UTF-8 (36 bytes); "
                                 u"its broken sequences are read as U+FFFD"_s));
    }

    // A client clock behind the backend's: the first token is refused as expired; the
    // client renews it once, connects again and sends what it had sent.
    void expiredTokenOnTheStreamIsRenewedOnceAndTheStreamReopened()
    {
        const QString renewed = TestTokens::expiringIn(1800);
        m_store->items.insert(KeychainHelper::refreshTokenKey, "refresh-1");
        m_server->scriptsByConnection = {
            { ScriptedStreamServer::text(j("{'type':'error','code':'TOKEN_EXPIRED','message':'Token expired.'}")),
                ScriptedStreamServer::close(1008) },
            { ScriptedStreamServer::waitForStop(), ScriptedStreamServer::text(j("{'type':'final','text':'hello'}")),
                ScriptedStreamServer::close() },
        };
        FrontDoor door(*m_server,
            QJsonDocument(QJsonObject { { u"access_token"_s, renewed }, { u"refresh_token"_s, u"refresh-2"_s } })
                .toJson(QJsonDocument::Compact));
        pointConfigAt(door.apiBase());
        StdoutCapture out;
        QSignalSpy done(m_delegate.get(), &RecordingDelegate::finished);
        QVERIFY(!QCoro::waitFor(m_service->connect()));
        m_service->sendAudio(ramp(160));
        QTRY_COMPARE(m_server->connections, 2);
        m_service->stop();
        QVERIFY(done.wait(5000));
        QCOMPARE(m_delegate->calls, (QStringList { u"final:hello"_s, u"end"_s }));
        QCOMPARE(door.refreshBodies.size(), 1);
        QCOMPARE(QJsonDocument::fromJson(door.refreshBodies[0]).object().value(u"refresh_token"_s).toString(),
            u"refresh-1"_s);
        // The second stream: the renewed token, the audio sent before, then the stop.
        QCOMPARE(QJsonDocument::fromJson(m_server->received.first()).object().value(u"token"_s).toString(), m_token);
        const QList<QByteArray> second = m_server->received.mid(m_server->received.size() - 3);
        QCOMPARE(QJsonDocument::fromJson(second[0]).object().value(u"token"_s).toString(), renewed);
        QCOMPARE(second[1], TranscriptionService::audioMessage(ramp(160)));
        QCOMPARE(second[2], QByteArray(j("{'type':'stop'}")));
        QCOMPARE(m_store->items.value(KeychainHelper::accessTokenKey), renewed.toUtf8());
        QVERIFY(out.lines().contains(
            u"⚠️ [Quillet] the stream refused the access token as expired: renewing it and reconnecting"_s));
    }

    void expiredTokenTwiceIsReported()
    {
        m_store->items.insert(KeychainHelper::refreshTokenKey, "refresh-1");
        m_server->script
            = { ScriptedStreamServer::text(j("{'type':'error','code':'TOKEN_EXPIRED','message':'Token expired.'}")),
                  ScriptedStreamServer::close(1008) };
        FrontDoor door(*m_server,
            QJsonDocument(QJsonObject { { u"access_token"_s, TestTokens::expiringIn(1800) },
                              { u"refresh_token"_s, u"refresh-2"_s } })
                .toJson(QJsonDocument::Compact));
        pointConfigAt(door.apiBase());
        connectAndRunToEnd();
        QCOMPARE(m_delegate->calls, QStringList { u"fail:TOKEN_EXPIRED:Token expired."_s });
        QCOMPARE(door.refreshBodies.size(), 1); // once, not in a loop
        QCOMPARE(m_server->connections, 2);
    }

    void serviceDestroyedMidStreamIsQuiet()
    {
        m_server->script = { ScriptedStreamServer::waitForStop() };
        QSignalSpy gone(m_server.get(), &ScriptedStreamServer::clientGone);
        QVERIFY(!QCoro::waitFor(m_service->connect()));
        m_service.reset();
        QVERIFY(gone.wait(5000));
        QVERIFY(m_delegate->calls.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestTranscriptionService)
#include "tst_transcriptionservice.moc"
