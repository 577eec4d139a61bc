#pragma once

#include "platform/SecretStore.h"

// Items in the desktop keyring over the freedesktop Secret Service, through
// libsecret's synchronous calls, bounded by a deadline. They block their thread for
// as long as the keyring takes: the token store makes them on a thread of its own,
// never on the GUI thread. A locked keyring is reported as Locked, without an unlock
// prompt. Items keep the shape the QtKeychain-based build
// gave them (schema "org.qt.keychain", attributes "user" = account, "server" = service, "type" = "base64"), so tokens
// saved by it are still found.
class KeyringSecretStore final : public SecretStore
{
public:
    explicit KeyringSecretStore(QString service);

    Status copy(const QString& account, QByteArray& data) override;
    Status remove(const QString& account) override;
    Status add(const QString& account, const QByteArray& data) override;
    QString backendName() const override;

    // True when a Secret Service answers on the session bus with a default collection
    // (locked, or unlocked and readable); gives up after a few seconds.
    static bool isAvailable(const QString& service);

private:
    QString m_service;
};
