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
        u"CREATE TABLE IF NOT EXISTS used_once ("
        "  value_hash TEXT PRIMARY KEY,"
        "  expires_at INTEGER NOT NULL)"_s,
    };
    for (const QString& statement : statements) {
        QSqlQuery query(db);
        if (!query.exec(statement)) {
            *error = query.lastError().text();
            return false;
        }
    }
    // Columns added after the first release. replaced_by: hash of the token a rotation
    // issued; retried_at: when the token was presented again within the retry window.
    for (const QString& column : { u"replaced_by TEXT"_s, u"retried_at INTEGER"_s }) {
        QSqlQuery info(db);
        if (!info.exec(u"SELECT 1 FROM pragma_table_info('refresh_tokens') WHERE name = '%1'"_s.arg(
                column.section(u' ', 0, 0)))) {
            *error = info.lastError().text();
            return false;
        }
        if (info.next())
            continue;
        QSqlQuery alter(db);
        // Another replica may have added it in the meantime; that is as good.
        if (!alter.exec(u"ALTER TABLE refresh_tokens ADD COLUMN "_s + column)
            && !alter.lastError().text().contains(u"duplicate column"_s)) {
            *error = alter.lastError().text();
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

std::optional<QString> TokenStore::startFamily(qint64 accountId, qint64 now, qint64 lifetimeSeconds, QString* family)
{
    const QString token = newOpaqueToken();
    const QString familyId = randomBase64Url(16);
    QSqlQuery insert(database(m_connection));
    insert.prepare(u"INSERT INTO refresh_tokens(token_hash, family, account_id, issued_at, expires_at)"
                   " VALUES (?, ?, ?, ?, ?)"_s);
    insert.addBindValue(hashToken(token));
    insert.addBindValue(familyId);
    insert.addBindValue(accountId);
    insert.addBindValue(now);
    insert.addBindValue(now + lifetimeSeconds);
    if (!exec(insert))
        return std::nullopt;
    if (family)
        *family = familyId;
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
    lookup.prepare(u"SELECT t.family, t.account_id, t.expires_at, t.rotated_at, t.revoked_at, a.name, a.generation,"
                   " t.replaced_by, t.retried_at, s.rotated_at, s.revoked_at"
                   " FROM refresh_tokens t JOIN accounts a ON a.id = t.account_id"
                   " LEFT JOIN refresh_tokens s ON s.token_hash = t.replaced_by WHERE t.token_hash = ?"_s);
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
    const qint64 rotatedAt = lookup.value(3).toLongLong();
    const bool revoked = !lookup.value(4).isNull();
    result.account = Account { accountId, lookup.value(5).toString(), lookup.value(6).toLongLong() };
    const QString successor = lookup.value(7).toString();
    const bool retried = !lookup.value(8).isNull();
    // The successor was never used: the client presenting this token again most likely
    // never received it.
    const bool successorUnused = !successor.isEmpty() && lookup.value(9).isNull() && lookup.value(10).isNull();
    lookup.finish();

    if (revoked) {
        rollback();
        result.outcome = Outcome::Revoked;
        return result;
    }
    const bool retry = rotated && !retried && successorUnused && now - rotatedAt < retrySeconds && expiresAt > now;
    if (rotated && !retry) {
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

    const QString next = newOpaqueToken();
    QSqlQuery markRotated(db);
    if (retry) {
        // Once only. The successor nobody received counts as exchanged (and retried) from
        // now on, so that whoever shows it later is treated as the copy it would be.
        markRotated.prepare(u"UPDATE refresh_tokens SET retried_at = ?, replaced_by = ? WHERE token_hash = ?"_s);
        QSqlQuery retire(db);
        retire.prepare(
            u"UPDATE refresh_tokens SET rotated_at = ?, retried_at = ?, replaced_by = ? WHERE token_hash = ?"_s);
        retire.addBindValue(now);
        retire.addBindValue(now);
        retire.addBindValue(hashToken(next));
        retire.addBindValue(successor);
        if (!exec(retire)) {
            rollback();
            return result;
        }
    } else {
        markRotated.prepare(u"UPDATE refresh_tokens SET rotated_at = ?, replaced_by = ? WHERE token_hash = ?"_s);
    }
    markRotated.addBindValue(now);
    markRotated.addBindValue(hashToken(next));
    markRotated.addBindValue(hashToken(presented));
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
    result.family = family;
    return result;
}

std::optional<bool> TokenStore::familyRevoked(const QString& family)
{
    QSqlQuery query(database(m_connection));
    query.prepare(u"SELECT EXISTS (SELECT 1 FROM refresh_tokens WHERE family = ? AND revoked_at IS NOT NULL)"_s);
    query.addBindValue(family);
    if (!exec(query) || !query.next())
        return std::nullopt;
    return query.value(0).toBool();
}

bool TokenStore::useOnce(const QString& value, qint64 now, qint64 expiresAt)
{
    QSqlDatabase db = database(m_connection);
    QSqlQuery forget(db);
    forget.prepare(u"DELETE FROM used_once WHERE expires_at <= ?"_s);
    forget.addBindValue(now);
    if (!exec(forget))
        return false;
    QSqlQuery insert(db);
    insert.prepare(u"INSERT OR IGNORE INTO used_once(value_hash, expires_at) VALUES (?, ?)"_s);
    insert.addBindValue(hashToken(value));
    insert.addBindValue(expiresAt);
    return exec(insert) && insert.numRowsAffected() == 1;
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
