#pragma once

#include "platform/SecretStore.h"

// Items in the desktop keyring over the freedesktop Secret Service (through QtKeychain).
// QtKeychain's jobs are asynchronous; each call here waits for its job in a local
// event loop so the store keeps the synchronous contract of SecretStore.
class KeyringSecretStore final : public SecretStore
{
public:
    explicit KeyringSecretStore(QString service);

    Status copy(const QString& account, QByteArray& data) override;
    Status remove(const QString& account) override;
    Status add(const QString& account, const QByteArray& data) override;
    QString backendName() const override;

    // True when a Secret Service answers on the session bus and can be read.
    static bool isAvailable(const QString& service);

private:
    QString m_service;
};
