#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QWebSocket>
#include <QWebSocketServer>

// A real WebSocket server on loopback that plays a script to each client once the
// client's first message (its authentication) has arrived, and records what it got.
class ScriptedStreamServer : public QObject
{
    Q_OBJECT
public:
    struct Step {
        enum Kind { Text, Binary, Close, Wait };
        Kind kind;
        QByteArray data;
        int closeCode = 1000;
    };
    static Step text(const QByteArray& json) { return { Step::Text, json }; }
    static Step binary(const QByteArray& json) { return { Step::Binary, json }; }
    static Step close(int code = 1000) { return { Step::Close, {}, code }; }
    // Stop the script here until the client sends {"type":"stop"}.
    static Step waitForStop() { return { Step::Wait, {} }; }

    explicit ScriptedStreamServer(QObject* parent = nullptr);

    quint16 port() const { return m_server.serverPort(); }
    QString apiBase() const;

    // Played to every new client after its first message.
    QList<Step> script;
    // Closes the socket as soon as the handshake completes, before any message.
    bool closeOnConnect = false;

    int connections = 0;
    QString requestPath;
    QList<QByteArray> received; // text frames as UTF-8, in arrival order
    int binaryFramesReceived = 0;
    int clientCloseCode = -1; // the close code the client sent, when it closed
    bool clientDisconnected = false;

Q_SIGNALS:
    void messageReceived();
    void clientGone();

private:
    void play(QWebSocket* socket, qsizetype from);

    QWebSocketServer m_server;
    QList<QPointer<QWebSocket>> m_clients;
};
