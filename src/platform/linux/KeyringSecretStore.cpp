#include "platform/linux/KeyringSecretStore.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>

#include <libsecret/secret.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// A Secret Service that hangs must not hold the keychain thread for ever.
constexpr std::chrono::milliseconds callTimeout { 60'000 };
// Deciding whether the keyring is usable at all must not stall start-up behind a
// prompt nobody answers (a headless session, a keyring without any collection).
constexpr std::chrono::milliseconds probeTimeout { 5'000 };

// What QtKeychain 0.13's libsecret backend names its items by. Binary data (all we
// ever stored through it) went in as base64 text with "type" = "base64"; text
// written by other QtKeychain users is "plaintext".
const SecretSchema* itemSchema()
{
    static const SecretSchema schema = { "org.qt.keychain", SECRET_SCHEMA_NONE,
        {
            { "user", SECRET_SCHEMA_ATTRIBUTE_STRING },
            { "server", SECRET_SCHEMA_ATTRIBUTE_STRING },
            { "type", SECRET_SCHEMA_ATTRIBUTE_STRING },
            { nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING },
        },
        0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr };
    return &schema;
}

struct ErrorDeleter {
    void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorDeleter>;

// Cancels the call it guards once the time is up. The synchronous calls wait on their
// own main context, so the only way to bound them is from another thread.
class Deadline
{
public:
    explicit Deadline(std::chrono::milliseconds timeout)
        : m_cancellable(g_cancellable_new())
        , m_watch([this, timeout] {
            std::unique_lock lock(m_mutex);
            if (!m_done.wait_for(lock, timeout, [this] { return m_finished; }))
                g_cancellable_cancel(m_cancellable);
        })
    { }
    ~Deadline()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_finished = true;
        }
        m_done.notify_one();
        m_watch.join();
        g_object_unref(m_cancellable);
    }
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

    GCancellable* cancellable() const { return m_cancellable; }

private:
    GCancellable* m_cancellable;
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    std::thread m_watch;
};

// The secret of the first item found for this account and type, or nothing; error
// set when the keyring could not be asked.
std::optional<QByteArray> lookup(
    const QByteArray& account, const QByteArray& service, const char* type, GCancellable* cancellable, ErrorPtr& error)
{
    GError* raw = nullptr;
    gchar* secret = secret_password_lookup_sync(itemSchema(), cancellable, &raw, "user", account.constData(), "server",
        service.constData(), "type", type, nullptr);
    error.reset(raw);
    if (!secret)
        return std::nullopt;
    QByteArray text(secret);
    secret_password_free(secret);
    return text;
}

enum class CollectionState { Unlocked, Locked, Missing, NoAnswer };

// Whether the default collection (where our items go) is locked, asked without any
// prompt: a locked keyring is reported as such, never waited on. (An unlock prompt
// with nobody to answer it, as in a session without a prompter, would hold every
// later call until the deadline; the user unlocks the keyring with the desktop's
// own tools, and the next call finds it open.)
CollectionState defaultCollectionState(GCancellable* cancellable)
{
    GError* raw = nullptr;
    SecretService* secrets = secret_service_get_sync(SECRET_SERVICE_NONE, cancellable, &raw);
    ErrorPtr error(raw);
    if (!secrets)
        return CollectionState::NoAnswer;
    raw = nullptr;
    SecretCollection* collection = secret_collection_for_alias_sync(
        secrets, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, cancellable, &raw);
    error.reset(raw);
    if (!collection) {
        g_object_unref(secrets);
        return error ? CollectionState::NoAnswer : CollectionState::Missing;
    }
    const bool locked = secret_collection_get_locked(collection);
    g_object_unref(collection);
    g_object_unref(secrets);
    return locked ? CollectionState::Locked : CollectionState::Unlocked;
}

} // namespace

KeyringSecretStore::KeyringSecretStore(QString service)
    : m_service(std::move(service))
{ }

SecretStore::Status KeyringSecretStore::copy(const QString& account, QByteArray& data)
{
    const QByteArray user = account.toUtf8();
    const QByteArray server = m_service.toUtf8();
    const Deadline deadline(callTimeout);
    // A lookup in a locked keyring would ask to unlock it and wait for the answer.
    switch (defaultCollectionState(deadline.cancellable())) {
    case CollectionState::Locked:
        return Status::Locked;
    case CollectionState::NoAnswer:
        return Status::Unavailable;
    case CollectionState::Missing:
    case CollectionState::Unlocked:
        break;
    }
    ErrorPtr error;
    if (std::optional<QByteArray> text = lookup(user, server, "base64", deadline.cancellable(), error)) {
        data = QByteArray::fromBase64(*text);
        return Status::Success;
    }
    if (error)
        return Status::Unavailable;
    if (std::optional<QByteArray> text = lookup(user, server, "plaintext", deadline.cancellable(), error)) {
        data = *text;
        return Status::Success;
    }
    return error ? Status::Unavailable : Status::NotFound;
}

SecretStore::Status KeyringSecretStore::remove(const QString& account)
{
    const QByteArray user = account.toUtf8();
    const QByteArray server = m_service.toUtf8();
    const Deadline deadline(callTimeout);
    switch (defaultCollectionState(deadline.cancellable())) {
    case CollectionState::Locked:
        return Status::Locked;
    case CollectionState::NoAnswer:
        return Status::Unavailable;
    case CollectionState::Missing:
    case CollectionState::Unlocked:
        break;
    }
    GError* raw = nullptr;
    // Every item of this account, whichever type it was written with.
    const gboolean removed = secret_password_clear_sync(
        itemSchema(), deadline.cancellable(), &raw, "user", user.constData(), "server", server.constData(), nullptr);
    const ErrorPtr error(raw);
    if (error)
        return Status::Unavailable;
    return removed ? Status::Success : Status::NotFound;
}

SecretStore::Status KeyringSecretStore::add(const QString& account, const QByteArray& data)
{
    const QByteArray user = account.toUtf8();
    const QByteArray server = m_service.toUtf8();
    const QByteArray label = m_service.toUtf8();
    const QByteArray secret = data.toBase64();
    const Deadline deadline(callTimeout);
    switch (defaultCollectionState(deadline.cancellable())) {
    case CollectionState::Locked:
        return Status::Locked;
    case CollectionState::NoAnswer:
        return Status::Unavailable;
    case CollectionState::Missing:
    case CollectionState::Unlocked:
        break;
    }
    GError* raw = nullptr;
    // The Secret Service replaces an item with the same attributes instead of
    // refusing it, so a duplicate is never reported from here.
    const gboolean stored = secret_password_store_sync(itemSchema(), SECRET_COLLECTION_DEFAULT, label.constData(),
        secret.constData(), deadline.cancellable(), &raw, "user", user.constData(), "server", server.constData(),
        "type", "base64", nullptr);
    const ErrorPtr error(raw);
    return stored && !error ? Status::Success : Status::Unavailable;
}

QString KeyringSecretStore::backendName() const
{
    return u"Secret Service"_s;
}

bool KeyringSecretStore::isAvailable(const QString& service)
{
    // Blocking QtDBus calls wait in the bus thread and handle no events here.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || bus.interface() == nullptr)
        return false;
    const QString name = u"org.freedesktop.secrets"_s;
    const bool running = bus.interface()->isServiceRegistered(name).value();
    const bool activatable = !running && bus.interface()->activatableServiceNames().value().contains(name);
    if (!running && !activatable)
        return false;

    const Deadline deadline(probeTimeout);
    GError* raw = nullptr;
    SecretService* secrets = secret_service_get_sync(SECRET_SERVICE_NONE, deadline.cancellable(), &raw);
    ErrorPtr error(raw);
    if (!secrets)
        return false;
    // A keyring that is locked, or has no default collection, cannot take tokens
    // without a prompt: such a session is better served by the private file.
    raw = nullptr;
    SecretCollection* collection = secret_collection_for_alias_sync(
        secrets, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, deadline.cancellable(), &raw);
    error.reset(raw);
    g_object_unref(secrets);
    if (!collection)
        return false;
    const bool locked = secret_collection_get_locked(collection);
    g_object_unref(collection);
    // A locked keyring still holds the tokens: it is used, and reported as locked
    // until the user unlocks it, rather than swapped for an empty private file.
    if (locked)
        return true;
    // And it must answer a read: "not found" is the answer we expect.
    lookup("quillet.availability-probe", service.toUtf8(), "base64", deadline.cancellable(), error);
    return !error;
}
