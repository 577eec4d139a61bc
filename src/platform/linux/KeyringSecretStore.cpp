#include "platform/linux/KeyringSecretStore.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QEventLoop>
#include <QTimer>
#include <qt6keychain/keychain.h>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

// A keyring may ask the user to unlock it; give them time, but never wait forever.
constexpr int kJobTimeoutMs = 60'000;
// Deciding whether the keyring is usable at all must not stall start-up behind a
// prompt nobody answers (a headless session, a keyring without any collection).
constexpr int kProbeTimeoutMs = 5'000;

// Runs one job to its end, or until the timeout; false when it timed out. The job
// is owned by the caller and never auto-deleted, so its results can be read after
// the local loop has returned.
bool runToCompletion(QKeychain::Job& job, int timeoutMs = kJobTimeoutMs)
{
    QEventLoop loop;
    bool finished = false;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, [&] {
        finished = true;
        loop.quit();
    });
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    job.setAutoDelete(false);
    job.start();
    if (!finished)
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    return finished;
}

} // namespace

KeyringSecretStore::KeyringSecretStore(QString service)
    : m_service(std::move(service))
{ }

SecretStore::Status KeyringSecretStore::copy(const QString& account, QByteArray& data)
{
    QKeychain::ReadPasswordJob job(m_service);
    job.setKey(account);
    if (!runToCompletion(job))
        return Status::Unavailable;
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
    if (!runToCompletion(job))
        return Status::Unavailable;
    // The Secret Service reports success for a deletion that matched nothing, so a
    // missing item usually comes back as Success here.
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
    if (!runToCompletion(job))
        return Status::Unavailable;
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
    if (!runToCompletion(probe, kProbeTimeoutMs))
        return false;
    return probe.error() == QKeychain::EntryNotFound || probe.error() == QKeychain::NoError;
}
