#include "app/SingleInstance.h"

#include <QDir>
#include <QLocalSocket>
#include <QPointer>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace {

// Enough for any link the sign-in page makes; a longer message is not ours.
constexpr qint64 maxMessageBytes = 64 * 1024;

} // namespace

SingleInstance::SingleInstance(QObject* parent)
    : QObject(parent)
{ }

QString SingleInstance::socketPath()
{
    QString dir = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (dir.isEmpty())
        dir = QDir::tempPath();
    return dir + u"/quillet.socket"_s;
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
    QLocalSocket socket;
    socket.connectToServer(socketPath());
    if (!socket.waitForConnected(timeoutMs))
        return false;
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
    m_server = std::make_unique<QLocalServer>();
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(socketPath())) {
        // A socket left behind by a crashed instance: nobody answers on it (main() asked), so take it over.
        QLocalServer::removeServer(socketPath());
        if (!m_server->listen(socketPath()))
            return false;
    }
    connect(m_server.get(), &QLocalServer::newConnection, this, &SingleInstance::accept);
    return true;
}

void SingleInstance::accept()
{
    while (QLocalSocket* socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket = QPointer<QLocalSocket>(socket)] {
            if (!socket)
                return;
            if (socket->bytesAvailable() > maxMessageBytes) {
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
