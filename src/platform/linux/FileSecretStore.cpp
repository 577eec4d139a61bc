#include "platform/linux/FileSecretStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <sys/stat.h>

#include <optional>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// The whole file as an object of account -> base64 data; nothing when the file
// is unreadable or not such an object.
std::optional<QJsonObject> readItems(const QString& path)
{
    QFile file(path);
    if (!file.exists())
        return QJsonObject {};
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll());
    if (!doc.isObject())
        return std::nullopt;
    return doc.object();
}

bool writeItems(const QString& path, const QJsonObject& items)
{
    const QFileInfo info(path);
    if (!QDir().mkpath(info.absolutePath()))
        return false;
    ::chmod(QFile::encodeName(info.absolutePath()).constData(), 0700);
    QSaveFile file(path);
    // Restrict the temporary file before any secret is written into it.
    if (!file.open(QIODevice::WriteOnly))
        return false;
    if (!file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        file.cancelWriting();
        return false;
    }
    file.write(QJsonDocument(items).toJson(QJsonDocument::Compact));
    return file.commit();
}

} // namespace

FileSecretStore::FileSecretStore(QString path)
    : m_path(std::move(path))
{ }

SecretStore::Status FileSecretStore::copy(const QString& account, QByteArray& data)
{
    const std::optional<QJsonObject> items = readItems(m_path);
    if (!items)
        return Status::Unavailable;
    const QJsonValue value = items->value(account);
    if (!value.isString())
        return Status::NotFound;
    data = QByteArray::fromBase64(value.toString().toLatin1());
    return Status::Success;
}

SecretStore::Status FileSecretStore::remove(const QString& account)
{
    std::optional<QJsonObject> items = readItems(m_path);
    if (!items)
        return Status::Unavailable;
    if (!items->contains(account))
        return Status::NotFound;
    items->remove(account);
    return writeItems(m_path, *items) ? Status::Success : Status::Unavailable;
}

SecretStore::Status FileSecretStore::add(const QString& account, const QByteArray& data)
{
    std::optional<QJsonObject> items = readItems(m_path);
    if (!items)
        return Status::Unavailable;
    if (items->contains(account))
        return Status::Duplicate;
    items->insert(account, QString::fromLatin1(data.toBase64()));
    return writeItems(m_path, *items) ? Status::Success : Status::Unavailable;
}

QString FileSecretStore::backendName() const
{
    return u"file"_s;
}

QString FileSecretStore::defaultPath()
{
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    if (base.isEmpty() || !QDir::isAbsolutePath(base))
        base = QDir::homePath() + u"/.local/state"_s;
    return base + u"/quillet/credentials.json"_s;
}
