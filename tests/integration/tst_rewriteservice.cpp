#include "StdoutCapture.h"
#include "TestNetwork.h"
#include "TextServiceFixture.h"
#include "services/AuthNotifier.h"
#include "services/CleanupService.h"
#include "services/Log.h"
#include "services/RewriteService.h"

#include <QSignalSpy>
#include <QtTest>

using namespace std::chrono_literals;

// RewriteService against real HTTP servers on loopback: a scripted one for the odd
// replies, and quillet-server itself for the round trip.
class TestRewriteService : public QObject
{
    Q_OBJECT

    std::unique_ptr<TextServiceFixture> f;
    ServerProcess m_realServer;

    static std::optional<QString> run(RewriteService& service, const QString& text, Tone tone)
    {
        return QCoro::waitFor(service.rewrite(text, tone));
    }

    static HttpTestReply silent()
    {
        HttpTestReply r;
        r.silent = true;
        return r;
    }

private Q_SLOTS:
    void initTestCase() { Log::makeStdoutUnbuffered(); }
    void init() { f = std::make_unique<TextServiceFixture>(); }
    void cleanup()
    {
        RewriteService::resetShared();
        CleanupService::resetShared();
        f.reset();
    }

    void requestCarriesTokenTextToneAndDictionary_data()
    {
        QTest::addColumn<Tone>("tone");
        QTest::addColumn<QString>("raw");
        for (Tone tone : Tones::allCases)
            QTest::newRow(qPrintable(Tones::rawValue(tone))) << tone << Tones::rawValue(tone);
    }
    void requestCarriesTokenTextToneAndDictionary()
    {
        QFETCH(Tone, tone);
        QFETCH(QString, raw);
        f->reply = [](const HttpTestRequest&) { return TextServiceFixture::json(200, { { u"text"_s, u"Done."_s } }); };
        RewriteService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"i'm gonna do it"_s, tone), std::optional<QString>(u"Done."_s));
        QCOMPARE(out.text(), QString());

        QCOMPARE(f->server->requests.size(), 1);
        const HttpTestRequest& request = f->server->requests.first();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.path, QByteArray("/rewrite"));
        QCOMPARE(request.headers.value("authorization"), "Bearer " + f->accessToken.toUtf8());
        QCOMPARE(request.headers.value("content-type"), QByteArray("application/json"));
        QCOMPARE(TextServiceFixture::bodyOf(request),
            (QJsonObject {
                { u"text"_s, u"i'm gonna do it"_s }, { u"tone"_s, raw }, { u"dictionary"_s, QJsonArray {} } }));
    }

    void dictionaryIsSent()
    {
        f->reply = [](const HttpTestRequest&) { return TextServiceFixture::json(200, { { u"text"_s, u"ok"_s } }); };
        SettingsStore::shared().setDictionary({ u"Quillet"_s, u"iPhone"_s });
        RewriteService service;
        QCOMPARE(run(service, u"text"_s, Tone::firm), std::optional<QString>(u"ok"_s));
        QCOMPARE(TextServiceFixture::bodyOf(f->server->requests.first()).value(u"dictionary"_s),
            QJsonValue(QJsonArray { u"Quillet"_s, u"iPhone"_s }));
    }

    void forbiddenGivesNothingEvenWithText()
    {
        f->reply = [](const HttpTestRequest&) {
            return TextServiceFixture::json(403, { { u"text"_s, u"rewritten anyway"_s } });
        };
        RewriteService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s, Tone::friendly), std::nullopt);
        QCOMPARE(f->server->requests.size(), 1);
        QCOMPARE(out.text(), QString());
    }

    void otherStatusesAreDecoded_data()
    {
        QTest::addColumn<int>("status");
        QTest::newRow("500") << 500;
        QTest::newRow("401") << 401;
        QTest::newRow("404") << 404;
        QTest::newRow("200") << 200;
    }
    void otherStatusesAreDecoded()
    {
        QFETCH(int, status);
        f->reply = [=](const HttpTestRequest&) { return HttpTestReply { status, R"({"text":"x"})" }; };
        RewriteService service;
        QCOMPARE(run(service, u"text"_s, Tone::concise), std::optional<QString>(u"x"_s));
    }

    void unusableRepliesGiveNothing_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("not json") << QByteArray("Rewritten.");
        QTest::newRow("no text") << QByteArray(R"({"rewritten":"Rewritten."})");
        QTest::newRow("text an object") << QByteArray(R"({"text":{"value":"Rewritten."}})");
        QTest::newRow("empty body") << QByteArray();
    }
    void unusableRepliesGiveNothing()
    {
        QFETCH(QByteArray, body);
        f->reply = [=](const HttpTestRequest&) { return HttpTestReply { 200, body }; };
        RewriteService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s, Tone::supportive), std::nullopt);
        QCOMPARE(out.text(), QString());
    }

    void droppedConnectionGivesNothing()
    {
        f->reply = [](const HttpTestRequest&) {
            HttpTestReply r;
            r.drop = true;
            return r;
        };
        RewriteService service;
        QCOMPARE(run(service, u"text"_s, Tone::funny), std::nullopt);
        QVERIFY(!f->server->requests.isEmpty());
    }

    void deadPortGivesNothing()
    {
        f->pointConfigAt(u"http://127.0.0.1:"_s + QString::number(unusedLoopbackPort()));
        RewriteService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s, Tone::funny), std::nullopt);
        QCOMPARE(out.text(), QString());
    }

    void replyThatNeverComesTimesOut()
    {
        f->reply = [](const HttpTestRequest&) { return silent(); };
        RewriteService service(200ms);
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s, Tone::professional), std::nullopt);
        QCOMPARE(f->server->requests.size(), 1);
        QCOMPARE(out.text(), QString());
    }

    void defaultTimeoutIsFifteenSeconds() { QCOMPARE(RewriteService::defaultTimeout, 15'000ms); }

    void signedOutMakesNoRequest()
    {
        KeychainHelper::clearTokens();
        RewriteService service;
        StdoutCapture out;
        QCOMPARE(run(service, u"text"_s, Tone::professional), std::nullopt);
        QVERIFY(f->server->requests.isEmpty());
        QCOMPARE(out.text(), QString());
    }

    void expiringTokenIsRefreshedFirst()
    {
        f->signIn(TestTokens::expiringIn(45), f->refreshToken);
        f->reply = [this](const HttpTestRequest& r) {
            if (r.path == "/auth/refresh")
                return HttpTestReply { 200, f->pairBody(f->renewedAccessToken, f->renewedRefreshToken) };
            return TextServiceFixture::json(200, { { u"text"_s, u"Fresh."_s } });
        };
        RewriteService service;
        QCOMPARE(run(service, u"fresh"_s, Tone::firm), std::optional<QString>(u"Fresh."_s));
        QCOMPARE(f->paths(), (QList<QByteArray> { "/auth/refresh", "/rewrite" }));
        QCOMPARE(f->server->requests.at(1).headers.value("authorization"), "Bearer " + f->renewedAccessToken.toUtf8());
    }

    void rejectedRefreshGivesNothingAndSignsOut()
    {
        f->signIn(TestTokens::expiringIn(30), f->refreshToken);
        f->reply = [](const HttpTestRequest&) { return HttpTestReply { 401, "{}" }; };
        QSignalSpy invalidated(&AuthNotifier::instance(), &AuthNotifier::quilletAuthInvalidated);
        RewriteService service;
        QCOMPARE(run(service, u"text"_s, Tone::firm), std::nullopt);
        QCOMPARE(f->paths(), QList<QByteArray> { "/auth/refresh" });
        QCOMPARE(KeychainHelper::load(KeychainHelper::accessTokenKey), std::nullopt);
        QCOMPARE(KeychainHelper::load(KeychainHelper::refreshTokenKey), std::nullopt);
        QCOMPARE(invalidated.count(), 1);
    }

    void overlappingRewritesGetTheirOwnAnswers()
    {
        f->server->holdAnswersUntil(2);
        f->reply = [](const HttpTestRequest& r) {
            const QJsonObject body = TextServiceFixture::bodyOf(r);
            return TextServiceFixture::json(
                200, { { u"text"_s, body.value(u"tone"_s).toString() + u": "_s + body.value(u"text"_s).toString() } });
        };
        RewriteService service;
        QCoro::Task<std::optional<QString>> first = service.rewrite(u"one"_s, Tone::funny);
        QCoro::Task<std::optional<QString>> second = service.rewrite(u"two"_s, Tone::concise);
        QCOMPARE(QCoro::waitFor(first), std::optional<QString>(u"funny: one"_s));
        QCOMPARE(QCoro::waitFor(second), std::optional<QString>(u"concise: two"_s));
    }

    void stalledRewriteDoesNotHoldUpCleanup()
    {
        f->reply = [](const HttpTestRequest& r) {
            if (r.path == "/rewrite")
                return silent();
            return TextServiceFixture::json(200, { { u"text"_s, u"Cleaned."_s } });
        };
        RewriteService::resetShared(std::make_unique<RewriteService>());
        QCoro::Task<std::optional<QString>> rewrite = RewriteService::shared().rewrite(u"slow"_s, Tone::firm);
        QTRY_COMPARE(f->server->requests.size(), 1);

        QCOMPARE(QCoro::waitFor(CleanupService::shared().cleanup(u"quick"_s)), std::optional<QString>(u"Cleaned."_s));
        QVERIFY(!rewrite.isReady());
        QCOMPARE(f->paths(), (QList<QByteArray> { "/rewrite", "/cleanup" }));

        // Replacing the service ends the stalled request: nothing, and no crash.
        RewriteService::resetShared();
        QCOMPARE(QCoro::waitFor(rewrite), std::nullopt);
    }

    void realServerRewrites()
    {
        const QString error = f->useRealServer(m_realServer);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        StdoutCapture out;
        QCOMPARE(run(RewriteService::shared(), u"hey guys i'm gonna send the report, you know, tomorrow!"_s,
                     Tone::professional),
            std::optional<QString>(u"Hello everyone I am going to send the report tomorrow."_s));
        SettingsStore::shared().setDictionary({ u"Friday"_s });
        QCOMPARE(run(RewriteService::shared(), u"could you maybe send the report by friday?"_s, Tone::firm),
            std::optional<QString>(u"Please send the report by Friday."_s));
        QCOMPARE(out.text(), QString());
    }
};

QTEST_GUILESS_MAIN(TestRewriteService)
#include "tst_rewriteservice.moc"
