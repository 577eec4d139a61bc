// The real quillet-server, spoken to over loopback exactly as the desktop client speaks to
// it: health, sign-in pages and the deep link, token refresh, clean-up and rewrite, and
// every way a transcription stream can fail.
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString account = u"tester"_s;

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

} // namespace

class ServerConformance : public QObject
{
    Q_OBJECT

private:
    ServerProcess m_server { { u"--account-name"_s, account } };
    // Small limits, so that the limit errors happen in a second rather than minutes.
    ServerProcess m_tight { { u"--account-name"_s, account, u"--max-streams"_s, u"1"_s, u"--max-stream-seconds"_s,
        u"1"_s, u"--idle-timeout"_s, u"1"_s } };
    Http m_http;
    // Opened first and never signed in: checked last, after the 10-second deadline.
    std::unique_ptr<StreamClient> m_silent;
    QElapsedTimer m_silentSince;
    QStringList m_issuedTokens;

    TokenPair signIn(ServerProcess& server)
    {
        QString error;
        TokenPair pair = signInThroughSite(m_http, server, &error);
        if (!error.isEmpty())
            qWarning("%s", qPrintable(error));
        m_issuedTokens << pair.access << pair.refresh;
        return pair;
    }

    // Opens a stream, lets `send` misbehave, and checks for one error with `code`, then the close.
    void expectStreamError(ServerProcess& server, const std::function<void(StreamClient&)>& send, const QString& code,
        int closeCode = 1008)
    {
        StreamClient client;
        QVERIFY(client.open(server.streamUrl()));
        send(client);
        QVERIFY2(client.waitClosed(15'000), qPrintable(u"no close after %1"_s.arg(code)));
        QVERIFY(!client.messages().isEmpty());
        const QJsonObject error = client.messages().constLast();
        QCOMPARE(error.value(u"type"_s).toString(), u"error"_s);
        QCOMPARE(error.value(u"code"_s).toString(), code);
        QVERIFY(!error.value(u"message"_s).toString().isEmpty());
        QCOMPARE(client.texts(u"error"_s).size(), 1);
        QCOMPARE(client.closeCode(), closeCode);
    }

    QByteArray forgedToken(qint64 expiresAt, const QByteArray& key, const QString& alg = u"HS256"_s)
    {
        return makeJwt({ { u"alg"_s, alg }, { u"typ"_s, u"JWT"_s } },
            { { u"sub"_s, account }, { u"iat"_s, now() - 100 }, { u"exp"_s, expiresAt }, { u"gen"_s, 0 } }, key);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QString error;
        QVERIFY2(m_server.start(&error), qPrintable(error));
        QVERIFY2(m_tight.start(&error), qPrintable(error));
        m_silent = std::make_unique<StreamClient>();
        QVERIFY(m_silent->open(m_server.streamUrl()));
        m_silentSince.start();
    }

    void health()
    {
        const HttpResult result = m_http.get(m_server.apiUrl(u"/health"_s));
        QCOMPARE(result.status, 200);
        const QJsonObject body = result.json();
        QCOMPARE(body.value(u"status"_s).toString(), u"ok"_s);
        QVERIFY(!body.value(u"version"_s).toString().isEmpty());
        QCOMPARE(body.value(u"speech_engine"_s).toString(), u"pocketsphinx"_s);
        QCOMPARE(body.value(u"text_engine"_s).toString(), u"rules"_s);
    }

    void unknownPathIs404() { QCOMPARE(m_http.get(m_server.apiUrl(u"/nothing-here"_s)).status, 404); }

    void signInPageToDeepLinkToTokens()
    {
        const HttpResult page = m_http.get(m_server.siteUrl(u"/signin?source=mac-app"_s));
        QCOMPARE(page.status, 200);
        QVERIFY(page.body.contains("<form method=\"post\" action=\"/signin\">"));
        QVERIFY(!page.body.contains("<script"));

        const TokenPair pair = signIn(m_server);
        QVERIFY(pair.deepLink.startsWith(u"quillet://auth?token="_s));
        const QUrl link(pair.deepLink);
        QCOMPARE(link.scheme(), u"quillet"_s);
        QCOMPARE(link.host(), u"auth"_s);
        QVERIFY(!pair.access.isEmpty());
        QVERIFY(!pair.refresh.isEmpty());

        const QStringList parts = pair.access.split(u'.');
        QCOMPARE(parts.size(), 3);
        const QJsonObject header
            = QJsonDocument::fromJson(QByteArray::fromBase64(parts.at(0).toLatin1(), QByteArray::Base64UrlEncoding))
                  .object();
        QCOMPARE(header.value(u"alg"_s).toString(), u"HS256"_s);
        const QJsonObject payload = jwtPayload(pair.access);
        QCOMPARE(payload.value(u"sub"_s).toString(), account);
        const qint64 exp = payload.value(u"exp"_s).toInteger();
        QVERIFY(exp > now());
        QCOMPARE(exp - payload.value(u"iat"_s).toInteger(), 15 * 60);
    }

    void signInRefusesStaleFormsAndForeignSites()
    {
        const HttpResult stale = m_http.post(
            m_server.siteUrl(u"/signin"_s), "form=1.bogus&source=mac-app", "application/x-www-form-urlencoded");
        QCOMPARE(stale.status, 403);
        QVERIFY(!stale.body.contains("quillet://"));

        const HttpResult rebound
            = m_http.get(m_server.siteUrl(u"/signin?source=mac-app"_s), { { "Host", "evil.example:3000" } });
        QCOMPARE(rebound.status, 403);

        const HttpResult page = m_http.get(m_server.siteUrl(u"/signin?source=mac-app"_s));
        static const QRegularExpression formField(u"name=\"form\" value=\"([^\"]+)\""_s);
        const QString form = formField.match(QString::fromUtf8(page.body)).captured(1);
        const HttpResult crossSite
            = m_http.post(m_server.siteUrl(u"/signin"_s), "form=" + QUrl::toPercentEncoding(form),
                "application/x-www-form-urlencoded", { { "Origin", "https://evil.example" } });
        QCOMPARE(crossSite.status, 403);
    }

    void refreshRotatesAndDetectsReuse()
    {
        const TokenPair first = signIn(m_server);
        const HttpResult second
            = m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, first.refresh } });
        QCOMPARE(second.status, 200);
        const QString access2 = second.json().value(u"access_token"_s).toString();
        const QString refresh2 = second.json().value(u"refresh_token"_s).toString();
        m_issuedTokens << access2 << refresh2;
        QVERIFY(!access2.isEmpty());
        QVERIFY(!refresh2.isEmpty());
        QVERIFY(refresh2 != first.refresh);
        QVERIFY(jwtPayload(access2).value(u"exp"_s).toInteger() > now());

        const HttpResult third
            = m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, refresh2 } });
        QCOMPARE(third.status, 200);
        const QString refresh3 = third.json().value(u"refresh_token"_s).toString();
        m_issuedTokens << refresh3 << third.json().value(u"access_token"_s).toString();

        // The first token was rotated long ago: replaying it ends the whole family.
        const HttpResult replay
            = m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, first.refresh } });
        QCOMPARE(replay.status, 401);
        const HttpResult afterReplay
            = m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, refresh3 } });
        QCOMPARE(afterReplay.status, 401);

        // Other sign-ins are untouched.
        const TokenPair other = signIn(m_server);
        QCOMPARE(m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, other.refresh } }).status,
            200);
    }

    void refreshRejectsUnknownExpiredAndMalformed()
    {
        QCOMPARE(
            m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, u"qrt_unknown"_s } }).status,
            401);
        QCOMPARE(m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"token"_s, u"x"_s } }).status, 400);
        QCOMPARE(m_http.post(m_server.apiUrl(u"/auth/refresh"_s), "not json", "application/json").status, 400);

        const TokenPair pair = signIn(m_server);
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"expire"_s);
            db.setDatabaseName(m_server.dataDir() + u"/data/quillet.db"_s);
            QVERIFY(db.open());
            QSqlQuery query(db);
            QVERIFY(query.exec(
                u"UPDATE refresh_tokens SET expires_at = 1 WHERE rotated_at IS NULL AND revoked_at IS NULL"_s));
            db.close();
        }
        QSqlDatabase::removeDatabase(u"expire"_s);
        QCOMPARE(
            m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, pair.refresh } }).status, 401);
    }

    void cleanupRemovesFillersAndRepeats()
    {
        const TokenPair pair = signIn(m_server);
        const HttpResult result = m_http.postJson(m_server.apiUrl(u"/cleanup"_s),
            { { u"text"_s, u"um so i i think the the report is uh done"_s }, { u"dictionary"_s, QJsonArray {} } },
            pair.access.toUtf8());
        QCOMPARE(result.status, 200);
        QCOMPARE(result.json().value(u"text"_s).toString(), u"So I think the report is done."_s);
    }

    void cleanupWritesDictionaryTermsExactly()
    {
        const TokenPair pair = signIn(m_server);
        const HttpResult result = m_http.postJson(m_server.apiUrl(u"/cleanup"_s),
            { { u"text"_s, u"we deployed the QUILLET server on kubernetes with postgresql. iphone builds are next"_s },
                { u"dictionary"_s, QJsonArray { u"Quillet"_s, u"Kubernetes"_s, u"PostgreSQL"_s, u"iPhone"_s } } },
            pair.access.toUtf8());
        QCOMPARE(result.status, 200);
        QCOMPARE(result.json().value(u"text"_s).toString(),
            u"We deployed the Quillet server on Kubernetes with PostgreSQL. iPhone builds are next."_s);
    }

    void rewriteEveryTone_data()
    {
        QTest::addColumn<QString>("tone");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("dictionary");
        QTest::addColumn<QString>("expected");
        QTest::newRow("professional") << u"professional"_s
                                      << u"hey guys i'm gonna send the report, you know, tomorrow!"_s << QStringList()
                                      << u"Hello everyone I am going to send the report tomorrow."_s;
        QTest::newRow("friendly") << u"friendly"_s << u"hello i am happy to help. it is no trouble"_s << QStringList()
                                  << u"Hi I'm happy to help. It's no trouble!"_s;
        QTest::newRow("firm") << u"firm"_s << u"could you maybe send the report by friday?"_s
                              << QStringList { u"Friday"_s } << u"Please send the report by Friday."_s;
        QTest::newRow("supportive") << u"supportive"_s << u"you must fix this problem"_s << QStringList()
                                    << u"It would help to fix this challenge. I'm here to help if you need anything."_s;
        QTest::newRow("concise")
            << u"concise"_s << u"um i just wanted to say that we really need to act in order to meet the deadline"_s
            << QStringList() << u"We need to act to meet the deadline."_s;
        QTest::newRow("concise with dictionary") << u"concise"_s << u"the quillet app is very fast"_s
                                                 << QStringList { u"Quillet"_s } << u"The Quillet app is fast."_s;
    }

    void rewriteEveryTone()
    {
        QFETCH(QString, tone);
        QFETCH(QString, text);
        QFETCH(QStringList, dictionary);
        QFETCH(QString, expected);
        const TokenPair pair = signIn(m_server);
        const HttpResult result = m_http.postJson(m_server.apiUrl(u"/rewrite"_s),
            { { u"text"_s, text }, { u"tone"_s, tone }, { u"dictionary"_s, QJsonArray::fromStringList(dictionary) } },
            pair.access.toUtf8());
        QCOMPARE(result.status, 200);
        QCOMPARE(result.json().value(u"text"_s).toString(), expected);
    }

    void rewriteFunnyAddsATagLine()
    {
        const TokenPair pair = signIn(m_server);
        const QJsonObject body { { u"text"_s, u"the meeting moved to three"_s }, { u"tone"_s, u"funny"_s },
            { u"dictionary"_s, QJsonArray {} } };
        const HttpResult result = m_http.postJson(m_server.apiUrl(u"/rewrite"_s), body, pair.access.toUtf8());
        QCOMPARE(result.status, 200);
        const QString text = result.json().value(u"text"_s).toString();
        QVERIFY2(text.startsWith(u"The meeting moved to three! ("_s), qPrintable(text));
        QVERIFY(text.endsWith(u".)"_s));
        // Deterministic: the same text gets the same line.
        QCOMPARE(m_http.postJson(m_server.apiUrl(u"/rewrite"_s), body, pair.access.toUtf8()).json(), result.json());
    }

    void rewriteRejectsUnknownTones()
    {
        const TokenPair pair = signIn(m_server);
        for (const QString& tone : { u"sarcastic"_s, u"Professional"_s }) {
            const HttpResult result = m_http.postJson(m_server.apiUrl(u"/rewrite"_s),
                { { u"text"_s, u"hi"_s }, { u"tone"_s, tone }, { u"dictionary"_s, QJsonArray {} } },
                pair.access.toUtf8());
            QCOMPARE(result.status, 400);
            QCOMPARE(result.json().value(u"error"_s).toObject().value(u"code"_s).toString(), u"UNKNOWN_TONE"_s);
            QVERIFY(!result.json().contains(u"text"_s));
        }
    }

    void textServicesNeedAValidAccessToken()
    {
        const QJsonObject body { { u"text"_s, u"hello"_s }, { u"dictionary"_s, QJsonArray {} } };
        QCOMPARE(m_http.postJson(m_server.apiUrl(u"/cleanup"_s), body).status, 401);
        QCOMPARE(m_http.postJson(m_server.apiUrl(u"/cleanup"_s), body, "not.a.token").status, 401);
        const QByteArray wrongKey = forgedToken(now() + 600, QByteArray(32, 'x'));
        QCOMPARE(m_http.postJson(m_server.apiUrl(u"/cleanup"_s), body, wrongKey).status, 401);
        const QByteArray expired = forgedToken(now() - 5, m_server.signingKey());
        const HttpResult result = m_http.postJson(m_server.apiUrl(u"/rewrite"_s), body, expired);
        QCOMPARE(result.status, 401);
        QCOMPARE(result.json().value(u"error"_s).toObject().value(u"code"_s).toString(), u"TOKEN_EXPIRED"_s);
        const QByteArray good = forgedToken(now() + 600, m_server.signingKey());
        QCOMPARE(m_http.postJson(m_server.apiUrl(u"/cleanup"_s), body, good).status, 200);
    }

    void streamRejectsBadTokens_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("code");
        QTest::newRow("malformed") << u"malformed"_s << u"INVALID_TOKEN"_s;
        QTest::newRow("none algorithm") << u"none"_s << u"INVALID_TOKEN"_s;
        QTest::newRow("bad signature") << u"badsig"_s << u"INVALID_TOKEN"_s;
        QTest::newRow("missing token") << u"missing"_s << u"INVALID_TOKEN"_s;
        QTest::newRow("expired") << u"expired"_s << u"TOKEN_EXPIRED"_s;
    }

    void streamRejectsBadTokens()
    {
        QFETCH(QString, kind);
        QFETCH(QString, code);
        const QByteArray key = m_server.signingKey();
        QVERIFY(!key.isEmpty());
        expectStreamError(
            m_server,
            [&](StreamClient& client) {
                if (kind == u"malformed"_s) {
                    client.sendAuth(u"definitely-not-a-jwt"_s);
                } else if (kind == u"none"_s) {
                    const QByteArray signedToken = forgedToken(now() + 600, key, u"none"_s);
                    client.sendAuth(QString::fromLatin1(signedToken.left(signedToken.lastIndexOf('.') + 1)));
                } else if (kind == u"badsig"_s) {
                    client.sendAuth(QString::fromLatin1(forgedToken(now() + 600, QByteArray(32, 'k'))));
                } else if (kind == u"missing"_s) {
                    client.sendJson({ { u"type"_s, u"auth"_s } });
                } else {
                    client.sendAuth(QString::fromLatin1(forgedToken(now() - 1, key)));
                }
            },
            code);
    }

    void expiredTokenMessageSaysToSignInAgain()
    {
        StreamClient client;
        QVERIFY(client.open(m_server.streamUrl()));
        client.sendAuth(QString::fromLatin1(forgedToken(now() - 60, m_server.signingKey())));
        QVERIFY(client.waitClosed(10'000));
        QVERIFY(client.firstOfType(u"error"_s).value(u"message"_s).toString().contains(u"Sign in"_s));
    }

    void streamProtocolErrors_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("code");
        QTest::addColumn<int>("closeCode");
        QTest::newRow("audio before auth") << u"early-audio"_s << u"AUTH_REQUIRED"_s << 1008;
        QTest::newRow("stop before auth") << u"early-stop"_s << u"AUTH_REQUIRED"_s << 1008;
        QTest::newRow("malformed json") << u"json"_s << u"INVALID_JSON"_s << 1008;
        QTest::newRow("not an object") << u"array"_s << u"INVALID_MESSAGE"_s << 1008;
        QTest::newRow("unknown type") << u"unknown"_s << u"INVALID_MESSAGE"_s << 1008;
        QTest::newRow("bad base64") << u"base64"_s << u"INVALID_AUDIO"_s << 1008;
        QTest::newRow("odd byte count") << u"odd"_s << u"INVALID_AUDIO"_s << 1008;
        QTest::newRow("over 1 MiB") << u"huge"_s << u"MESSAGE_TOO_LARGE"_s << 1009;
    }

    void streamProtocolErrors()
    {
        QFETCH(QString, kind);
        QFETCH(QString, code);
        QFETCH(int, closeCode);
        const TokenPair pair = signIn(m_server);
        expectStreamError(
            m_server,
            [&](StreamClient& client) {
                if (kind == u"early-audio"_s) {
                    client.sendAudio(QByteArray(3200, 0));
                    return;
                }
                if (kind == u"early-stop"_s) {
                    client.sendStop();
                    return;
                }
                client.sendAuth(pair.access);
                if (kind == u"json"_s)
                    client.sendText(u"{\"type\": \"audio\", "_s);
                else if (kind == u"array"_s)
                    client.sendText(u"[1, 2, 3]"_s);
                else if (kind == u"unknown"_s)
                    client.sendJson({ { u"type"_s, u"dance"_s } });
                else if (kind == u"base64"_s)
                    client.sendJson({ { u"type"_s, u"audio"_s }, { u"data"_s, u"@@not base64@@"_s } });
                else if (kind == u"odd"_s)
                    client.sendJson(
                        { { u"type"_s, u"audio"_s }, { u"data"_s, QString::fromLatin1(QByteArray(3, 0).toBase64()) } });
                else if (kind == u"huge"_s)
                    client.sendAudio(QByteArray(1200 * 1024, 0)); // 1.6 MB of base64
            },
            code, closeCode);
    }

    void streamLimits()
    {
        const TokenPair pair = signIn(m_tight);
        // Longer than --max-stream-seconds 1.
        expectStreamError(
            m_tight,
            [&](StreamClient& client) {
                client.sendAuth(pair.access);
                for (const QByteArray& chunk : chunked(QByteArray(2 * 16000 * 2, 0), 1365))
                    client.sendAudio(chunk);
            },
            u"STREAM_TOO_LONG"_s);
        // Silent for longer than --idle-timeout 1.
        expectStreamError(
            m_tight, [&](StreamClient& client) { client.sendAuth(pair.access); }, u"IDLE_TIMEOUT"_s);
    }

    void serverBusyBeyondTheStreamLimit()
    {
        const TokenPair pair = signIn(m_tight);
        StreamClient holder;
        QVERIFY(holder.open(m_tight.streamUrl()));
        holder.sendAuth(pair.access);
        holder.sendAudio(QByteArray(3200, 0));
        QTest::qWait(200);
        QVERIFY(!holder.closed());

        expectStreamError(
            m_tight, [&](StreamClient& client) { client.sendAuth(pair.access); }, u"SERVER_BUSY"_s);

        holder.sendStop();
        QVERIFY(holder.waitClosed(10'000));
        QCOMPARE(holder.closeCode(), 1000);
        QVERIFY(holder.texts(u"error"_s).isEmpty());

        // The slot is free again.
        StreamClient next;
        QVERIFY(next.open(m_tight.streamUrl()));
        next.sendAuth(pair.access);
        next.sendStop();
        QVERIFY(next.waitClosed(10'000));
        QCOMPARE(next.closeCode(), 1000);
        QVERIFY(next.texts(u"error"_s).isEmpty());
    }

    void stopWithoutAudioClosesNormally()
    {
        const TokenPair pair = signIn(m_server);
        StreamClient client;
        QVERIFY(client.open(m_server.streamUrl()));
        client.sendAuth(pair.access);
        client.sendAudio(QByteArray(16000, 0)); // half a second of silence
        client.sendStop();
        QVERIFY(client.waitClosed(10'000));
        QCOMPARE(client.closeCode(), 1000);
        QVERIFY(client.texts(u"error"_s).isEmpty());
        QVERIFY(client.texts(u"final"_s).isEmpty());
    }

    void binaryFramesCarryTheSameJson()
    {
        const TokenPair pair = signIn(m_server);
        StreamClient client;
        QVERIFY(client.open(m_server.streamUrl()));
        client.sendBinary(QJsonDocument(QJsonObject { { u"type"_s, u"auth"_s }, { u"token"_s, pair.access } })
                              .toJson(QJsonDocument::Compact));
        client.sendBinary(R"({"type":"stop"})");
        QVERIFY(client.waitClosed(10'000));
        QCOMPARE(client.closeCode(), 1000);
        QVERIFY(client.texts(u"error"_s).isEmpty());
    }

    void signOutEverywhereEndsEverySession()
    {
        const TokenPair a = signIn(m_server);
        const TokenPair b = signIn(m_server);
        const HttpResult page = m_http.get(m_server.siteUrl(u"/account"_s));
        QCOMPARE(page.status, 200);
        QVERIFY(page.body.contains(account.toUtf8()));
        static const QRegularExpression formField(u"name=\"form\" value=\"([^\"]+)\""_s);
        const QString form = formField.match(QString::fromUtf8(page.body)).captured(1);
        QVERIFY(!form.isEmpty());
        const HttpResult done = m_http.post(m_server.siteUrl(u"/account/sign-out-everywhere"_s),
            "form=" + QUrl::toPercentEncoding(form), "application/x-www-form-urlencoded");
        QCOMPARE(done.status, 200);
        QVERIFY(done.body.contains("Signed out everywhere"));

        for (const TokenPair& pair : { a, b }) {
            QCOMPARE(
                m_http.postJson(m_server.apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, pair.refresh } }).status,
                401);
            QCOMPARE(m_http
                         .postJson(m_server.apiUrl(u"/cleanup"_s),
                             { { u"text"_s, u"x"_s }, { u"dictionary"_s, QJsonArray {} } }, pair.access.toUtf8())
                         .status,
                401);
        }
        expectStreamError(
            m_server, [&](StreamClient& client) { client.sendAuth(a.access); }, u"TOKEN_REVOKED"_s);

        // Signing in again works.
        const TokenPair again = signIn(m_server);
        QCOMPARE(m_http
                     .postJson(m_server.apiUrl(u"/cleanup"_s),
                         { { u"text"_s, u"x"_s }, { u"dictionary"_s, QJsonArray {} } }, again.access.toUtf8())
                     .status,
            200);
    }

    void authDeadline()
    {
        // The stream opened in initTestCase never signed in.
        QVERIFY(m_silent->waitClosed(int(std::max<qint64>(1, 15'000 - m_silentSince.elapsed()))));
        QVERIFY(m_silentSince.elapsed() >= 9'000);
        QCOMPARE(m_silent->messages().size(), 1);
        QCOMPARE(m_silent->messages().constFirst().value(u"code"_s).toString(), u"AUTH_TIMEOUT"_s);
    }

    void serverStillHealthyAndLogsNoTokens()
    {
        QVERIFY(m_server.isRunning());
        QVERIFY(m_tight.isRunning());
        QCOMPARE(m_http.get(m_server.apiUrl(u"/health"_s)).status, 200);
        const QByteArray log = m_server.output() + m_tight.output();
        QVERIFY(log.contains("[quillet-server]"));
        QVERIFY(log.contains("stream"));
        for (const QString& token : std::as_const(m_issuedTokens)) {
            if (!token.isEmpty())
                QVERIFY2(!log.contains(token.toUtf8()), "a token appeared in the log");
        }
        // One event per line: every line carries the program tag.
        for (const QByteArray& line : log.split('\n')) {
            if (!line.isEmpty())
                QVERIFY2(line.contains(" [quillet-server] "), line.constData());
        }
    }
};

QTEST_GUILESS_MAIN(ServerConformance)
#include "tst_server_conformance.moc"
