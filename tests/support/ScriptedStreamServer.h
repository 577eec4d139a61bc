#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpSocket>
#include <QWebSocket>
#include <QWebSocketServer>

// A real WebSocket server on loopback that plays a script to each client once the
// client's first message (its authentication) has arrived, and records what it got.
class ScriptedStreamServer : public QObject
{
    Q_OBJECT
public:
    struct Step {
        enum Kind { Text, Binary, Close, Wait, Abort };
        Kind kind;
        QByteArray data;
        int closeCode = 1000;
    };
    static Step text(const QByteArray& json) { return { Step::Text, json }; }
    static Step binary(const QByteArray& json) { return { Step::Binary, json }; }
    static Step close(int code = 1000) { return { Step::Close, {}, code }; }
    // Stop the script here until the client sends {"type":"stop"}.
    static Step waitForStop() { return { Step::Wait, {} }; }
    // Drops the connection without a closing handshake, as a backend that dies does
    // (0.2 s later, so what was sent before it arrives).
    static Step abort() { return { Step::Abort, {} }; }

    explicit ScriptedStreamServer(QObject* parent = nullptr);

    quint16 port() const { return m_server.serverPort(); }
    QString apiBase() const;
    // Takes a connection accepted elsewhere (whose handshake request has not been read).
    void adopt(QTcpSocket* socket);

    // Played to every new client after its first message.
    QList<Step> script;
    // When not empty, the n-th client (from 0) gets the n-th of these instead, the
    // last one every client after it.
    QList<QList<Step>> scriptsByConnection;
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
