#include "ScriptedStreamServer.h"

#include <QHostAddress>

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
                if (received.size() == 1)
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

void ScriptedStreamServer::play(QWebSocket* socket, qsizetype from)
{
    socket->setProperty("waitingAt", QVariant());
    for (qsizetype i = from; i < script.size(); ++i) {
        const Step& step = script.at(i);
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
        }
    }
}
