#pragma once

#include <QString>
#include <QStringView>

#include "platform/SecretStore.h"

#include <QCoroTask>

#include <memory>
#include <optional>

class QNetworkAccessManager;
template <typename T> class QPromise;

// The only owner of the user's two credentials: reads, writes, renews and forgets
// them in the system's secret store. Holds no token in memory between calls.
//
// The secret store may take its time (a keyring that asks the user to unlock it, a
// Secret Service that hangs): every store call runs on one keychain thread of its own,
// in the order made, and the asynchronous operations below never hold up the event
// loop. The blocking forms (load, save, clearTokens, migrateIfNeeded) wait for that
// thread and are for tests and tools only: the program itself uses the asynchronous ones.
class KeychainHelper
{
public:
    // One item as read: its text, or nothing with the store's reason (NotFound: signed
    // out; Locked: the keyring must be unlocked first; Unavailable: no answer).
    struct Read {
        std::optional<QString> value;
        SecretStore::Status status = SecretStore::Status::NotFound;
    };

    static const QString accessTokenKey; // "quillet.access_token"
    static const QString refreshTokenKey; // "quillet.refresh_token"
    static const QString legacyAccessTokenKey;
    static const QString legacyRefreshTokenKey;

    KeychainHelper() = delete;

    // The item's text, or nothing when it is missing, unreadable or not UTF-8. (The
    // coroutines take their arguments by value: they outlive the caller's temporaries.)
    static QCoro::Task<Read> loadAsync(QString key);
    // Replaces the item: delete, then add. The add's status; a failure is logged.
    static QCoro::Task<SecretStore::Status> saveAsync(QString key, QString value);
    // Forgets both tokens (sign-out, or the server rejected the refresh token).
    static QCoro::Task<> clearTokensAsync();
    // Moves the tokens of earlier versions to the current item names, once.
    static QCoro::Task<> migrateIfNeededAsync();

    // Blocking forms of the above (tests and tools; never on the GUI thread of the program).
    static std::optional<QString> load(const QString& key);
    static SecretStore::Status save(const QString& key, const QString& value);
    static void clearTokens();
    static void migrateIfNeeded();

    // True unless the token provably stays good for more than another minute.
    static bool isExpiringSoon(QStringView token);
    // The same test against an explicit clock (seconds since 1970, UTC).
    static bool isExpiringSoon(QStringView token, double nowSeconds);

    // Trades the stored refresh token for a new pair; the new access token, or nothing.
    // Single flight: while one renewal is on its way, later callers wait for its answer
    // instead of sending the same refresh token again (which the server takes as reuse
    // of a stolen token, and answers by signing the user out).
    static QCoro::Task<std::optional<QString>> performRefresh();
    // An access token fit to send, refreshed first when it is about to expire; nothing
    // when signed out or when the keyring is locked (logged as such).
    static QCoro::Task<std::optional<QString>> validAccessToken();

    // The secret store behind every call: the system's, chosen on first use (on the
    // keychain thread: probing the desktop's keyring can take seconds).
    static SecretStore& store();
    // Replaces the secret store (tests, or a platform that picks its own); null restores
    // the system's. Waits for the keychain thread to finish what it was given first.
    static void setStore(std::unique_ptr<SecretStore> store);

private:
    static QCoro::Task<std::optional<QString>> refreshOnce();
    static QCoro::Task<> answerRefresh(std::shared_ptr<QPromise<std::optional<QString>>> answer);
    static QNetworkAccessManager& network();
};
