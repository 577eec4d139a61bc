#pragma once

#include <QLocalServer>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

// One Quillet per user session. A second start hands its links (or just a knock) to
// the running one over a local socket in the user's runtime directory and exits.
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    explicit SingleInstance(QObject* parent = nullptr);

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

private:
    void accept();

    std::unique_ptr<QLocalServer> m_server;
};
