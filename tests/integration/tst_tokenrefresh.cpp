#include "HttpTestServer.h"
#include "StdoutCapture.h"
#include "TestInfoFile.h"
#include "TestNetwork.h"
#include "TestTokens.h"
#include "platform/SecretStore.h"
#include "services/AuthNotifier.h"
#include "services/KeychainHelper.h"
#include "services/Log.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace Qt::StringLiterals;

// Token renewal against a real HTTP server on loopback, with the tokens kept in
// the real file store in a private folder.
class TestTokenRefresh : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<HttpTestServer> m_server;
    std::unique_ptr<TestInfoFile> m_info;
    std::function<HttpTestReply(const HttpTestRequest&)> m_reply;
    QStringList m_secrets; // every token value used by a test; none may reach the log

    const QString m_oldAccess = TestTokens::expiringIn(20);
    const QString m_oldRefresh = u"refresh-old-7f3a9c"_s;
    const QString m_newAccess = TestTokens::expiringIn(900);
    const QString m_newRefresh = u"refresh-new-b81e44"_s;

    std::optional<QString> stored(const QString& key) { return KeychainHelper::load(key); }

    void pointConfigAt(const QString& base)
    {
        m_info.reset(); // its destructor restores the default lookup
        m_info = std::make_unique<TestInfoFile>(QJsonObject { { u"API_BASE_URL"_s, base } });
    }

    void signIn()
    {
        KeychainHelper::save(KeychainHelper::accessTokenKey, m_oldAccess);
        KeychainHelper::save(KeychainHelper::refreshTokenKey, m_oldRefresh);
    }

    QByteArray pairBody(const QString& access, const QString& refresh)
    {
        return QJsonDocument(QJsonObject { { u"access_token"_s, access }, { u"refresh_token"_s, refresh } })
            .toJson(QJsonDocument::Compact);
    }

    void assertNoSecretIn(const QString& output)
    {
        for (const QString& secret : std::as_const(m_secrets))
            QVERIFY2(!output.contains(secret), "a token value reached standard output");
    }

private Q_SLOTS:
    void initTestCase()
    {
        Log::makeStdoutUnbuffered();
        m_secrets = { m_oldAccess, m_oldRefresh, m_newAccess, m_newRefresh };
    }

    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        KeychainHelper::setStore(makeFileSecretStore(m_dir->filePath(u"credentials.json"_s)));
        m_reply = [](const HttpTestRequest&) { return HttpTestReply { 500, "{}" }; };
        m_server = std::make_unique<HttpTestServer>([this](const HttpTestRequest& r) { return m_reply(r); });
        pointConfigAt(m_server->baseUrl());
        signIn();
    }

    void cleanup()
    {
        m_info.reset();
        m_server.reset();
        KeychainHelper::setStore(nullptr);
        m_dir.reset();
    }

    void success200SavesTheNewPair()
    {
        m_reply = [this](const HttpTestRequest&) { return HttpTestReply { 200, pairBody(m_newAccess, m_newRefresh) }; };
        StdoutCapture out;
        const std::optional<QString> token = QCoro::waitFor(KeychainHelper::performRefresh());
        QCOMPARE(token, std::optional<QString>(m_newAccess));
        QCOMPARE(stored(KeychainHelper::accessTokenKey), std::optional<QString>(m_newAccess));
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::optional<QString>(m_newRefresh));
        QCOMPARE(out.lines(), QStringList { u"🔄 [Quillet] access token refreshed"_s });
        assertNoSecretIn(out.text());

        QCOMPARE(m_server->requests.size(), 1);
        const HttpTestRequest& request = m_server->requests.first();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.path, QByteArray("/auth/refresh"));
        QCOMPARE(request.headers.value("content-type"), QByteArray("application/json"));
        QVERIFY(!request.headers.contains("authorization"));
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(body, (QJsonObject { { u"refresh_token"_s, m_oldRefresh } }));
    }

    void success200WithoutRefreshTokenKeepsTheOldPair()
    {
        m_reply = [this](const HttpTestRequest&) {
            return HttpTestReply { 200, QJsonDocument(QJsonObject { { u"access_token"_s, m_newAccess } }).toJson() };
        };
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(stored(KeychainHelper::accessTokenKey), std::optional<QString>(m_oldAccess));
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::optional<QString>(m_oldRefresh));
        QCOMPARE(out.lines(), QStringList { u"✗ [Quillet] token refresh failed (status=200)"_s });
        assertNoSecretIn(out.text());
    }

    void success200WithUnusableBody_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("not json") << QByteArray("<html>ok</html>");
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("numbers") << QByteArray(R"({"access_token":1,"refresh_token":2})");
        QTest::newRow("empty") << QByteArray();
    }
    void success200WithUnusableBody()
    {
        QFETCH(QByteArray, body);
        m_reply = [body](const HttpTestRequest&) { return HttpTestReply { 200, body }; };
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::optional<QString>(m_oldRefresh));
        QCOMPARE(out.lines(), QStringList { u"✗ [Quillet] token refresh failed (status=200)"_s });
    }

    void rejection401SignsOutAndNotifiesOnce()
    {
        m_reply = [](const HttpTestRequest&) { return HttpTestReply { 401, R"({"detail":"invalid refresh token"})" }; };
        QSignalSpy invalidated(&AuthNotifier::instance(), &AuthNotifier::quilletAuthInvalidated);
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(stored(KeychainHelper::accessTokenKey), std::nullopt);
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::nullopt);
        QCOMPARE(invalidated.count(), 1);
        QCOMPARE(out.lines(), QStringList { u"✗ [Quillet] refresh token is invalid — clearing keychain"_s });
        // Nothing else is announced later.
        QTest::qWait(50);
        QCOMPARE(invalidated.count(), 1);
    }

    void otherStatusesKeepTheTokens_data()
    {
        QTest::addColumn<int>("status");
        QTest::newRow("403") << 403;
        QTest::newRow("400") << 400;
        QTest::newRow("500") << 500;
        QTest::newRow("404") << 404;
    }
    void otherStatusesKeepTheTokens()
    {
        QFETCH(int, status);
        m_reply = [status](const HttpTestRequest&) { return HttpTestReply { status, R"({"detail":"no"})" }; };
        QSignalSpy invalidated(&AuthNotifier::instance(), &AuthNotifier::quilletAuthInvalidated);
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(stored(KeychainHelper::accessTokenKey), std::optional<QString>(m_oldAccess));
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::optional<QString>(m_oldRefresh));
        QCOMPARE(invalidated.count(), 0);
        QCOMPARE(out.lines(), QStringList { u"✗ [Quillet] token refresh failed (status=%1)"_s.arg(status) });
    }

    void droppedConnectionIsATransportError()
    {
        m_reply = [](const HttpTestRequest&) { return HttpTestReply { .drop = true }; };
        QSignalSpy invalidated(&AuthNotifier::instance(), &AuthNotifier::quilletAuthInvalidated);
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::optional<QString>(m_oldRefresh));
        QCOMPARE(invalidated.count(), 0);
        const QStringList lines = out.lines();
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().startsWith(u"✗ [Quillet] token refresh error: "_s), qPrintable(lines.first()));
        QVERIFY(lines.first().size() > u"✗ [Quillet] token refresh error: "_s.size());
    }

    void deadBackendIsATransportError()
    {
        const quint16 port = unusedLoopbackPort();
        pointConfigAt(u"http://127.0.0.1:%1"_s.arg(port));
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(out.lines(), QStringList { u"✗ [Quillet] token refresh error: Connection refused"_s });
        QCOMPARE(stored(KeychainHelper::accessTokenKey), std::optional<QString>(m_oldAccess));
    }

    void noRefreshTokenMeansNoRequestAndNoLine()
    {
        KeychainHelper::clearTokens();
        KeychainHelper::save(KeychainHelper::accessTokenKey, m_oldAccess);
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(m_server->requests.size(), 0);
        QVERIFY(out.text().isEmpty());
    }

    void emptyApiBaseFailsAsARequest()
    {
        // An empty base leaves a bare path, which no server can be asked for.
        pointConfigAt(u""_s);
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(m_server->requests.size(), 0);
        const QStringList lines = out.lines();
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().startsWith(u"✗ [Quillet] token refresh error: "_s), qPrintable(lines.first()));
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::optional<QString>(m_oldRefresh));
    }

    void validAccessTokenRenewsAnExpiringToken()
    {
        m_reply = [this](const HttpTestRequest&) { return HttpTestReply { 200, pairBody(m_newAccess, m_newRefresh) }; };
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::optional<QString>(m_newAccess));
        QCOMPARE(m_server->requests.size(), 1);
        // The renewed token is good for a while: no second request.
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::optional<QString>(m_newAccess));
        QCOMPARE(m_server->requests.size(), 1);
    }

    void validAccessTokenGivesNothingWhenRenewalFails()
    {
        m_reply = [](const HttpTestRequest&) { return HttpTestReply { 503, "{}" }; };
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::nullopt);
        QCOMPARE(m_server->requests.size(), 1);
        // No retry and no back-off: the next caller simply tries again.
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::nullopt);
        QCOMPARE(m_server->requests.size(), 2);
    }

    void concurrentCallersShareOneRenewal()
    {
        // The server rotates: only the current refresh token is accepted, once; a reused
        // one revokes the family (the user is signed out). It answers after 0.4 s, as a
        // distant backend would, while a double tap asks twice.
        QString current = m_oldRefresh;
        int issued = 0;
        m_reply = [&](const HttpTestRequest& request) {
            const QString sent = QJsonDocument::fromJson(request.body).object().value(u"refresh_token"_s).toString();
            if (sent != current)
                return HttpTestReply { .status = 401, .body = R"({"detail":"refresh token reused"})", .delayMs = 400 };
            current = u"refresh-rotated-%1"_s.arg(++issued);
            m_secrets.append(current);
            return HttpTestReply { .status = 200, .body = pairBody(m_newAccess, current), .delayMs = 400 };
        };
        QSignalSpy invalidated(&AuthNotifier::instance(), &AuthNotifier::quilletAuthInvalidated);
        StdoutCapture out;

        QCoro::Task<std::optional<QString>> first = KeychainHelper::validAccessToken();
        QCoro::Task<std::optional<QString>> second = KeychainHelper::validAccessToken();
        QCoro::Task<std::optional<QString>> third = KeychainHelper::performRefresh();
        const std::optional<QString> a = QCoro::waitFor(std::move(first));
        const std::optional<QString> b = QCoro::waitFor(std::move(second));
        const std::optional<QString> c = QCoro::waitFor(std::move(third));

        // One request; everyone got its answer.
        QCOMPARE(m_server->requests.size(), 1);
        QCOMPARE(a, std::optional<QString>(m_newAccess));
        QCOMPARE(b, std::optional<QString>(m_newAccess));
        QCOMPARE(c, std::optional<QString>(m_newAccess));
        QCOMPARE(invalidated.count(), 0);
        QCOMPARE(out.lines(), QStringList { u"🔄 [Quillet] access token refreshed"_s });
        QCOMPARE(stored(KeychainHelper::accessTokenKey), std::optional<QString>(m_newAccess));
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::optional<QString>(u"refresh-rotated-1"_s));

        // Once it is over, a later renewal is a new request with the new refresh token.
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::optional<QString>(m_newAccess));
        QCOMPARE(m_server->requests.size(), 2);
        QCOMPARE(QJsonDocument::fromJson(m_server->requests.last().body).object().value(u"refresh_token"_s).toString(),
            u"refresh-rotated-1"_s);
        QCOMPARE(invalidated.count(), 0);
        assertNoSecretIn(out.text());
    }

    void repliedTokensOfTheWrongShapeAreNotStored()
    {
        m_reply = [this](const HttpTestRequest&) {
            return HttpTestReply { 200, pairBody(m_newAccess + u"\r\nX-Injected: yes"_s, m_newRefresh) };
        };
        StdoutCapture out;
        QCOMPARE(QCoro::waitFor(KeychainHelper::performRefresh()), std::nullopt);
        QCOMPARE(stored(KeychainHelper::accessTokenKey), std::optional<QString>(m_oldAccess));
        QCOMPARE(stored(KeychainHelper::refreshTokenKey), std::optional<QString>(m_oldRefresh));
        QCOMPARE(out.lines(), QStringList { u"✗ [Quillet] token refresh failed (status=200)"_s });
    }

    void theEventLoopRunsWhileTheStoreIsSlow()
    {
        // A secret store that answers only once the program's event loop has run a
        // timer (a keyring waiting for its unlock prompt, which the user answers in a
        // window of ours): a store call made on the GUI thread never gets its answer.
        struct WaitingStore final : SecretStore {
            std::unique_ptr<SecretStore> inner;
            QSemaphore* answered = nullptr;
            Status copy(const QString& a, QByteArray& d) override
            {
                if (!answered->tryAcquire(1, 5000))
                    return Status::Unavailable;
                return inner->copy(a, d);
            }
            Status remove(const QString& a) override { return inner->remove(a); }
            Status add(const QString& a, const QByteArray& d) override { return inner->add(a, d); }
            QString backendName() const override { return u"waiting"_s; }
        };
        QSemaphore answered;
        auto waiting = std::make_unique<WaitingStore>();
        waiting->inner = makeFileSecretStore(m_dir->filePath(u"credentials.json"_s));
        waiting->answered = &answered;
        KeychainHelper::setStore(std::move(waiting));
        KeychainHelper::save(KeychainHelper::accessTokenKey, m_newAccess); // a save reads nothing: not gated

        QTimer::singleShot(0, this, [&] { answered.release(); });
        const std::optional<QString> value = QCoro::waitFor(KeychainHelper::validAccessToken());
        QCOMPARE(value, std::optional<QString>(m_newAccess));
        QCOMPARE(answered.available(), 0);
    }
};

QTEST_GUILESS_MAIN(TestTokenRefresh)
#include "tst_tokenrefresh.moc"
