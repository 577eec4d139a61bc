#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>

#include <functional>

struct HttpTestRequest {
    QByteArray method;
    QByteArray path;
    QMap<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;
};

struct HttpTestReply {
    int status = 200;
    QByteArray body;
    QByteArray contentType = "application/json";
    bool drop = false; // close the connection without answering
    bool silent = false; // keep the connection open and never answer
    int delayMs = 0; // answer this long after the request arrived (a slow backend)
};

// A small real HTTP/1.1 server on loopback, answering each request with whatever the
// test's handler says, recording every request it received.
class HttpTestServer : public QObject
{
    Q_OBJECT
public:
    using Handler = std::function<HttpTestReply(const HttpTestRequest&)>;

    explicit HttpTestServer(Handler handler, QObject* parent = nullptr);

    quint16 port() const { return m_server.serverPort(); }
    QString baseUrl() const;
    // Hold every answer until this many requests have arrived, then send them all:
    // requests that overlap in time, whatever order the event loop runs them in.
    void holdAnswersUntil(int requestCount) { m_holdUntil = requestCount; }

    QList<HttpTestRequest> requests;

private:
    struct Pending {
        QPointer<QTcpSocket> socket;
        HttpTestReply reply;
    };
    void onReadyRead(QTcpSocket* socket);
    void send(const Pending& pending);

    QTcpServer m_server;
    Handler m_handler;
    int m_holdUntil = 0;
    QList<Pending> m_held;
};
