#include "app/SingleInstance.h"

#include "services/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalSocket>
#include <QPointer>
#include <QStandardPaths>

#include <cerrno>
#include <optional>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Enough for any link the sign-in page makes; a longer message is not ours.
constexpr qint64 maxMessageBytes = 64 * 1024;
// sockaddr_un holds 108 bytes with the terminating NUL.
constexpr qsizetype maxSocketPathBytes = 107;

const QString socketName = u"quillet.socket"_s;

std::optional<struct stat> lstatOf(const QString& path)
{
    struct stat info {
    };
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return std::nullopt;
    return info;
}

// Why a directory may not hold our socket, or nothing when it is private to us: a
// real directory (not a link to one), ours, and closed to everyone else.
std::optional<QString> whyNotPrivate(const QString& dir)
{
    const std::optional<struct stat> info = lstatOf(dir);
    if (!info)
        return u"it does not exist"_s;
    if (S_ISLNK(info->st_mode))
        return u"it is a symbolic link"_s;
    if (!S_ISDIR(info->st_mode))
        return u"it is not a directory"_s;
    if (info->st_uid != ::getuid())
        return u"it belongs to another user (uid %1)"_s.arg(info->st_uid);
    if ((info->st_mode & 077) != 0)
        return u"others may use it (mode %1)"_s.arg(info->st_mode & 0777, 4, 8, QChar(u'0'));
    return std::nullopt;
}

// Makes dir (mode 0700, its parents as usual) unless it exists, then checks it.
std::optional<QString> makePrivate(const QString& dir)
{
    const QByteArray path = QFile::encodeName(dir);
    if (::mkdir(path.constData(), 0700) != 0 && errno == ENOENT) {
        QDir().mkpath(QFileInfo(dir).absolutePath());
        ::mkdir(path.constData(), 0700);
    }
    return whyNotPrivate(dir);
}

void reportRefused(const QString& dir, const QString& why)
{
    Log::write(Log::Symbol::Warning,
        u"not using %1 for the single-instance socket: %2; another user's directory or socket is never used"_s.arg(
            dir, why));
}

std::optional<QString> privateDirectory()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty()) {
        if (const std::optional<QString> why = whyNotPrivate(runtime))
            reportRefused(runtime, *why);
        else
            return runtime;
    }
    const QString temp = QDir::tempPath() + u"/quillet-"_s + QString::number(::getuid());
    if (const std::optional<QString> why = makePrivate(temp))
        reportRefused(temp, *why);
    else
        return temp;
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) + u"/quillet"_s;
    if (const std::optional<QString> why = makePrivate(cache))
        reportRefused(cache, *why);
    else if (QFile::encodeName(cache + u'/' + socketName).size() > maxSocketPathBytes)
        reportRefused(cache, u"the path is too long for a socket"_s);
    else
        return cache;
    return std::nullopt;
}

// A socket file left at path must be ours before we connect to it or replace it.
std::optional<QString> whyNotOurSocket(const QString& path)
{
    const std::optional<struct stat> info = lstatOf(path);
    if (!info)
        return std::nullopt; // nothing there yet
    if (!S_ISSOCK(info->st_mode))
        return u"it is not a socket"_s;
    if (info->st_uid != ::getuid())
        return u"it belongs to another user (uid %1)"_s.arg(info->st_uid);
    return std::nullopt;
}

} // namespace

SingleInstance::SingleInstance(QObject* parent)
    : QObject(parent)
{ }

QString SingleInstance::socketPath()
{
    const std::optional<QString> dir = privateDirectory();
    return dir ? *dir + u'/' + socketName : QString();
}

qint64 SingleInstance::peerUid(qintptr socketDescriptor)
{
    struct ucred credentials {
    };
    socklen_t size = sizeof credentials;
    if (socketDescriptor < 0
        || ::getsockopt(static_cast<int>(socketDescriptor), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return -1;
    return credentials.uid;
}

QByteArray SingleInstance::edgeMessage(ShortcutEdge edge)
{
    // A link always starts with its scheme; "!" starts none.
    switch (edge) {
    case ShortcutEdge::press:
        return "!press\n";
    case ShortcutEdge::release:
        return "!release\n";
    case ShortcutEdge::toggle:
        return "!toggle\n";
    }
    return {};
}

std::optional<ShortcutEdge> SingleInstance::edgeFromMessage(QStringView line)
{
    if (line == u"!press")
        return ShortcutEdge::press;
    if (line == u"!release")
        return ShortcutEdge::release;
    if (line == u"!toggle")
        return ShortcutEdge::toggle;
    return std::nullopt;
}

bool SingleInstance::handOver(const QStringList& links, int timeoutMs)
{
    // One link per line; an empty message is a plain knock.
    return send(links.join(u'\n').toUtf8() + '\n', timeoutMs);
}

bool SingleInstance::handOverEdge(ShortcutEdge edge, int timeoutMs)
{
    return send(edgeMessage(edge), timeoutMs);
}

bool SingleInstance::send(const QByteArray& message, int timeoutMs)
{
    const QString path = socketPath();
    if (path.isEmpty())
        return false;
    if (const std::optional<QString> why = whyNotOurSocket(path)) {
        reportRefused(path, *why);
        return false;
    }
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(timeoutMs))
        return false;
    // The message goes only to a Quillet of this very user.
    const qint64 peer = peerUid(socket.socketDescriptor());
    if (peer != static_cast<qint64>(::getuid())) {
        socket.abort();
        reportRefused(path, u"the program listening on it runs as another user (uid %1)"_s.arg(peer));
        return false;
    }
    socket.write(message);
    if (!socket.waitForBytesWritten(timeoutMs))
        return false;
    socket.disconnectFromServer();
    if (socket.state() != QLocalSocket::UnconnectedState)
        socket.waitForDisconnected(timeoutMs);
    return true;
}

bool SingleInstance::listen()
{
    const QString path = socketPath();
    if (path.isEmpty())
        return false;
    if (const std::optional<QString> why = whyNotOurSocket(path)) {
        reportRefused(path, *why);
        return false;
    }
    m_server = std::make_unique<QLocalServer>();
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(path)) {
        // A socket left behind by a crashed instance: nobody answers on it (main() asked), so take it over.
        QLocalServer::removeServer(path);
        if (!m_server->listen(path))
            return false;
    }
    connect(m_server.get(), &QLocalServer::newConnection, this, &SingleInstance::accept);
    return true;
}

void SingleInstance::accept()
{
    while (QLocalSocket* socket = m_server->nextPendingConnection()) {
        const qint64 peer = peerUid(socket->socketDescriptor());
        if (peer != static_cast<qint64>(::getuid())) {
            Log::write(Log::Symbol::Warning,
                u"refused a connection to the single-instance socket from another user (uid %1)"_s.arg(peer));
            socket->abort();
            socket->deleteLater();
            continue;
        }
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket = QPointer<QLocalSocket>(socket)] {
            if (!socket)
                return;
            if (socket->bytesAvailable() > maxMessageBytes) {
                Log::write(Log::Symbol::Warning,
                    u"dropped a message of more than %1 bytes on the single-instance socket"_s.arg(maxMessageBytes));
                socket->abort();
                return;
            }
            while (socket->canReadLine()) {
                const QString line = QString::fromUtf8(socket->readLine()).trimmed();
                if (line.isEmpty())
                    Q_EMIT activated();
                else if (const std::optional<ShortcutEdge> edge = edgeFromMessage(line))
                    Q_EMIT shortcutEdgeReceived(*edge);
                else
                    Q_EMIT linkReceived(line);
            }
        });
    }
}
