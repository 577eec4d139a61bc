#pragma once

#include "platform/SecretStore.h"

#include <QMap>
#include <QStringList>

// A secret store in memory that records every call ("copy:acct", "remove:acct", "add:acct").
// With `locked` set it answers every call as a locked keyring does.
class MemorySecretStore final : public SecretStore
{
public:
    Status copy(const QString& account, QByteArray& data) override
    {
        calls.append(QStringLiteral("copy:") + account);
        if (locked)
            return Status::Locked;
        if (!items.contains(account))
            return Status::NotFound;
        data = items.value(account);
        return Status::Success;
    }
    Status remove(const QString& account) override
    {
        calls.append(QStringLiteral("remove:") + account);
        if (locked)
            return Status::Locked;
        return items.remove(account) > 0 ? Status::Success : Status::NotFound;
    }
    Status add(const QString& account, const QByteArray& data) override
    {
        calls.append(QStringLiteral("add:") + account);
        if (locked)
            return Status::Locked;
        if (items.contains(account))
            return Status::Duplicate;
        items.insert(account, data);
        return Status::Success;
    }
    QString backendName() const override { return QStringLiteral("memory"); }

    QMap<QString, QByteArray> items;
    QStringList calls;
    bool locked = false;
};
