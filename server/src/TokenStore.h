#pragma once

#include "DatabaseUrl.h"

#include <QString>

#include <optional>

class QSqlQuery;

// Accounts and refresh tokens in SQLite (a local file) or PostgreSQL (shared by replicas on
// several machines). Refresh tokens are kept only as SHA-256 hashes; every refresh rotates
// the token, and presenting a token that was already rotated revokes its whole family (the
// chain of tokens that came from one sign-in), except for one retry shortly after a rotation
// whose new token was never used.
//
// Everything lives in the database and nothing in memory, so several server processes can
// share one database and any of them can answer.
class TokenStore
{
public:
    struct Account {
        qint64 id = 0;
        QString name;
        qint64 generation = 0; // bumped by "sign out everywhere"
    };

    enum class Outcome { Rotated, Unknown, Expired, Revoked, Reused, Failed };
    struct Rotation {
        Outcome outcome = Outcome::Failed;
        Account account;
        QString refreshToken; // the new token, only when rotated
        QString family; // only when rotated
    };

    // A token rotated less than this long ago may be presented once more: the client may
    // have lost the answer that carried its successor (a crash, a dropped connection).
    static constexpr qint64 retrySeconds = 60;
    // ... but only once the rotation is at least this old. A client that lost its answer
    // presents the token again only after its own request failed (a later refresh, a
    // restart); copies of one request sent at once arrive within milliseconds of each other,
    // and one of them must not pass for that retry. The times are whole seconds, so an age of
    // 2 means at least one full second has gone by since the rotation; anything younger is a
    // reuse and revokes the family.
    static constexpr qint64 retryMinimumSeconds = 2;

    TokenStore();
    ~TokenStore();
    TokenStore(const TokenStore&) = delete;
    TokenStore& operator=(const TokenStore&) = delete;

    // Opens the database and creates or upgrades its tables.
    bool open(const QString& path, QString* error);
    bool openPostgres(const PostgresConnection& connection, QString* error);
    // The version of the tables, recorded in schema_version.
    static constexpr int schemaVersion = 2;

    std::optional<Account> ensureAccount(const QString& name);
    std::optional<Account> accountByName(const QString& name);

    // A new family with its first token; returns the token, or nothing on failure.
    std::optional<QString> startFamily(qint64 accountId, qint64 now, qint64 lifetimeSeconds, QString* family = nullptr);
    Rotation rotate(const QString& presented, qint64 now, qint64 lifetimeSeconds);
    // Revokes every refresh token of the account and retires its live access tokens.
    // Returns how many sign-ins were still active, or -1 on failure.
    int signOutEverywhere(qint64 accountId, qint64 now);
    int activeSignIns(qint64 accountId, qint64 now);
    // True when the family was revoked (a reused token, or sign out everywhere); nothing on failure.
    std::optional<bool> familyRevoked(const QString& family);
    // Records a single-use value until `expiresAt`; false when it was recorded before (or on failure).
    bool useOnce(const QString& value, qint64 now, qint64 expiresAt);

    static QString hashToken(const QString& token);
    static QString newOpaqueToken();

private:
    enum class Dialect { Sqlite, Postgres };

    bool prepareSchema(QString* error);
    bool begin();
    bool commit();
    void rollback();
    bool run(QSqlQuery& query);
    // After a failed statement outside a transaction: true when the PostgreSQL connection
    // had been lost (the server restarted, a proxy dropped it) and is now open again.
    bool reconnected();
    Rotation rotateOnce(const QString& presented, qint64 now, qint64 lifetimeSeconds);

    QString m_connection;
    Dialect m_dialect = Dialect::Sqlite;
    bool m_retryable = false; // the last failure was a deadlock or serialization failure
};
