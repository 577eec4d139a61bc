// Two quillet-server replicas sharing one PostgreSQL database and one signing key, behind
// HAProxy with the repository's configuration: a sign-in on one replica works on the other,
// a stream goes through the balancer, refreshes alternate between the replicas, a lost
// rotation can be retried once on the other replica, and the same refresh token sent twenty
// times at once to both replicas rotates once and revokes its family.
#include "LoadBalancer.h"
#include "PostgresCluster.h"
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString clipDir = u"/usr/share/pocketsphinx/test/data/librivox/"_s;
const QString clipId = u"sense_and_sensibility_01_austen_64kb-0880"_s; // "he was not an ill disposed young man"

QString referenceTranscript(const QString& id)
{
    QFile file(clipDir + u"transcription"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    static const QRegularExpression line(u"^<s>(.*)</s>\\s*\\(([^)]+)\\)"_s);
    for (const QByteArray& raw : file.readAll().split('\n')) {
        const auto match = line.match(QString::fromUtf8(raw).trimmed());
        if (match.hasMatch() && match.captured(2) == id)
            return match.captured(1).simplified();
    }
    return {};
}

QString tokenHash(const QString& token)
{
    return QString::fromLatin1(QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex());
}

} // namespace

class ServerReplicas : public QObject
{
    Q_OBJECT

private:
    PostgresCluster m_postgres;
    QTemporaryDir m_secrets;
    std::unique_ptr<ServerProcess> m_first;
    std::unique_ptr<ServerProcess> m_second;
    LoadBalancer m_balancer;
    Http m_http;
    QString m_connection = u"replicas-check"_s;

    QStringList replicaArguments() const
    {
        return { u"--database"_s, m_postgres.url(), u"--database-password-file"_s, m_postgres.passwordFile(),
            u"--signing-key-file"_s, m_secrets.filePath(u"signing.key"_s), u"--account-name"_s, u"ada"_s };
    }

    HttpResult refresh(const QUrl& url, const QString& token)
    {
        return m_http.postJson(url, QJsonObject { { u"refresh_token"_s, token } });
    }

    // An access token is accepted when a clean-up with it answers 200.
    int cleanupStatus(const ServerProcess& server, const QString& access)
    {
        return m_http
            .postJson(server.apiUrl(u"/cleanup"_s), QJsonObject { { u"text"_s, u"hello there"_s } }, access.toUtf8())
            .status;
    }

    QSqlDatabase database() const { return QSqlDatabase::database(m_connection); }

    // Moves the rotation of `token` back by `seconds` in the shared database, as if that long
    // had passed since; true when exactly that token's row was changed.
    bool ageRotation(const QString& token, qint64 seconds)
    {
        QSqlQuery query(database());
        query.prepare(u"UPDATE refresh_tokens SET rotated_at = rotated_at - ?"
                      " WHERE token_hash = ? AND rotated_at IS NOT NULL"_s);
        query.addBindValue(seconds);
        query.addBindValue(tokenHash(token));
        if (!query.exec()) {
            qWarning("%s", qPrintable(query.lastError().text()));
            return false;
        }
        return query.numRowsAffected() == 1;
    }

    // Long enough after a rotation for a client to have noticed its request failed and tried
    // again (at least TokenStore's minimum of 2 seconds), well inside the 60-second window.
    static constexpr qint64 retryAge = 5;

private Q_SLOTS:
    void initTestCase()
    {
        if (!PostgresCluster::available())
            QSKIP("PostgreSQL 15 is not installed (/usr/lib/postgresql/15/bin; scripts/install-deps.sh installs it)");
        if (!LoadBalancer::available())
            QSKIP("HAProxy is not installed (/usr/sbin/haproxy; scripts/install-deps.sh installs it)");
        QVERIFY2(QSqlDatabase::isDriverAvailable(u"QPSQL"_s),
            "Qt's PostgreSQL driver is missing (libqt6sql6-psql; scripts/install-deps.sh installs it)");
        QVERIFY2(QFile::exists(clipDir + clipId + u".wav"_s), "pocketsphinx-testdata is not installed");

        QString error;
        QVERIFY2(m_postgres.start(&error), qPrintable(error));

        // The one key both replicas sign with, made here as an operator would.
        QFile key(m_secrets.filePath(u"signing.key"_s));
        QVERIFY(key.open(QIODevice::WriteOnly));
        QByteArray bytes(32, Qt::Uninitialized);
        QRandomGenerator::system()->generate(bytes.begin(), bytes.end());
        QCOMPARE(key.write(bytes), qint64(32));
        key.close();

        // Both replicas start at the same moment against an empty database: the tables must
        // be made once, without either failing.
        m_first = std::make_unique<ServerProcess>(replicaArguments());
        m_second = std::make_unique<ServerProcess>(replicaArguments());
        QVERIFY2(m_first->launch(&error), qPrintable(error));
        QVERIFY2(m_second->launch(&error), qPrintable(error));
        QVERIFY2(m_first->waitReady(&error), qPrintable(error));
        QVERIFY2(m_second->waitReady(&error), qPrintable(error));
        for (ServerProcess* server : { m_first.get(), m_second.get() }) {
            const QString log = QString::fromUtf8(server->output());
            QVERIFY2(log.contains(u"database "_s + m_postgres.url()), qPrintable(log));
            QVERIFY2(!log.contains(m_postgres.password()), "the database password is in the log");
            // Neither replica made a key of its own in its data directory.
            QVERIFY(!QFile::exists(server->dataDir() + u"/data/signing.key"_s));
        }

        QSqlDatabase db = QSqlDatabase::addDatabase(u"QPSQL"_s, m_connection);
        db.setHostName(u"127.0.0.1"_s);
        db.setPort(m_postgres.port());
        db.setDatabaseName(m_postgres.database());
        db.setUserName(m_postgres.user());
        db.setPassword(m_postgres.password());
        QVERIFY2(db.open(), qPrintable(db.lastError().text()));
        QSqlQuery versions(db);
        QVERIFY2(versions.exec(u"SELECT version FROM schema_version"_s), qPrintable(versions.lastError().text()));
        QVERIFY(versions.next());
        QCOMPARE(versions.value(0).toInt(), 2);
        QVERIFY2(!versions.next(), "schema_version has more than one row");
        QSqlQuery columns(db);
        QVERIFY2(columns.exec(u"SELECT replaced_by, retried_at FROM refresh_tokens LIMIT 1"_s),
            qPrintable(columns.lastError().text()));
        QSqlQuery usedOnce(db);
        QVERIFY2(usedOnce.exec(u"SELECT COUNT(*) FROM used_once"_s), qPrintable(usedOnce.lastError().text()));
        QSqlQuery accounts(db);
        QVERIFY(accounts.exec(u"SELECT COUNT(*) FROM accounts WHERE name = 'ada'"_s) && accounts.next());
        QCOMPARE(accounts.value(0).toInt(), 1);

        QVERIFY2(m_balancer.start({ m_first->apiPort(), m_first->sitePort() },
                     { m_second->apiPort(), m_second->sitePort() }, &error),
            qPrintable(error));
    }

    void signInOnOneReplicaWorksOnTheOther()
    {
        QString error;
        const TokenPair pair = signInThroughSite(m_http, *m_first, &error);
        QVERIFY2(!pair.access.isEmpty() && !pair.refresh.isEmpty(), qPrintable(error));
        QCOMPARE(cleanupStatus(*m_second, pair.access), 200);
        QCOMPARE(cleanupStatus(*m_first, pair.access), 200);
        // A token signed with another key is refused by both.
        const QByteArray forged = makeJwt(QJsonObject { { u"alg"_s, u"HS256"_s }, { u"typ"_s, u"JWT"_s } },
            jwtPayload(pair.access), QByteArray(32, 'x'));
        QCOMPARE(cleanupStatus(*m_second, QString::fromLatin1(forged)), 401);
    }

    void signInThroughTheBalancer()
    {
        // The balancer's site port spreads the page and the form post over both replicas;
        // the form token of one is accepted by the other.
        Http http;
        static const QRegularExpression formField(u"name=\"form\" value=\"([^\"]+)\""_s);
        for (int i = 0; i < 2; ++i) {
            const HttpResult page = http.get(m_balancer.siteUrl(u"/signin?source=mac-app"_s));
            QCOMPARE(page.status, 200);
            const auto form = formField.match(QString::fromUtf8(page.body));
            QVERIFY(form.hasMatch());
            const QByteArray body = "form=" + QUrl::toPercentEncoding(form.captured(1)) + "&source=mac-app";
            const HttpResult answer
                = http.post(m_balancer.siteUrl(u"/signin"_s), body, "application/x-www-form-urlencoded");
            QCOMPARE(answer.status, 200);
            QVERIFY(answer.body.contains("quillet://auth?token="));
        }
    }

    void streamThroughTheBalancer()
    {
        QString error;
        const TokenPair pair = signInThroughSite(m_http, *m_second, &error);
        QVERIFY2(!pair.access.isEmpty(), qPrintable(error));
        const QByteArray pcm = readWavPcm(clipDir + clipId + u".wav"_s);
        QVERIFY(!pcm.isEmpty());

        StreamClient client;
        QVERIFY(client.open(m_balancer.streamUrl()));
        client.sendAuth(pair.access);
        for (const QByteArray& chunk : chunked(pcm, 1365))
            client.sendAudio(chunk);
        client.sendStop();
        QVERIFY(client.waitClosed(60'000));
        QCOMPARE(client.closeCode(), 1000);
        QVERIFY2(client.texts(u"error"_s).isEmpty(), qPrintable(client.texts(u"error"_s).join(u", "_s)));
        const QString transcript = client.texts(u"final"_s).join(u' ');
        const QString truth = referenceTranscript(clipId);
        qInfo("through the balancer: \"%s\" (reference \"%s\")", qPrintable(transcript), qPrintable(truth));
        QVERIFY(!truth.isEmpty());
        QVERIFY2(wordErrorRate(truth, transcript) <= 50.0, qPrintable(transcript));
        // One replica decoded it.
        const int finished = int(m_first->output().count("finished:") + m_second->output().count("finished:"));
        QCOMPARE(finished, 1);
    }

    void refreshesAlternateBetweenReplicas()
    {
        QString error;
        TokenPair pair = signInThroughSite(m_http, *m_first, &error);
        QVERIFY2(!pair.refresh.isEmpty(), qPrintable(error));
        QStringList used { pair.refresh };
        for (int i = 0; i < 6; ++i) {
            ServerProcess& issuer = i % 2 == 0 ? *m_second : *m_first;
            ServerProcess& other = i % 2 == 0 ? *m_first : *m_second;
            const HttpResult answer = refresh(issuer.apiUrl(u"/auth/refresh"_s), pair.refresh);
            QCOMPARE(answer.status, 200);
            pair.access = answer.json().value(u"access_token"_s).toString();
            pair.refresh = answer.json().value(u"refresh_token"_s).toString();
            QVERIFY(pair.refresh.startsWith(u"qrt_"_s));
            QVERIFY(!used.contains(pair.refresh));
            used << pair.refresh;
            // What one replica issued, the other accepts.
            QCOMPARE(cleanupStatus(other, pair.access), 200);
        }
        // And through the balancer, whichever replica answers.
        const HttpResult last = refresh(m_balancer.apiUrl(u"/auth/refresh"_s), pair.refresh);
        QCOMPARE(last.status, 200);
        QCOMPARE(cleanupStatus(*m_first, last.json().value(u"access_token"_s).toString()), 200);
        QCOMPARE(cleanupStatus(*m_second, last.json().value(u"access_token"_s).toString()), 200);
    }

    void lostRotationCanBeRetriedOnceOnTheOtherReplica()
    {
        QString error;
        const TokenPair first = signInThroughSite(m_http, *m_first, &error);
        QVERIFY2(!first.refresh.isEmpty(), qPrintable(error));
        // The first replica rotates, but its answer never reaches the client.
        const HttpResult lost = refresh(m_first->apiUrl(u"/auth/refresh"_s), first.refresh);
        QCOMPARE(lost.status, 200);
        const QString lostRefresh = lost.json().value(u"refresh_token"_s).toString();
        // A few seconds later, the client tries again with the token it still has and lands
        // on the other replica.
        QVERIFY(ageRotation(first.refresh, retryAge));
        const HttpResult retried = refresh(m_second->apiUrl(u"/auth/refresh"_s), first.refresh);
        QCOMPARE(retried.status, 200);
        const QString access = retried.json().value(u"access_token"_s).toString();
        const QString next = retried.json().value(u"refresh_token"_s).toString();
        QVERIFY(next.startsWith(u"qrt_"_s));
        QVERIFY(next != lostRefresh);
        QCOMPARE(cleanupStatus(*m_first, access), 200);

        QSqlQuery rows(database());
        rows.prepare(u"SELECT replaced_by, retried_at IS NOT NULL, rotated_at IS NOT NULL FROM refresh_tokens"
                     " WHERE token_hash = ?"_s);
        for (const QString& token : { first.refresh, lostRefresh }) {
            rows.addBindValue(tokenHash(token));
            QVERIFY2(rows.exec() && rows.next(), qPrintable(rows.lastError().text()));
            QCOMPARE(rows.value(0).toString(), tokenHash(next));
            QVERIFY(rows.value(1).toBool());
            QVERIFY(rows.value(2).toBool());
        }

        // Only once: the same token a third time is a copy, and ends the family, access
        // tokens included, on both replicas.
        QCOMPARE(refresh(m_first->apiUrl(u"/auth/refresh"_s), first.refresh).status, 401);
        QCOMPARE(refresh(m_second->apiUrl(u"/auth/refresh"_s), next).status, 401);
        QCOMPARE(cleanupStatus(*m_first, access), 401);
        QCOMPARE(cleanupStatus(*m_second, access), 401);
        QSqlQuery live(database());
        live.prepare(u"SELECT COUNT(*), COUNT(*) FILTER (WHERE revoked_at IS NULL) FROM refresh_tokens"
                     " WHERE family = (SELECT family FROM refresh_tokens WHERE token_hash = ?)"_s);
        live.addBindValue(tokenHash(first.refresh));
        QVERIFY2(live.exec() && live.next(), qPrintable(live.lastError().text()));
        QCOMPARE(live.value(0).toInt(), 3);
        QCOMPARE(live.value(1).toInt(), 0);
    }

    // Two retries of one lost rotation that reach the database at the same moment, one on
    // each replica: both wait on the token's row, which the test holds locked, until it lets
    // go. Exactly one gets the retry; the other finds it spent and revokes the family.
    void simultaneousRetriesOnBothReplicasGetOnePair()
    {
        QString error;
        const TokenPair first = signInThroughSite(m_http, *m_second, &error);
        QVERIFY2(!first.refresh.isEmpty(), qPrintable(error));
        QCOMPARE(refresh(m_second->apiUrl(u"/auth/refresh"_s), first.refresh).status, 200);
        QVERIFY(ageRotation(first.refresh, retryAge));

        QSqlDatabase db = database();
        QVERIFY(db.transaction());
        QSqlQuery hold(db);
        hold.prepare(u"SELECT token_hash FROM refresh_tokens WHERE token_hash = ? FOR UPDATE"_s);
        hold.addBindValue(tokenHash(first.refresh));
        QVERIFY2(hold.exec() && hold.next(), qPrintable(hold.lastError().text()));

        const QByteArray body
            = QJsonDocument(QJsonObject { { u"refresh_token"_s, first.refresh } }).toJson(QJsonDocument::Compact);
        QNetworkAccessManager managers[2];
        QList<QNetworkReply*> replies;
        for (int i = 0; i < 2; ++i) {
            QNetworkRequest request((i == 0 ? *m_first : *m_second).apiUrl(u"/auth/refresh"_s));
            request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
            replies << managers[i].post(request, body);
        }
        // Both requests reach the database and wait there for the row.
        QTest::qWait(1'000);
        QVERIFY(!replies.at(0)->isFinished() && !replies.at(1)->isFinished());
        QVERIFY(db.rollback());
        QTRY_VERIFY_WITH_TIMEOUT(replies.at(0)->isFinished() && replies.at(1)->isFinished(), 20'000);

        QList<int> statuses;
        QString access;
        for (QNetworkReply* reply : std::as_const(replies)) {
            statuses << reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
            if (statuses.back() == 200)
                access = QJsonDocument::fromJson(reply->readAll()).object().value(u"access_token"_s).toString();
            reply->deleteLater();
        }
        std::sort(statuses.begin(), statuses.end());
        QCOMPARE(statuses, (QList<int> { 200, 401 }));
        // The loser's reuse revoked the family after the winner's retry.
        QVERIFY(!access.isEmpty());
        QCOMPARE(cleanupStatus(*m_first, access), 401);
        QSqlQuery live(db);
        live.prepare(u"SELECT COUNT(*), COUNT(*) FILTER (WHERE revoked_at IS NULL) FROM refresh_tokens"
                     " WHERE family = (SELECT family FROM refresh_tokens WHERE token_hash = ?)"_s);
        live.addBindValue(tokenHash(first.refresh));
        QVERIFY2(live.exec() && live.next(), qPrintable(live.lastError().text()));
        QCOMPARE(live.value(0).toInt(), 3); // the token, its lost successor, the one retry
        QCOMPARE(live.value(1).toInt(), 0);
    }

    void concurrentRefreshesRotateOnce()
    {
        QString error;
        const TokenPair pair = signInThroughSite(m_http, *m_second, &error);
        QVERIFY2(!pair.refresh.isEmpty(), qPrintable(error));

        // Twenty requests with the same token, all sent before any answer is read: to the
        // first replica, the second, and the balancer in turn, each on its own connection.
        constexpr int requests = 20;
        const QByteArray body
            = QJsonDocument(QJsonObject { { u"refresh_token"_s, pair.refresh } }).toJson(QJsonDocument::Compact);
        std::vector<std::unique_ptr<QNetworkAccessManager>> managers;
        QList<QNetworkReply*> replies;
        for (int i = 0; i < requests; ++i) {
            const QUrl url = i % 3 == 0 ? m_first->apiUrl(u"/auth/refresh"_s)
                : i % 3 == 1            ? m_second->apiUrl(u"/auth/refresh"_s)
                                        : m_balancer.apiUrl(u"/auth/refresh"_s);
            QNetworkRequest request(url);
            request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
            managers.push_back(std::make_unique<QNetworkAccessManager>());
            replies << managers.back()->post(request, body);
        }
        QTRY_VERIFY_WITH_TIMEOUT(
            std::all_of(replies.cbegin(), replies.cend(), [](QNetworkReply* reply) { return reply->isFinished(); }),
            60'000);

        QList<int> statuses;
        QStringList winners;
        QString winnerAccess;
        for (QNetworkReply* reply : std::as_const(replies)) {
            const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
            statuses << status;
            if (status == 200) {
                const QJsonObject answer = QJsonDocument::fromJson(reply->readAll()).object();
                winners << answer.value(u"refresh_token"_s).toString();
                winnerAccess = answer.value(u"access_token"_s).toString();
            }
        }
        qInfo("statuses: %s",
            qPrintable(QStringList([&statuses] {
                QStringList out;
                for (int status : statuses)
                    out << QString::number(status);
                return out;
            }())
                           .join(u' ')));
        // One request rotates the token; every other one finds it rotated a moment ago, too
        // soon to be a client retrying after a lost answer, and is a reuse.
        QCOMPARE(statuses.count(200), 1);
        QCOMPARE(statuses.count(401), requests - 1);
        QCOMPARE(winners.size(), 1);
        QVERIFY(winners.at(0).startsWith(u"qrt_"_s));

        // The reuse revoked the whole family, the winner's new token included.
        QSqlQuery live(database());
        live.prepare(u"SELECT COUNT(*), COUNT(*) FILTER (WHERE revoked_at IS NULL) FROM refresh_tokens"
                     " WHERE family = (SELECT family FROM refresh_tokens WHERE token_hash = ?)"_s);
        live.addBindValue(tokenHash(pair.refresh));
        QVERIFY2(live.exec() && live.next(), qPrintable(live.lastError().text()));
        QCOMPARE(live.value(0).toInt(), 2); // the token presented and its one rotation
        QCOMPARE(live.value(1).toInt(), 0);
        QCOMPARE(refresh(m_first->apiUrl(u"/auth/refresh"_s), winners.at(0)).status, 401);
        QCOMPARE(refresh(m_second->apiUrl(u"/auth/refresh"_s), winners.at(0)).status, 401);
        QVERIFY(!winnerAccess.isEmpty());
        QCOMPARE(cleanupStatus(*m_first, winnerAccess), 401);
        QCOMPARE(cleanupStatus(*m_second, winnerAccess), 401);
        QCOMPARE(cleanupStatus(*m_first, pair.access), 401);

        const QByteArray logs = m_first->output() + m_second->output();
        QVERIFY(logs.contains("refresh refused: token reused; its family is revoked (account ada)"));
        QVERIFY(!logs.contains("refresh failed: database error"));
        QVERIFY(m_first->isRunning() && m_second->isRunning());
    }

    void replicasReconnectAfterADatabaseRestart()
    {
        QString error;
        const TokenPair before = signInThroughSite(m_http, *m_first, &error);
        QVERIFY2(!before.access.isEmpty(), qPrintable(error));
        QVERIFY2(m_postgres.restart(&error), qPrintable(error));

        // Each replica's first request after the restart finds its connection cut, opens a new
        // one and answers as if nothing had happened: a single statement on the first replica
        // (the access check), a transaction on the second (a refresh).
        QCOMPARE(cleanupStatus(*m_first, before.access), 200);
        QCOMPARE(refresh(m_second->apiUrl(u"/auth/refresh"_s), u"qrt_unknown"_s).status, 401);
        for (ServerProcess* server : { m_first.get(), m_second.get() }) {
            ServerProcess& other = server == m_first.get() ? *m_second : *m_first;
            const TokenPair pair = signInThroughSite(m_http, *server, &error);
            QVERIFY2(!pair.refresh.isEmpty(), qPrintable(error));
            const HttpResult rotated = refresh(other.apiUrl(u"/auth/refresh"_s), pair.refresh);
            QCOMPARE(rotated.status, 200);
            QCOMPARE(cleanupStatus(*server, rotated.json().value(u"access_token"_s).toString()), 200);
        }
        QVERIFY(!(m_first->output() + m_second->output()).contains("refresh failed: database error"));
    }

    void cleanupTestCase()
    {
        if (QSqlDatabase::contains(m_connection)) {
            QSqlDatabase::database(m_connection).close();
            QSqlDatabase::removeDatabase(m_connection);
        }
        m_balancer.stop();
        m_first.reset();
        m_second.reset();
        m_postgres.stop();
    }
};

QTEST_GUILESS_MAIN(ServerReplicas)
#include "tst_server_replicas.moc"
