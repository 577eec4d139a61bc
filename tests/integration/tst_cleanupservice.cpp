#include "StdoutCapture.h"
#include "TestNetwork.h"
#include "TextServiceFixture.h"
#include "services/AuthNotifier.h"
#include "services/CleanupService.h"
#include "services/Log.h"

#include <QSignalSpy>
#include <QtTest>

using namespace std::chrono_literals;

// CleanupService against real HTTP servers on loopback: a scripted one for the odd
// replies, and quillet-server itself for the round trip.
class TestCleanupService : public QObject
{
    Q_OBJECT

    std::unique_ptr<TextServiceFixture> f;
    ServerProcess m_realServer;

    static std::optional<QString> run(CleanupService& service, const QString& text)
    {
        return QCoro::waitFor(service.cleanup(text));
    }

    void assertNoTokenIn(const QString& output)
    {
        for (const QString& secret : { f->accessToken, f->refreshToken, f->renewedAccessToken, f->renewedRefreshToken,
                 f->realPair.access, f->realPair.refresh }) {
            if (!secret.isEmpty())
                QVERIFY2(!output.contains(secret), "a token reached standard output");
        }
    }

private Q_SLOTS:
    void initTestCase() { Log::makeStdoutUnbuffered(); }
    void init() { f = std::make_unique<TextServiceFixture>(); }
    void cleanup()
    {
        CleanupService::resetShared();
        f.reset();
    }

    void requestCarriesTokenTextAndEmptyDictionary()
    {
        f->reply = [](const HttpTestRequest&) { return TextServiceFixture::json(200, { { u"text"_s, u"Hi."_s } }); };
        CleanupService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"um hi"_s), std::optional<QString>(u"Hi."_s));
        QCOMPARE(out.text(), QString());

        QCOMPARE(f->server->requests.size(), 1);
        const HttpTestRequest& request = f->server->requests.first();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.path, QByteArray("/cleanup"));
        QCOMPARE(request.headers.value("authorization"), "Bearer " + f->accessToken.toUtf8());
        QCOMPARE(request.headers.value("content-type"), QByteArray("application/json"));
        const QJsonObject body = TextServiceFixture::bodyOf(request);
        QCOMPARE(body, (QJsonObject { { u"text"_s, u"um hi"_s }, { u"dictionary"_s, QJsonArray {} } }));
        QVERIFY(body.value(u"dictionary"_s).isArray());
    }

    void textIsSentUnchanged()
    {
        f->reply = [](const HttpTestRequest& r) {
            return TextServiceFixture::json(200, { { u"text"_s, TextServiceFixture::bodyOf(r).value(u"text"_s) } });
        };
        CleanupService service;
        const QString text = u"  tabs\tand \"quotes\", ünïcödé 🎤 and a new\nline "_s;
        QCOMPARE(run(service, text), std::optional<QString>(text));
        QCOMPARE(TextServiceFixture::bodyOf(f->server->requests.first()).value(u"text"_s).toString(), text);
    }

    void dictionaryIsReadAtEachRequest()
    {
        f->reply = [](const HttpTestRequest&) { return TextServiceFixture::json(200, { { u"text"_s, u"ok"_s } }); };
        CleanupService service;
        SettingsStore::shared().setDictionary({ u"Quillet"_s, u"PocketSphinx"_s });
        QCOMPARE(run(service, u"one"_s), std::optional<QString>(u"ok"_s));
        SettingsStore::shared().setDictionary({ u"Kubernetes"_s });
        QCOMPARE(run(service, u"two"_s), std::optional<QString>(u"ok"_s));

        QCOMPARE(f->server->requests.size(), 2);
        QCOMPARE(TextServiceFixture::bodyOf(f->server->requests.at(0)).value(u"dictionary"_s),
            QJsonValue(QJsonArray { u"Quillet"_s, u"PocketSphinx"_s }));
        QCOMPARE(TextServiceFixture::bodyOf(f->server->requests.at(1)).value(u"dictionary"_s),
            QJsonValue(QJsonArray { u"Kubernetes"_s }));
    }

    void anyStatusWithTextIsTaken_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("expected");
        QTest::newRow("500") << 500 << QByteArray(R"({"text":"x"})") << u"x"_s;
        QTest::newRow("403") << 403 << QByteArray(R"({"text":"allowed after all"})") << u"allowed after all"_s;
        QTest::newRow("401") << 401 << QByteArray(R"({"text":"y","error":{}})") << u"y"_s;
        QTest::newRow("extra keys") << 200 << QByteArray(R"({"model":"rules","text":"z","ms":3})") << u"z"_s;
        QTest::newRow("empty text") << 200 << QByteArray(R"({"text":""})") << QString();
    }
    void anyStatusWithTextIsTaken()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, expected);
        f->reply = [=](const HttpTestRequest&) { return HttpTestReply { status, body }; };
        CleanupService service;
        StdoutCapture out;
        const std::optional<QString> result = run(service, u"text"_s);
        QVERIFY(result.has_value());
        QCOMPARE(*result, expected);
        QCOMPARE(out.text(), QString());
    }

    void unusableRepliesGiveNothing_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("not json") << 200 << QByteArray("<html>cleaned</html>");
        QTest::newRow("no text") << 200 << QByteArray(R"({"result":"cleaned"})");
        QTest::newRow("text a number") << 200 << QByteArray(R"({"text":42})");
        QTest::newRow("text null") << 200 << QByteArray(R"({"text":null})");
        QTest::newRow("array") << 200 << QByteArray(R"(["cleaned"])");
        QTest::newRow("empty body") << 200 << QByteArray();
        QTest::newRow("error reply") << 401 << QByteArray(R"({"error":{"code":"INVALID_TOKEN"}})");
    }
    void unusableRepliesGiveNothing()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        f->reply = [=](const HttpTestRequest&) { return HttpTestReply { status, body }; };
        CleanupService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s), std::nullopt);
        QCOMPARE(f->server->requests.size(), 1);
        QCOMPARE(out.text(), QString());
    }

    void droppedConnectionGivesNothing()
    {
        f->reply = [](const HttpTestRequest&) {
            HttpTestReply r;
            r.drop = true;
            return r;
        };
        CleanupService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s), std::nullopt);
        QVERIFY(!f->server->requests.isEmpty()); // the network may try a dropped request once more
        QCOMPARE(out.text(), QString());
    }

    void deadPortGivesNothing()
    {
        f->pointConfigAt(u"http://127.0.0.1:"_s + QString::number(unusedLoopbackPort()));
        CleanupService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s), std::nullopt);
        QCOMPARE(out.text(), QString());
    }

    void replyThatNeverComesTimesOut()
    {
        f->reply = [](const HttpTestRequest&) {
            HttpTestReply r;
            r.silent = true;
            return r;
        };
        CleanupService service(200ms);
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s), std::nullopt);
        QCOMPARE(f->server->requests.size(), 1);
        QCOMPARE(out.text(), QString());
    }

    void defaultTimeoutIsTenSeconds() { QCOMPARE(CleanupService::defaultTimeout, 10'000ms); }

    void invalidAddressMakesNoRequest()
    {
        f->pointConfigAt(u"http://[::1:8000"_s);
        CleanupService service;
        QCOMPARE(run(service, u"text"_s), std::nullopt);
        QVERIFY(f->server->requests.isEmpty());
    }

    void signedOutMakesNoRequest()
    {
        KeychainHelper::clearTokens();
        f->secrets->calls.clear();
        CleanupService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s), std::nullopt);
        QVERIFY(f->server->requests.isEmpty());
        QCOMPARE(f->secrets->calls, QStringList { u"copy:quillet.access_token"_s });
        QCOMPARE(out.text(), QString());
    }

    void expiringTokenIsRefreshedFirst()
    {
        f->signIn(TestTokens::expiringIn(30), f->refreshToken);
        f->reply = [this](const HttpTestRequest& r) {
            if (r.path == "/auth/refresh")
                return HttpTestReply { 200, f->pairBody(f->renewedAccessToken, f->renewedRefreshToken) };
            return TextServiceFixture::json(200, { { u"text"_s, u"Fresh."_s } });
        };
        CleanupService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"fresh"_s), std::optional<QString>(u"Fresh."_s));
        QCOMPARE(f->paths(), (QList<QByteArray> { "/auth/refresh", "/cleanup" }));
        QCOMPARE(f->server->requests.at(1).headers.value("authorization"), "Bearer " + f->renewedAccessToken.toUtf8());
        QCOMPARE(out.lines(), QStringList { u"🔄 [Quillet] access token refreshed"_s });
        assertNoTokenIn(out.text());
    }

    void rejectedRefreshGivesNothingAndSignsOut()
    {
        f->signIn(TestTokens::expiringIn(30), f->refreshToken);
        f->reply = [](const HttpTestRequest&) {
            return HttpTestReply { 401, R"({"detail":"invalid refresh token"})" };
        };
        QSignalSpy invalidated(&AuthNotifier::instance(), &AuthNotifier::quilletAuthInvalidated);
        CleanupService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s), std::nullopt);
        QCOMPARE(f->paths(), QList<QByteArray> { "/auth/refresh" });
        QCOMPARE(KeychainHelper::load(KeychainHelper::accessTokenKey), std::nullopt);
        QCOMPARE(KeychainHelper::load(KeychainHelper::refreshTokenKey), std::nullopt);
        QCOMPARE(invalidated.count(), 1);
        // The only line is the token store's own.
        QCOMPARE(out.lines(), QStringList { u"✗ [Quillet] refresh token is invalid — clearing keychain"_s });
        assertNoTokenIn(out.text());
    }

    void overlappingCleanupsGetTheirOwnAnswers()
    {
        // Neither answer leaves the server before both requests are in: they overlap.
        f->server->holdAnswersUntil(2);
        f->reply = [](const HttpTestRequest& r) {
            const QString text = TextServiceFixture::bodyOf(r).value(u"text"_s).toString();
            return TextServiceFixture::json(200, { { u"text"_s, u"clean "_s + text } });
        };
        CleanupService service;
        QCoro::Task<std::optional<QString>> first = service.cleanup(u"first"_s);
        QCoro::Task<std::optional<QString>> second = service.cleanup(u"second"_s);
        QCOMPARE(QCoro::waitFor(second), std::optional<QString>(u"clean second"_s));
        QCOMPARE(QCoro::waitFor(first), std::optional<QString>(u"clean first"_s));
        QCOMPARE(f->server->requests.size(), 2);
    }

    void sharedInstanceIsOneAndReplaceable()
    {
        QCOMPARE(&CleanupService::shared(), &CleanupService::shared());
        auto replacement = std::make_unique<CleanupService>(200ms);
        CleanupService* raw = replacement.get();
        CleanupService::resetShared(std::move(replacement));
        QCOMPARE(&CleanupService::shared(), raw);
    }

    void replacedInstanceInFlightGivesNothing()
    {
        f->reply = [](const HttpTestRequest&) {
            HttpTestReply r;
            r.silent = true;
            return r;
        };
        CleanupService::resetShared(std::make_unique<CleanupService>());
        QCoro::Task<std::optional<QString>> task = CleanupService::shared().cleanup(u"text"_s);
        QTRY_COMPARE(f->server->requests.size(), 1);
        QVERIFY(!task.isReady());
        CleanupService::resetShared();
        QVERIFY(task.isReady());
        QCOMPARE(QCoro::waitFor(task), std::nullopt);
    }

    void replacedInstanceDuringRefreshSendsNothing()
    {
        f->signIn(TestTokens::expiringIn(30), f->refreshToken);
        f->reply = [this](const HttpTestRequest& r) {
            if (r.path == "/auth/refresh")
                return HttpTestReply { 200, f->pairBody(f->renewedAccessToken, f->renewedRefreshToken) };
            return TextServiceFixture::json(200, { { u"text"_s, u"too late"_s } });
        };
        CleanupService::resetShared(std::make_unique<CleanupService>());
        QCoro::Task<std::optional<QString>> task = CleanupService::shared().cleanup(u"text"_s);
        CleanupService::resetShared(); // while the refresh is under way
        QCOMPARE(QCoro::waitFor(task), std::nullopt);
        QCOMPARE(f->paths(), QList<QByteArray> { "/auth/refresh" });
    }

    void realServerCleansUp()
    {
        const QString error = f->useRealServer(m_realServer);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        StdoutCapture out;
        QCOMPARE(run(CleanupService::shared(), u"um hello world"_s), std::optional<QString>(u"Hello world."_s));
        SettingsStore::shared().setDictionary({ u"Quillet"_s, u"Kubernetes"_s });
        QCOMPARE(run(CleanupService::shared(), u"we run uh quillet on kubernetes"_s),
            std::optional<QString>(u"We run Quillet on Kubernetes."_s));
        QCOMPARE(out.text(), QString());
    }

    void realServerRefreshesAnExpiringToken()
    {
        const QString error = f->useRealServer(m_realServer);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        // An access token about to run out is never sent; the real refresh token buys a new one.
        const QString expiring = TestTokens::expiringIn(30);
        f->signIn(expiring, f->realPair.refresh);
        StdoutCapture out;
        QCOMPARE(run(CleanupService::shared(), u"so so hello"_s), std::optional<QString>(u"So hello."_s));
        const std::optional<QString> renewed = KeychainHelper::load(KeychainHelper::accessTokenKey);
        QVERIFY(renewed && *renewed != expiring);
        QCOMPARE(out.lines(), QStringList { u"🔄 [Quillet] access token refreshed"_s });
        assertNoTokenIn(out.text());
    }

    void realServerRejectsAStaleRefreshToken()
    {
        const QString error = f->useRealServer(m_realServer);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        f->signIn(TestTokens::expiringIn(30), u"not-a-refresh-token"_s);
        QSignalSpy invalidated(&AuthNotifier::instance(), &AuthNotifier::quilletAuthInvalidated);
        StdoutCapture out;
        QCOMPARE(run(CleanupService::shared(), u"hello"_s), std::nullopt);
        QCOMPARE(invalidated.count(), 1);
        QCOMPARE(KeychainHelper::load(KeychainHelper::accessTokenKey), std::nullopt);
        QCOMPARE(out.lines(), QStringList { u"✗ [Quillet] refresh token is invalid — clearing keychain"_s });
    }
};

QTEST_GUILESS_MAIN(TestCleanupService)
#include "tst_cleanupservice.moc"
