#include "KeyringSecretStore.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QEventLoop>
#include <qt6keychain/keychain.h>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

// Runs one job to its end. The job is owned here and never auto-deleted, so its
// results can be read after the local loop has returned.
void runToCompletion(QKeychain::Job& job)
{
    QEventLoop loop;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, &QEventLoop::quit);
    job.setAutoDelete(false);
    job.start();
    loop.exec(QEventLoop::ExcludeUserInputEvents);
}

} // namespace

KeyringSecretStore::KeyringSecretStore(QString service)
    : m_service(std::move(service))
{
}

SecretStore::Status KeyringSecretStore::copy(const QString& account, QByteArray& data)
{
    QKeychain::ReadPasswordJob job(m_service);
    job.setKey(account);
    runToCompletion(job);
    switch (job.error()) {
    case QKeychain::NoError:
        data = job.binaryData();
        return Status::Success;
    case QKeychain::EntryNotFound:
        return Status::NotFound;
    default:
        return Status::Unavailable;
    }
}

SecretStore::Status KeyringSecretStore::remove(const QString& account)
{
    QKeychain::DeletePasswordJob job(m_service);
    job.setKey(account);
    runToCompletion(job);
    switch (job.error()) {
    case QKeychain::NoError:
        return Status::Success;
    case QKeychain::EntryNotFound:
        return Status::NotFound;
    default:
        return Status::Unavailable;
    }
}

SecretStore::Status KeyringSecretStore::add(const QString& account, const QByteArray& data)
{
    // The Secret Service replaces an item with the same attributes instead of
    // refusing it, so a duplicate is never reported from here.
    QKeychain::WritePasswordJob job(m_service);
    job.setKey(account);
    job.setBinaryData(data);
    runToCompletion(job);
    return job.error() == QKeychain::NoError ? Status::Success : Status::Unavailable;
}

QString KeyringSecretStore::backendName() const
{
    return u"Secret Service"_s;
}

bool KeyringSecretStore::isAvailable(const QString& service)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || bus.interface() == nullptr)
        return false;
    const QString name = u"org.freedesktop.secrets"_s;
    const bool running = bus.interface()->isServiceRegistered(name).value();
    const bool activatable = !running && bus.interface()->activatableServiceNames().value().contains(name);
    if (!running && !activatable)
        return false;
    // A keyring that is locked, or has no default collection, refuses every read
    // with an error other than "not found": such a keyring cannot hold tokens.
    QKeychain::ReadPasswordJob probe(service);
    probe.setKey(u"quillet.availability-probe"_s);
    runToCompletion(probe);
    return probe.error() == QKeychain::EntryNotFound || probe.error() == QKeychain::NoError;
}
