#pragma once

#include <QString>
#include <QStringView>

#include <QCoroTask>

#include <memory>
#include <optional>

class QNetworkAccessManager;
class SecretStore;

// The only owner of the user's two credentials: reads, writes, renews and forgets
// them in the system's secret store. Holds nothing in memory between calls.
class KeychainHelper
{
public:
    static const QString accessTokenKey; // "quillet.access_token"
    static const QString refreshTokenKey; // "quillet.refresh_token"
    static const QString legacyAccessTokenKey;
    static const QString legacyRefreshTokenKey;

    KeychainHelper() = delete;

    // The item's text, or nothing when it is missing, unreadable or not UTF-8.
    static std::optional<QString> load(const QString& key);
    // Replaces the item: delete, then add. Failures are silent.
    static void save(const QString& key, const QString& value);
    // Forgets both tokens (sign-out, or the server rejected the refresh token).
    static void clearTokens();

    // True unless the token provably stays good for more than another minute.
    static bool isExpiringSoon(QStringView token);
    // The same test against an explicit clock (seconds since 1970, UTC).
    static bool isExpiringSoon(QStringView token, double nowSeconds);

    // Trades the stored refresh token for a new pair; the new access token, or nothing.
    static QCoro::Task<std::optional<QString>> performRefresh();
    // An access token fit to send, refreshed first when it is about to expire; nothing when signed out.
    static QCoro::Task<std::optional<QString>> validAccessToken();

    // Moves the tokens of earlier versions to the current item names, once.
    static void migrateIfNeeded();

    // The secret store behind every call: the system's, chosen on first use.
    static SecretStore& store();
    // Replaces the secret store (tests, or a platform that picks its own); null restores the system's.
    static void setStore(std::unique_ptr<SecretStore> store);

private:
    static void remove(const QString& key);
    static QNetworkAccessManager& network();
};
