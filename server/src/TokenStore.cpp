#include "TokenStore.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

#include <atomic>

using namespace Qt::Literals::StringLiterals;

namespace {

QSqlDatabase database(const QString& connection)
{
    return QSqlDatabase::database(connection, false);
}

bool exec(QSqlQuery& query)
{
    return query.exec();
}

QString randomBase64Url(int bytes)
{
    QByteArray raw(bytes, Qt::Uninitialized);
    QRandomGenerator::system()->generate(raw.begin(), raw.end());
    return QString::fromLatin1(raw.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

} // namespace

TokenStore::TokenStore()
{
    static std::atomic<int> counter { 0 };
    m_connection = u"quillet-tokens-%1"_s.arg(counter.fetch_add(1));
}

TokenStore::~TokenStore()
{
    {
        QSqlDatabase db = database(m_connection);
        if (db.isOpen())
            db.close();
    }
    QSqlDatabase::removeDatabase(m_connection);
}

bool TokenStore::open(const QString& path, QString* error)
{
    QSqlDatabase db = QSqlDatabase::addDatabase(u"QSQLITE"_s, m_connection);
    db.setDatabaseName(path);
    // Other replicas may hold the write lock for a moment; wait instead of failing.
    db.setConnectOptions(u"QSQLITE_BUSY_TIMEOUT=5000"_s);
    if (!db.open()) {
        *error = db.lastError().text();
        return false;
    }
    const QStringList statements {
        u"PRAGMA journal_mode=WAL"_s,
        u"PRAGMA foreign_keys=ON"_s,
        u"CREATE TABLE IF NOT EXISTS accounts ("
        "  id INTEGER PRIMARY KEY,"
        "  name TEXT NOT NULL UNIQUE,"
        "  generation INTEGER NOT NULL DEFAULT 0,"
        "  created_at INTEGER NOT NULL DEFAULT (strftime('%s','now')))"_s,
        u"CREATE TABLE IF NOT EXISTS refresh_tokens ("
        "  token_hash TEXT PRIMARY KEY,"
        "  family TEXT NOT NULL,"
        "  account_id INTEGER NOT NULL REFERENCES accounts(id),"
        "  issued_at INTEGER NOT NULL,"
        "  expires_at INTEGER NOT NULL,"
        "  rotated_at INTEGER,"
        "  revoked_at INTEGER)"_s,
        u"CREATE INDEX IF NOT EXISTS refresh_tokens_family ON refresh_tokens(family)"_s,
        u"CREATE INDEX IF NOT EXISTS refresh_tokens_account ON refresh_tokens(account_id)"_s,
    };
    for (const QString& statement : statements) {
        QSqlQuery query(db);
        if (!query.exec(statement)) {
            *error = query.lastError().text();
            return false;
        }
    }
    return true;
}

std::optional<TokenStore::Account> TokenStore::accountByName(const QString& name)
{
    QSqlQuery query(database(m_connection));
    query.prepare(u"SELECT id, name, generation FROM accounts WHERE name = ?"_s);
    query.addBindValue(name);
    if (!exec(query) || !query.next())
        return std::nullopt;
    return Account { query.value(0).toLongLong(), query.value(1).toString(), query.value(2).toLongLong() };
}

std::optional<TokenStore::Account> TokenStore::ensureAccount(const QString& name)
{
    QSqlQuery insert(database(m_connection));
    insert.prepare(u"INSERT OR IGNORE INTO accounts(name) VALUES (?)"_s);
    insert.addBindValue(name);
    if (!exec(insert))
        return std::nullopt;
    return accountByName(name);
}

QString TokenStore::hashToken(const QString& token)
{
    return QString::fromLatin1(QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex());
}

QString TokenStore::newOpaqueToken()
{
    return u"qrt_"_s + randomBase64Url(32);
}

std::optional<QString> TokenStore::startFamily(qint64 accountId, qint64 now, qint64 lifetimeSeconds)
{
    const QString token = newOpaqueToken();
    QSqlQuery insert(database(m_connection));
    insert.prepare(u"INSERT INTO refresh_tokens(token_hash, family, account_id, issued_at, expires_at)"
                   " VALUES (?, ?, ?, ?, ?)"_s);
    insert.addBindValue(hashToken(token));
    insert.addBindValue(randomBase64Url(16));
    insert.addBindValue(accountId);
    insert.addBindValue(now);
    insert.addBindValue(now + lifetimeSeconds);
    if (!exec(insert))
        return std::nullopt;
    return token;
}

TokenStore::Rotation TokenStore::rotate(const QString& presented, qint64 now, qint64 lifetimeSeconds)
{
    Rotation result;
    QSqlDatabase db = database(m_connection);
    // One write transaction from the look-up to the new token, so that two replicas
    // answering the same token at once cannot both rotate it.
    QSqlQuery begin(db);
    if (!begin.exec(u"BEGIN IMMEDIATE"_s))
        return result;
    auto rollback = [&db] { QSqlQuery(db).exec(u"ROLLBACK"_s); };

    QSqlQuery lookup(db);
    lookup.prepare(u"SELECT t.family, t.account_id, t.expires_at, t.rotated_at, t.revoked_at, a.name, a.generation"
                   " FROM refresh_tokens t JOIN accounts a ON a.id = t.account_id WHERE t.token_hash = ?"_s);
    lookup.addBindValue(hashToken(presented));
    if (!exec(lookup)) {
        rollback();
        return result;
    }
    if (!lookup.next()) {
        rollback();
        result.outcome = Outcome::Unknown;
        return result;
    }
    const QString family = lookup.value(0).toString();
    const qint64 accountId = lookup.value(1).toLongLong();
    const qint64 expiresAt = lookup.value(2).toLongLong();
    const bool rotated = !lookup.value(3).isNull();
    const bool revoked = !lookup.value(4).isNull();
    result.account = Account { accountId, lookup.value(5).toString(), lookup.value(6).toLongLong() };
    lookup.finish();

    if (revoked) {
        rollback();
        result.outcome = Outcome::Revoked;
        return result;
    }
    if (rotated) {
        // Someone holds a copy of a token that was already exchanged: either the client or
        // a thief is replaying it. Ending the whole family signs both out.
        QSqlQuery revoke(db);
        revoke.prepare(u"UPDATE refresh_tokens SET revoked_at = ? WHERE family = ? AND revoked_at IS NULL"_s);
        revoke.addBindValue(now);
        revoke.addBindValue(family);
        if (!exec(revoke) || !QSqlQuery(db).exec(u"COMMIT"_s)) {
            rollback();
            return result;
        }
        result.outcome = Outcome::Reused;
        return result;
    }
    if (expiresAt <= now) {
        rollback();
        result.outcome = Outcome::Expired;
        return result;
    }

    QSqlQuery markRotated(db);
    markRotated.prepare(u"UPDATE refresh_tokens SET rotated_at = ? WHERE token_hash = ?"_s);
    markRotated.addBindValue(now);
    markRotated.addBindValue(hashToken(presented));
    const QString next = newOpaqueToken();
    QSqlQuery insert(db);
    insert.prepare(u"INSERT INTO refresh_tokens(token_hash, family, account_id, issued_at, expires_at)"
                   " VALUES (?, ?, ?, ?, ?)"_s);
    insert.addBindValue(hashToken(next));
    insert.addBindValue(family);
    insert.addBindValue(accountId);
    insert.addBindValue(now);
    insert.addBindValue(now + lifetimeSeconds);
    if (!exec(markRotated) || !exec(insert) || !QSqlQuery(db).exec(u"COMMIT"_s)) {
        rollback();
        return result;
    }
    result.outcome = Outcome::Rotated;
    result.refreshToken = next;
    return result;
}

int TokenStore::activeSignIns(qint64 accountId, qint64 now)
{
    QSqlQuery query(database(m_connection));
    query.prepare(u"SELECT COUNT(DISTINCT family) FROM refresh_tokens"
                  " WHERE account_id = ? AND revoked_at IS NULL AND rotated_at IS NULL AND expires_at > ?"_s);
    query.addBindValue(accountId);
    query.addBindValue(now);
    if (!exec(query) || !query.next())
        return -1;
    return query.value(0).toInt();
}

int TokenStore::signOutEverywhere(qint64 accountId, qint64 now)
{
    QSqlDatabase db = database(m_connection);
    const int active = activeSignIns(accountId, now);
    if (active < 0)
        return -1;
    QSqlQuery begin(db);
    if (!begin.exec(u"BEGIN IMMEDIATE"_s))
        return -1;
    QSqlQuery revoke(db);
    revoke.prepare(u"UPDATE refresh_tokens SET revoked_at = ? WHERE account_id = ? AND revoked_at IS NULL"_s);
    revoke.addBindValue(now);
    revoke.addBindValue(accountId);
    QSqlQuery bump(db);
    bump.prepare(u"UPDATE accounts SET generation = generation + 1 WHERE id = ?"_s);
    bump.addBindValue(accountId);
    if (!exec(revoke) || !exec(bump) || !QSqlQuery(db).exec(u"COMMIT"_s)) {
        QSqlQuery(db).exec(u"ROLLBACK"_s);
        return -1;
    }
    return active;
}
