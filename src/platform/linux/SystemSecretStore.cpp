#include "platform/linux/FileSecretStore.h"
#include "platform/linux/KeyringSecretStore.h"

#include <memory>

using namespace Qt::StringLiterals;

std::unique_ptr<SecretStore> makeSystemSecretStore()
{
    const QString service = u"Quillet"_s;
    if (KeyringSecretStore::isAvailable(service))
        return std::make_unique<KeyringSecretStore>(service);
    return std::make_unique<FileSecretStore>(FileSecretStore::defaultPath());
}

std::unique_ptr<SecretStore> makeFileSecretStore(const QString& path)
{
    return std::make_unique<FileSecretStore>(path);
}

QString defaultSecretFilePath()
{
    return FileSecretStore::defaultPath();
}
