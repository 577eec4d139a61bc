#include "FileSecretStore.h"
#include "KeyringSecretStore.h"

#include <memory>

using namespace Qt::StringLiterals;

std::unique_ptr<SecretStore> makeSystemSecretStore()
{
    const QString service = u"Quillet"_s;
    if (KeyringSecretStore::isAvailable(service))
        return std::make_unique<KeyringSecretStore>(service);
    return std::make_unique<FileSecretStore>(FileSecretStore::defaultPath());
}
