#pragma once

#include "platform/SecretStore.h"

// Items kept in one JSON file readable and writable by the user alone (mode 0600),
// for sessions without a Secret Service (a bare window manager). Every call reads
// or rewrites the file, so there is no state in memory.
class FileSecretStore final : public SecretStore
{
public:
    explicit FileSecretStore(QString path);

    Status copy(const QString& account, QByteArray& data) override;
    Status remove(const QString& account) override;
    Status add(const QString& account, const QByteArray& data) override;
    QString backendName() const override;

    const QString& path() const { return m_path; }

    // $XDG_STATE_HOME/quillet/credentials.json, or ~/.local/state/quillet/credentials.json.
    static QString defaultPath();

private:
    QString m_path;
};
