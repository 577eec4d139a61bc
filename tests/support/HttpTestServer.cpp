#include "HttpTestServer.h"

#include <QTimer>

#include <QHostAddress>

using namespace Qt::StringLiterals;

HttpTestServer::HttpTestServer(Handler handler, QObject* parent)
    : QObject(parent)
    , m_handler(std::move(handler))
{
    if (!m_server.listen(QHostAddress::LocalHost, 0))
        qFatal("test HTTP server cannot listen on loopback");
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            socket->setParent(this);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

QString HttpTestServer::baseUrl() const
{
    return u"http://127.0.0.1:"_s + QString::number(port());
}

void HttpTestServer::onReadyRead(QTcpSocket* socket)
{
    QByteArray buffer = socket->property("buffer").toByteArray() + socket->readAll();
    const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0) {
        socket->setProperty("buffer", buffer);
        return;
    }
    HttpTestRequest request;
    const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
    const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
    request.method = first.value(0);
    request.path = first.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            request.headers.insert(lines[i].left(colon).trimmed().toLower(), lines[i].mid(colon + 1).trimmed());
    }
    const qsizetype length = request.headers.value("content-length", "0").toLongLong();
    if (buffer.size() < headerEnd + 4 + length) {
        socket->setProperty("buffer", buffer);
        return;
    }
    request.body = buffer.mid(headerEnd + 4, length);
    socket->setProperty("buffer", QByteArray());
    requests.append(request);

    const Pending pending { socket, m_handler(request) };
    if (m_holdUntil > 0) {
        m_held.append(pending);
        if (requests.size() < m_holdUntil)
            return;
        const QList<Pending> held = std::exchange(m_held, {});
        m_holdUntil = 0;
        for (const Pending& p : held)
            send(p);
        return;
    }
    send(pending);
}

void HttpTestServer::send(const Pending& pending)
{
    if (!pending.socket || pending.reply.silent)
        return;
    if (pending.reply.delayMs > 0) {
        Pending later = pending;
        later.reply.delayMs = 0;
        QTimer::singleShot(pending.reply.delayMs, this, [this, later] { send(later); });
        return;
    }
    if (pending.reply.drop) {
        pending.socket->abort();
        return;
    }
    QByteArray response = "HTTP/1.1 " + QByteArray::number(pending.reply.status) + " Test\r\n";
    response += "Content-Type: " + pending.reply.contentType + "\r\n";
    response += "Content-Length: " + QByteArray::number(pending.reply.body.size()) + "\r\n";
    response += "Connection: close\r\n\r\n";
    response += pending.reply.body;
    pending.socket->write(response);
    pending.socket->disconnectFromHost();
}
