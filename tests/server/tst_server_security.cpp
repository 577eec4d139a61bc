// Token families, the refresh retry window, canonical signatures, single-use form tokens,
// what reaches the log, the modes of the files the server creates, and the upgrade of a
// database written with the first version of the tables.
#include "ServerProcess.h"
#include "StreamClient.h"
#include "TokenStore.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonArray>
#include <QMessageAuthenticationCode>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString account = u"guard"_s;

} // namespace

class ServerSecurity : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<ServerProcess> m_server;
    Http m_http;

    TokenPair signIn()
    {
        QString error;
        const TokenPair pair = signInThroughSite(m_http, *m_server, &error);
        if (!error.isEmpty())
            qWarning("%s", qPrintable(error));
        return pair;
    }

    HttpResult refresh(const QString& token)
    {
        return m_http.postJson(m_server->apiUrl(u"/auth/refresh"_s), { { u"refresh_token"_s, token } });
    }

    int cleanupStatus(const QString& access)
    {
        return m_http
            .postJson(m_server->apiUrl(u"/cleanup"_s),
                { { u"text"_s, u"um hello"_s }, { u"dictionary"_s, QJsonArray {} } }, access.toUtf8())
            .status;
    }

    // The error code a stream gets for this token, or "" when it is accepted.
    QString streamVerdict(const QString& access)
    {
        StreamClient client;
        if (!client.open(m_server->streamUrl()))
            return u"no connection"_s;
        client.sendAuth(access);
        client.sendStop();
        if (!client.waitClosed(10'000))
            return u"no close"_s;
        return client.firstOfType(u"error"_s).value(u"code"_s).toString();
    }

    bool execSql(const QString& statement)
    {
        bool ok = false;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"poke"_s);
            db.setDatabaseName(m_server->dataDir() + u"/data/quillet.db"_s);
            if (db.open()) {
                QSqlQuery query(db);
                ok = query.exec(statement);
                db.close();
            }
        }
        QSqlDatabase::removeDatabase(u"poke"_s);
        return ok;
    }

    // Moves the rotation of `token` back by `seconds`, as if that long had passed since; true
    // when exactly that token's row was changed.
    bool ageRotation(const QString& token, qint64 seconds)
    {
        int changed = -1;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"age"_s);
            db.setDatabaseName(m_server->dataDir() + u"/data/quillet.db"_s);
            if (db.open()) {
                QSqlQuery query(db);
                query.prepare(u"UPDATE refresh_tokens SET rotated_at = rotated_at - ?"
                              " WHERE token_hash = ? AND rotated_at IS NOT NULL"_s);
                query.addBindValue(seconds);
                query.addBindValue(TokenStore::hashToken(token));
                if (query.exec())
                    changed = query.numRowsAffected();
                db.close();
            }
        }
        QSqlDatabase::removeDatabase(u"age"_s);
        return changed == 1;
    }

    // Long enough after a rotation for a client to have noticed its request failed and tried
    // again, well inside the retry window.
    static constexpr qint64 retryAge = TokenStore::retryMinimumSeconds + 3;

    QString formToken(const QString& path)
    {
        const HttpResult page = m_http.get(m_server->siteUrl(path));
        static const QRegularExpression formField(u"name=\"form\" value=\"([^\"]+)\""_s);
        return formField.match(QString::fromUtf8(page.body)).captured(1);
    }

    HttpResult postSignIn(const QString& form, const QByteArray& source = "mac-app")
    {
        return m_http.post(m_server->siteUrl(u"/signin"_s),
            "form=" + QUrl::toPercentEncoding(form) + "&source=" + QUrl::toPercentEncoding(QString::fromUtf8(source)),
            "application/x-www-form-urlencoded");
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Started the way a careless login shell might start it.
        const mode_t previous = ::umask(022);
        m_server = std::make_unique<ServerProcess>(QStringList { u"--account-name"_s, account });
        QString error;
        const bool started = m_server->start(&error);
        ::umask(previous);
        QVERIFY2(started, qPrintable(error));
    }

    void filesAreTheUsersAlone()
    {
        QVERIFY(!signIn().access.isEmpty()); // the database has been written to
        const QString data = m_server->dataDir() + u"/data"_s;
        QCOMPARE(QFileInfo(data).permissions() & 0x0777, QFileDevice::Permissions(0x0700));
        for (const QString& name : { u"quillet.db"_s, u"quillet.db-wal"_s, u"quillet.db-shm"_s, u"signing.key"_s }) {
            struct stat info {
            };
            QVERIFY2(::stat(QFile::encodeName(data + u'/' + name).constData(), &info) == 0, qPrintable(name));
            QCOMPARE(info.st_mode & 0777, mode_t(0600));
        }
    }

    void replayedRefreshTokenRetiresTheFamilysAccessTokens()
    {
        const TokenPair first = signIn();
        const HttpResult second = refresh(first.refresh);
        QCOMPARE(second.status, 200);
        const HttpResult third = refresh(second.json().value(u"refresh_token"_s).toString());
        QCOMPARE(third.status, 200);
        const QString access = third.json().value(u"access_token"_s).toString();
        QCOMPARE(cleanupStatus(access), 200);
        QCOMPARE(streamVerdict(access), QString());
        const TokenPair bystander = signIn();

        // The first token was exchanged twice over: a copy is in other hands.
        QCOMPARE(refresh(first.refresh).status, 401);

        for (const QString& token : { first.access, second.json().value(u"access_token"_s).toString(), access }) {
            QCOMPARE(cleanupStatus(token), 401);
            QCOMPARE(streamVerdict(token), u"INVALID_TOKEN"_s);
        }
        // Another sign-in's tokens are not affected.
        QCOMPARE(cleanupStatus(bystander.access), 200);
        QCOMPARE(streamVerdict(bystander.access), QString());
    }

    void lostRotationCanBeRetriedOnce()
    {
        const TokenPair first = signIn();
        // The server rotates, but its answer never reaches the client.
        const HttpResult lost = refresh(first.refresh);
        QCOMPARE(lost.status, 200);
        const QString lostRefresh = lost.json().value(u"refresh_token"_s).toString();
        QVERIFY(ageRotation(first.refresh, retryAge));

        // The client retries with the token it still has, and carries on.
        const HttpResult retried = refresh(first.refresh);
        QCOMPARE(retried.status, 200);
        const QString access = retried.json().value(u"access_token"_s).toString();
        const QString next = retried.json().value(u"refresh_token"_s).toString();
        QVERIFY(next != lostRefresh);
        QCOMPARE(cleanupStatus(access), 200);
        const HttpResult onwards = refresh(next);
        QCOMPARE(onwards.status, 200);
        const QString latest = onwards.json().value(u"refresh_token"_s).toString();
        QCOMPARE(cleanupStatus(onwards.json().value(u"access_token"_s).toString()), 200);

        // Only once: a third showing is a copy, and ends the family.
        QCOMPARE(refresh(first.refresh).status, 401);
        QCOMPARE(refresh(latest).status, 401);
        QCOMPARE(cleanupStatus(access), 401);
    }

    void successorOfARetryIsRetired()
    {
        const TokenPair first = signIn();
        const QString lostRefresh = refresh(first.refresh).json().value(u"refresh_token"_s).toString();
        QVERIFY(!lostRefresh.isEmpty());
        QVERIFY(ageRotation(first.refresh, retryAge));
        const HttpResult retried = refresh(first.refresh);
        QCOMPARE(retried.status, 200);
        // The answer that was lost turns up after all: whoever has it is not the client.
        QCOMPARE(refresh(lostRefresh).status, 401);
        QCOMPARE(refresh(retried.json().value(u"refresh_token"_s).toString()).status, 401);
    }

    // The same token presented again at once, as a duplicate of one request would be: too
    // soon to be a client that lost its answer, so a copy, and the family ends.
    void secondPresentationYoungerThanTheMinimumAgeRevokes()
    {
        const TokenPair first = signIn();
        const HttpResult second = refresh(first.refresh);
        QCOMPARE(second.status, 200);
        const QString access = second.json().value(u"access_token"_s).toString();
        const QString successor = second.json().value(u"refresh_token"_s).toString();
        QCOMPARE(cleanupStatus(access), 200);

        QCOMPARE(refresh(first.refresh).status, 401);
        QCOMPARE(refresh(successor).status, 401);
        QCOMPARE(cleanupStatus(access), 401);
        QCOMPARE(cleanupStatus(first.access), 401);
        QCOMPARE(streamVerdict(access), u"INVALID_TOKEN"_s);
        // Presented again once old enough, it is still refused: the family is gone.
        QVERIFY(ageRotation(first.refresh, retryAge));
        QCOMPARE(refresh(first.refresh).status, 401);
    }

    // Where the retry window starts and ends, on the store with times of the test's choosing.
    void retryWindowBounds_data()
    {
        QTest::addColumn<qint64>("age");
        QTest::addColumn<bool>("retried");
        QTest::newRow("same second") << qint64(0) << false;
        QTest::newRow("just under the minimum") << TokenStore::retryMinimumSeconds - 1 << false;
        QTest::newRow("the minimum") << TokenStore::retryMinimumSeconds << true;
        QTest::newRow("last second of the window") << TokenStore::retrySeconds - 1 << true;
        QTest::newRow("end of the window") << TokenStore::retrySeconds << false;
    }

    void retryWindowBounds()
    {
        QFETCH(qint64, age);
        QFETCH(bool, retried);
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        TokenStore store;
        QString error;
        QVERIFY2(store.open(dir.filePath(u"quillet.db"_s), &error), qPrintable(error));
        const auto owner = store.ensureAccount(u"bounds"_s);
        QVERIFY(owner);
        const qint64 now = QDateTime::currentSecsSinceEpoch();
        QString family;
        const auto token = store.startFamily(owner->id, now, 3600, &family);
        QVERIFY(token);
        const TokenStore::Rotation lost = store.rotate(*token, now, 3600);
        QCOMPARE(lost.outcome, TokenStore::Outcome::Rotated);

        const TokenStore::Rotation again = store.rotate(*token, now + age, 3600);
        if (retried) {
            QCOMPARE(again.outcome, TokenStore::Outcome::Rotated);
            QCOMPARE(again.family, family);
            QVERIFY(!again.refreshToken.isEmpty() && again.refreshToken != lost.refreshToken);
            QCOMPARE(store.familyRevoked(family), std::optional<bool>(false));
            // The successor nobody received is retired with the retry.
            QCOMPARE(store.rotate(lost.refreshToken, now + age, 3600).outcome, TokenStore::Outcome::Reused);
        } else {
            QCOMPARE(again.outcome, TokenStore::Outcome::Reused);
            QVERIFY(again.refreshToken.isEmpty());
            QCOMPARE(store.rotate(lost.refreshToken, now + age, 3600).outcome, TokenStore::Outcome::Revoked);
        }
        QCOMPARE(store.familyRevoked(family), std::optional<bool>(true));
    }

    void replayAfterTheRetryWindowRevokes()
    {
        const TokenPair first = signIn();
        const HttpResult second = refresh(first.refresh);
        QCOMPARE(second.status, 200);
        // Two minutes pass.
        QVERIFY(execSql(u"UPDATE refresh_tokens SET rotated_at = rotated_at - 120 WHERE rotated_at IS NOT NULL"_s));
        QCOMPARE(refresh(first.refresh).status, 401);
        QCOMPARE(refresh(second.json().value(u"refresh_token"_s).toString()).status, 401);
        QCOMPARE(cleanupStatus(second.json().value(u"access_token"_s).toString()), 401);
    }

    void signaturesMustBeCanonical()
    {
        const QString access = signIn().access;
        QCOMPARE(cleanupStatus(access), 200);
        const qsizetype dot = access.lastIndexOf(u'.');
        const QString signature = access.mid(dot + 1);
        QCOMPARE(signature.size(), 43); // 32 bytes, unpadded

        // The last character carries 4 bits of the MAC and 2 spare bits; another value of
        // the spare bits decodes to the same bytes.
        static const QString alphabet = u"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"_s;
        const qsizetype last = alphabet.indexOf(signature.back());
        QVERIFY(last >= 0);
        const QString spareBits = access.left(access.size() - 1) + alphabet.at(last ^ 1);
        QCOMPARE(QByteArray::fromBase64(spareBits.mid(dot + 1).toLatin1(), QByteArray::Base64UrlEncoding),
            QByteArray::fromBase64(signature.toLatin1(), QByteArray::Base64UrlEncoding));

        for (const QString& variant : { access + u"="_s, spareBits }) {
            QCOMPARE(cleanupStatus(variant), 401);
            QCOMPARE(streamVerdict(variant), u"INVALID_TOKEN"_s);
        }
        QCOMPARE(streamVerdict(access), QString());
    }

    void formTokensWorkOnceAndForTenMinutes()
    {
        const QString form = formToken(u"/signin?source=mac-app"_s);
        QVERIFY(!form.isEmpty());
        QCOMPARE(postSignIn(form).status, 200);
        const HttpResult again = postSignIn(form);
        QCOMPARE(again.status, 403);
        QVERIFY(!again.body.contains("quillet://"));

        // Tokens made with the server's key, nine and eleven minutes old.
        auto made = [this](qint64 age) {
            const QByteArray signedPart
                = QByteArray::number(QDateTime::currentSecsSinceEpoch() - age) + ".test" + QByteArray::number(age);
            const QByteArray mac = QMessageAuthenticationCode::hash(
                "form:signin:" + signedPart, m_server->signingKey(), QCryptographicHash::Sha256);
            return QString::fromLatin1(
                signedPart + '.' + mac.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
        };
        QCOMPARE(postSignIn(made(9 * 60)).status, 200);
        QCOMPARE(postSignIn(made(11 * 60)).status, 403);

        // The account page's form token is single-use too.
        const QString signOut = formToken(u"/account"_s);
        QVERIFY(!signOut.isEmpty());
        const QByteArray body = "form=" + QUrl::toPercentEncoding(signOut);
        QCOMPARE(
            m_http.post(m_server->siteUrl(u"/account/sign-out-everywhere"_s), body, "application/x-www-form-urlencoded")
                .status,
            200);
        QCOMPARE(
            m_http.post(m_server->siteUrl(u"/account/sign-out-everywhere"_s), body, "application/x-www-form-urlencoded")
                .status,
            403);
    }

    void firstVersionDatabaseIsUpgraded_data()
    {
        QTest::addColumn<bool>("versionTable");
        QTest::newRow("version 1 recorded") << true;
        QTest::newRow("from before the version table") << false;
    }

    // The tables as the first version wrote them, with a signed-in account whose token was
    // rotated once: the server opens the file, adds what is missing and carries on with it.
    void firstVersionDatabaseIsUpgraded()
    {
        QFETCH(bool, versionTable);
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString path = dir.filePath(u"quillet.db"_s);
        const qint64 now = QDateTime::currentSecsSinceEpoch();
        const QString rotatedToken = u"qrt_rotated"_s;
        const QString liveToken = u"qrt_live"_s;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"first-version"_s);
            db.setDatabaseName(path);
            QVERIFY2(db.open(), qPrintable(db.lastError().text()));
            QStringList statements {
                u"CREATE TABLE accounts (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE,"
                " generation INTEGER NOT NULL DEFAULT 0,"
                " created_at INTEGER NOT NULL DEFAULT (strftime('%s','now')))"_s,
                u"CREATE TABLE refresh_tokens (token_hash TEXT PRIMARY KEY, family TEXT NOT NULL,"
                " account_id INTEGER NOT NULL REFERENCES accounts(id), issued_at INTEGER NOT NULL,"
                " expires_at INTEGER NOT NULL, rotated_at INTEGER, revoked_at INTEGER)"_s,
                u"CREATE INDEX refresh_tokens_family ON refresh_tokens(family)"_s,
                u"CREATE INDEX refresh_tokens_account ON refresh_tokens(account_id)"_s,
                u"INSERT INTO accounts(id, name) VALUES (1, 'old')"_s,
                u"INSERT INTO refresh_tokens VALUES ('%1', 'fam', 1, %2, %3, %2, NULL)"_s
                    .arg(TokenStore::hashToken(rotatedToken))
                    .arg(now - 10)
                    .arg(now + 3600),
                u"INSERT INTO refresh_tokens VALUES ('%1', 'fam', 1, %2, %3, NULL, NULL)"_s
                    .arg(TokenStore::hashToken(liveToken))
                    .arg(now - 10)
                    .arg(now + 3600),
            };
            if (versionTable) {
                statements << u"CREATE TABLE schema_version (version INTEGER NOT NULL)"_s
                           << u"INSERT INTO schema_version(version) VALUES (1)"_s;
            }
            for (const QString& statement : std::as_const(statements)) {
                QSqlQuery query(db);
                QVERIFY2(query.exec(statement), qPrintable(statement + u": "_s + query.lastError().text()));
            }
            db.close();
        }
        QSqlDatabase::removeDatabase(u"first-version"_s);

        {
            TokenStore store;
            QString error;
            QVERIFY2(store.open(path, &error), qPrintable(error));
            // The rotation before the upgrade left no successor to retry with: a reuse.
            QCOMPARE(store.rotate(rotatedToken, now, 3600).outcome, TokenStore::Outcome::Reused);
            QCOMPARE(store.familyRevoked(u"fam"_s), std::optional<bool>(true));
            QCOMPARE(store.rotate(liveToken, now, 3600).outcome, TokenStore::Outcome::Revoked);

            // New sign-ins use the new columns: a lost rotation is retried once.
            const auto account = store.accountByName(u"old"_s);
            QVERIFY(account);
            QString family;
            const auto first = store.startFamily(account->id, now, 3600, &family);
            QVERIFY(first);
            QCOMPARE(store.familyRevoked(family), std::optional<bool>(false));
            const TokenStore::Rotation lost = store.rotate(*first, now, 3600);
            QCOMPARE(lost.outcome, TokenStore::Outcome::Rotated);
            QCOMPARE(lost.family, family);
            const qint64 retryAt = now + TokenStore::retryMinimumSeconds;
            const TokenStore::Rotation retried = store.rotate(*first, retryAt, 3600);
            QCOMPARE(retried.outcome, TokenStore::Outcome::Rotated);
            QVERIFY(retried.refreshToken != lost.refreshToken);
            QCOMPARE(store.rotate(*first, retryAt + 1, 3600).outcome, TokenStore::Outcome::Reused);
            QCOMPARE(store.familyRevoked(family), std::optional<bool>(true));

            QVERIFY(store.useOnce(u"form:x"_s, now, now + 600));
            QVERIFY(!store.useOnce(u"form:x"_s, now + 1, now + 600));
            // Forgotten once expired: it could not be accepted again anyway.
            QVERIFY(store.useOnce(u"form:x"_s, now + 600, now + 1200));
        }

        {
            QSqlDatabase db = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"upgraded"_s);
            db.setDatabaseName(path);
            QVERIFY2(db.open(), qPrintable(db.lastError().text()));
            QSqlQuery version(db);
            QVERIFY2(version.exec(u"SELECT COUNT(*), MAX(version) FROM schema_version"_s) && version.next(),
                qPrintable(version.lastError().text()));
            QCOMPARE(version.value(0).toInt(), 1);
            QCOMPARE(version.value(1).toInt(), TokenStore::schemaVersion);
            QCOMPARE(TokenStore::schemaVersion, 2);
            QSqlQuery columns(db);
            QVERIFY2(columns.exec(u"SELECT name, type FROM pragma_table_info('refresh_tokens')"
                                  " WHERE name IN ('replaced_by', 'retried_at') ORDER BY name"_s),
                qPrintable(columns.lastError().text()));
            QVERIFY(columns.next());
            QCOMPARE(columns.value(0).toString(), u"replaced_by"_s);
            QCOMPARE(columns.value(1).toString(), u"TEXT"_s);
            QVERIFY(columns.next());
            QCOMPARE(columns.value(0).toString(), u"retried_at"_s);
            QCOMPARE(columns.value(1).toString(), u"INTEGER"_s);
            QSqlQuery old(db);
            QVERIFY(old.exec(u"SELECT COUNT(*) FROM refresh_tokens WHERE family = 'fam' AND revoked_at IS NULL"_s)
                && old.next());
            QCOMPARE(old.value(0).toInt(), 0);
            db.close();
        }
        QSqlDatabase::removeDatabase(u"upgraded"_s);

        // Opening it again finds nothing left to do.
        TokenStore again;
        QString error;
        QVERIFY2(again.open(path, &error), qPrintable(error));
    }

    void logLinesShowClientTextEscapedAndShort()
    {
        const QByteArray hostile = "mac\x1b[2J\x1b]0;owned\x07\r\nfake line \xe2\x80\xa8 sep \xe2\x80\xae"
                                   "desrever"
            + QByteArray(1, '\0') + "nul" + QByteArray(15'000, 'x');
        const QString form = formToken(u"/signin?source=mac-app"_s);
        QCOMPARE(postSignIn(form, hostile).status, 200);
        QTest::qWait(200);

        const QByteArray output = m_server->output();
        QByteArray line;
        for (const QByteArray& candidate : output.split('\n')) {
            if (candidate.contains("(source mac"))
                line = candidate;
        }
        QVERIFY2(!line.isEmpty(), output.right(2000).constData());
        QVERIFY(line.contains(
            "(source mac\\x1b[2J\\x1b]0;owned\\x07\\x0d\\x0afake line \\u2028 sep \\u202edesrever\\x00nul"));
        QVERIFY(!line.contains('\x1b'));
        QVERIFY(!line.contains('\0'));
        QVERIFY(!line.contains('\r'));
        QVERIFY(!line.contains("\xe2\x80\xa8"));
        QVERIFY(!line.contains("\xe2\x80\xae"));
        QVERIFY(!output.contains("\nfake line"));
        QVERIFY2(line.size() < 1200, QByteArray::number(line.size()).constData());
        QVERIFY(line.contains("more characters)"));
    }
};

QTEST_MAIN(ServerSecurity)
#include "tst_server_security.moc"
