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
// shortcut edge) to the running one over a local socket in the user's runtime
// directory and exits.
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    explicit SingleInstance(QObject* parent = nullptr);

    // The line that carries a shortcut edge; it cannot be mistaken for a link.
    static QByteArray edgeMessage(ShortcutEdge edge);
    // The edge a received line names; absent for links and knocks.
    static std::optional<ShortcutEdge> edgeFromMessage(QStringView line);
    // Hands a shortcut edge to a running instance; true when one took it.
    static bool handOverEdge(ShortcutEdge edge, int timeoutMs = 1000);

    // The socket's path for this user.
    static QString socketPath();
    // Hands the links to a running instance; true when one took them.
    static bool handOver(const QStringList& links, int timeoutMs = 2000);

    // Starts answering later starts; false when the socket cannot be made.
    bool listen();

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
