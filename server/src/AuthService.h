#pragma once

#include "TokenStore.h"

#include <QByteArray>
#include <QString>

#include <optional>

// Issues and checks the tokens the client holds: short-lived HS256 access tokens and
// rotating opaque refresh tokens. The signing key lives in a file under the data
// directory, created on first start and readable only by the user.
class AuthService
{
public:
    struct Lifetimes {
        qint64 accessSeconds = 15 * 60;
        qint64 refreshSeconds = 30LL * 24 * 3600;
    };

    struct TokenPair {
        QString accessToken;
        QString refreshToken;
    };

    // Revoked: signed out everywhere since; FamilyRevoked: its sign-in's refresh token was replayed.
    enum class AccessCheck { Valid, Malformed, BadSignature, Expired, Revoked, FamilyRevoked };
    struct AccessResult {
        AccessCheck check = AccessCheck::Malformed;
        QString subject;
    };

    enum class RefreshOutcome { Refreshed, Rejected, Failed };
    struct RefreshResult {
        RefreshOutcome outcome = RefreshOutcome::Failed;
        TokenStore::Outcome reason = TokenStore::Outcome::Failed;
        QString subject;
        TokenPair tokens;
    };

    AuthService(TokenStore& store, QByteArray signingKey, Lifetimes lifetimes);

    // Reads the key file, or creates it (mode 0600) when there is none. Several processes
    // starting at once agree on one key: only one of them can create the file.
    static std::optional<QByteArray> loadOrCreateSigningKey(const QString& path, QString* error);

    std::optional<TokenPair> signIn(const QString& accountName);
    RefreshResult refresh(const QString& refreshToken);
    AccessResult checkAccess(QByteArrayView token);
    // Returns how many sign-ins ended, or -1 on failure.
    int signOutEverywhere(const QString& accountName);
    int activeSignIns(const QString& accountName);

    // Form tokens for the web pages: an HMAC of the action and a time stamp, good for ten
    // minutes and one use.
    QString formToken(const QString& action) const;
    // Checks the token and marks it used; false when it is stale, forged or used before.
    bool useFormToken(const QString& action, const QString& token);

    const QByteArray& signingKey() const { return m_key; }

private:
    QString accessTokenFor(const TokenStore::Account& account, const QString& family, qint64 now) const;
    bool checkFormToken(const QString& action, const QString& token) const;

    TokenStore& m_store;
    QByteArray m_key;
    Lifetimes m_lifetimes;
};

qint64 nowSeconds();
