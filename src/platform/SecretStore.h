#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>

// The system's store of secrets, reduced to what the token store needs:
// generic-password items identified by an account name alone. Calls may block for
// as long as the store takes to answer: callers make them away from the GUI thread.
class SecretStore
{
public:
    // Locked: the item may exist, but the keyring must be unlocked before anyone can
    // read or write it; it is neither missing nor an error of the store.
    enum class Status { Success, NotFound, Duplicate, Unavailable, Locked };

    virtual ~SecretStore() = default;

    // Copies the data of the one item with this account.
    virtual Status copy(const QString& account, QByteArray& data) = 0;
    // Deletes every item with this account; NotFound when there was none (where the store can tell).
    virtual Status remove(const QString& account) = 0;
    // Adds an item with this account and data; Duplicate when one already exists.
    virtual Status add(const QString& account, const QByteArray& data) = 0;
    // A short human name of the backend, for diagnostics ("Secret Service", "file").
    virtual QString backendName() const = 0;
};

// The platform's secret store: the desktop's keyring where one answers, or a
// private file otherwise. Chosen once, when called.
std::unique_ptr<SecretStore> makeSystemSecretStore();

// The private-file store at path, whatever the desktop offers.
std::unique_ptr<SecretStore> makeFileSecretStore(const QString& path);
// Where the private-file store keeps this user's items.
QString defaultSecretFilePath();
