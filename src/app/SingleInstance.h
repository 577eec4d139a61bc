#pragma once

#include <QByteArray>
#include <QLocalServer>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QStringView>

#include <memory>
#include <optional>

// What a desktop's shortcut binding tells the running instance (`quillet --press`).
enum class ShortcutEdge {
    press, // the shortcut went down
    release, // the shortcut went up
    toggle, // the shortcut was pressed, on a desktop that reports no release
};

// One Quillet per user session. A second start hands its links (or just a knock, or a
// shortcut edge) to the running one over a local socket and exits.
//
// The socket carries sign-in tokens, so it lives only in a directory private to this
// user: $XDG_RUNTIME_DIR when that is ours and mode 0700, else quillet-<uid> in the temp
// directory (made 0700, and checked: ours, a real directory, no access for others),
// else quillet/ in the user's cache directory. A directory or socket that belongs to
// anyone else is never used, and both ends check the other's user id (SO_PEERCRED).
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    explicit SingleInstance(QObject* parent = nullptr);

    // The line that carries a shortcut edge; it cannot be mistaken for a link.
    static QByteArray edgeMessage(ShortcutEdge edge);
    // The edge a received line names; absent for links and knocks.
    static std::optional<ShortcutEdge> edgeFromMessage(QStringView line);
    // Hands a shortcut edge to a running instance; true when one of this user took it.
    static bool handOverEdge(ShortcutEdge edge, int timeoutMs = 1000);

    // The socket's path for this user, making its private directory when needed; empty
    // (with a log line saying why) when no private directory can be had.
    static QString socketPath();
    // Hands the links to a running instance; true when one of this user took them.
    static bool handOver(const QStringList& links, int timeoutMs = 2000);

    // Starts answering later starts; false when the socket cannot be made.
    bool listen();

    // The user id of the process at the other end of a connected local socket, or -1.
    static qint64 peerUid(qintptr socketDescriptor);

Q_SIGNALS:
    // A later start passed this link (one signal per link, in order).
    void linkReceived(const QString& link);
    // A later start had nothing to pass: the user started Quillet again.
    void activated();
    // A desktop binding ran `quillet --press`, `--release` or `--toggle`.
    void shortcutEdgeReceived(ShortcutEdge edge);

private:
    static bool send(const QByteArray& message, int timeoutMs);
    void accept();

    std::unique_ptr<QLocalServer> m_server;
};
