#pragma once

#include "platform/SecretStore.h"

// Items in the desktop keyring over the freedesktop Secret Service, through
// libsecret's synchronous calls. Those run a private GLib main context of their own
// while they wait for the keyring, so no Qt event, timer or queued call is handled
// inside them: a key press, a HUD timer or a dictation's callback never runs in the
// middle of a token read. Items keep the shape the QtKeychain-based build gave
// them (schema "org.qt.keychain", attributes "user" = account, "server" = service,
// "type" = "base64"), so tokens saved by it are still found.
class KeyringSecretStore final : public SecretStore
{
public:
    explicit KeyringSecretStore(QString service);

    Status copy(const QString& account, QByteArray& data) override;
    Status remove(const QString& account) override;
    Status add(const QString& account, const QByteArray& data) override;
    QString backendName() const override;

    // True when a Secret Service answers on the session bus with an unlocked default
    // collection that can be read; gives up after a few seconds.
    static bool isAvailable(const QString& service);

private:
    QString m_service;
};
