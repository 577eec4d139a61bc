#include "ScriptedStreamServer.h"

#include <QHostAddress>
#include <QTimer>

#include <algorithm>

using namespace Qt::StringLiterals;

ScriptedStreamServer::ScriptedStreamServer(QObject* parent)
    : QObject(parent)
    , m_server(u"scripted"_s, QWebSocketServer::NonSecureMode)
{
    if (!m_server.listen(QHostAddress::LocalHost, 0))
        qFatal("scripted stream server cannot listen on loopback");
    connect(&m_server, &QWebSocketServer::newConnection, this, [this] {
        while (QWebSocket* socket = m_server.nextPendingConnection()) {
            socket->setParent(this);
            m_clients.append(socket);
            socket->setProperty("connectionIndex", connections);
            ++connections;
            requestPath = socket->requestUrl().path();
            connect(socket, &QWebSocket::disconnected, this, [this, socket] {
                clientDisconnected = true;
                clientCloseCode = socket->closeCode();
                socket->deleteLater();
                Q_EMIT clientGone();
            });
            connect(socket, &QWebSocket::binaryMessageReceived, this, [this] { ++binaryFramesReceived; });
            connect(socket, &QWebSocket::textMessageReceived, this, [this, socket](const QString& message) {
                received.append(message.toUtf8());
                Q_EMIT messageReceived();
                const int messages = socket->property("messages").toInt() + 1;
                socket->setProperty("messages", messages);
                if (messages == 1)
                    play(socket, 0);
                else if (message.toUtf8() == R"({"type":"stop"})" && socket->property("waitingAt").isValid())
                    play(socket, socket->property("waitingAt").toLongLong());
            });
            if (closeOnConnect)
                socket->close();
        }
    });
}

QString ScriptedStreamServer::apiBase() const
{
    return u"http://127.0.0.1:"_s + QString::number(port());
}

void ScriptedStreamServer::adopt(QTcpSocket* socket)
{
    m_server.handleConnection(socket);
}

void ScriptedStreamServer::play(QWebSocket* socket, qsizetype from)
{
    socket->setProperty("waitingAt", QVariant());
    const qsizetype index = socket->property("connectionIndex").toLongLong();
    const QList<Step> steps = scriptsByConnection.isEmpty()
        ? script
        : scriptsByConnection.at(std::min(index, scriptsByConnection.size() - 1));
    for (qsizetype i = from; i < steps.size(); ++i) {
        const Step& step = steps.at(i);
        switch (step.kind) {
        case Step::Text:
            socket->sendTextMessage(QString::fromUtf8(step.data));
            break;
        case Step::Binary:
            socket->sendBinaryMessage(step.data);
            break;
        case Step::Close:
            socket->close(static_cast<QWebSocketProtocol::CloseCode>(step.closeCode));
            return;
        case Step::Wait:
            socket->setProperty("waitingAt", i + 1);
            return;
        case Step::Abort:
            // What was sent reaches the client first; then the connection drops without a
            // closing handshake (a reset right away could discard it unread).
            socket->flush();
            QTimer::singleShot(200, socket, [socket] { socket->abort(); });
            return;
        }
    }
}
