#pragma once

#include "HttpFramer.h"

#include <QTcpServer>

#include <functional>
#include <optional>

struct HttpGateSettings {
    HttpLimits limits;
    int headerTimeoutMs = 10'000; // from a request's first byte to the end of its head
    int keepAliveTimeoutMs = 30'000; // an open connection with nothing to do
};

// An answer the gate gives itself instead of passing the request on.
struct HttpRefusal {
    int status = 400;
    QString code;
    QString message;
    QList<QPair<QByteArray, QByteArray>> headers;
};

// The listening socket in front of a QHttpServer (bound with QAbstractHttpServer::bind).
// QHttpServer reads a request whole, body included, before any handler can look at it;
// the gate watches each connection's bytes first, as they arrive, and refuses what is
// too large or malformed (431, 413, 400) before it is buffered, closes connections that
// send too slowly or sit idle, closes after a response when the client asked for that,
// and lets the owner refuse a request by its head (check). WebSocket upgrades it accepts
// pass through untouched.
class HttpGate final : public QTcpServer
{
    Q_OBJECT
public:
    using Check = std::function<std::optional<HttpRefusal>(const HttpRequestHead&)>;

    explicit HttpGate(HttpGateSettings settings, QObject* parent = nullptr);

    void setCheck(Check check) { m_check = std::move(check); }

    // Answers `refusal` on `socket` and closes it after a short drain of what the client
    // is still sending (so that it reads the answer rather than a reset).
    static void refuse(class QTcpSocket* socket, const HttpRefusal& refusal);

protected:
    void incomingConnection(qintptr handle) override;

private:
    HttpGateSettings m_settings;
    Check m_check;
};
