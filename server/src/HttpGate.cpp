#include "HttpGate.h"

#include "Log.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QTimer>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

// After a refusal the client may still be sending; what arrives is read and dropped for a
// moment so that it can read the answer instead of running into a reset.
constexpr int drainMs = 1000;
constexpr qint64 drainBytes = 8 * 1024 * 1024;
constexpr qint64 drainBufferBytes = 64 * 1024;
constexpr int responseTimeoutMs = 120'000;

Log::Throttle& refusalLog()
{
    static Log::Throttle throttle(20, 10'000);
    return throttle;
}

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 408:
        return "Request Timeout";
    case 413:
        return "Content Too Large";
    case 426:
        return "Upgrade Required";
    case 431:
        return "Request Header Fields Too Large";
    case 501:
        return "Not Implemented";
    default:
        return "Error";
    }
}

HttpRefusal framingRefusal(int status, const HttpLimits& limits)
{
    switch (status) {
    case 413:
        return { 413, u"BODY_TOO_LARGE"_s, u"Request bodies are limited to %1 bytes."_s.arg(limits.maxBodyBytes), {} };
    case 431:
        return { 431, u"HEADERS_TOO_LARGE"_s,
            u"Request lines and headers are limited to %1 bytes."_s.arg(limits.maxHeadBytes), {} };
    case 501:
        return { 501, u"NOT_IMPLEMENTED"_s, u"Only chunked transfer encoding is understood."_s, {} };
    default:
        return { 400, u"BAD_REQUEST"_s, u"The request is not well-formed HTTP/1.1."_s, {} };
    }
}

// Watches one connection's bytes ahead of QHttpServer. It is connected to readyRead before
// QHttpServer is, so it sees every new byte first (peeking, not reading) and can stop the
// connection before QHttpServer buffers anything of a request it should not have.
class GateWatch final : public QObject
{
public:
    GateWatch(QTcpSocket* socket, const HttpGateSettings& settings, const HttpGate::Check& check)
        : QObject(socket)
        , m_socket(socket)
        , m_settings(settings)
        , m_check(check)
        , m_framer(settings.limits)
    {
        m_socket->setReadBufferSize(headBudget());
        connect(m_socket, &QTcpSocket::readyRead, this, &GateWatch::beforeQHttpServer);
        connect(m_socket, &QTcpSocket::bytesWritten, this, &GateWatch::onBytesWritten);

        m_headerTimer.setSingleShot(true);
        m_headerTimer.setInterval(m_settings.headerTimeoutMs);
        // 408 also for a connection that seems never to have asked for anything: bytes that
        // came with the connection itself may have gone to QHttpServer before this watch
        // saw them, and an idle connection may be told 408 before it is closed anyway.
        connect(&m_headerTimer, &QTimer::timeout, this, [this] {
            stop({ 408, u"REQUEST_TIMEOUT"_s,
                u"The request did not arrive within %1 ms."_s.arg(m_settings.headerTimeoutMs), {} });
        });
        m_idleTimer.setSingleShot(true);
        m_idleTimer.setInterval(m_settings.keepAliveTimeoutMs);
        connect(&m_idleTimer, &QTimer::timeout, this, [this] { m_socket->disconnectFromHost(); });
        // A safety net, far beyond the slowest handler (a chat model's 12 s): a request that
        // we saw end but QHttpServer never answered must not hold the connection forever.
        m_responseTimer.setSingleShot(true);
        m_responseTimer.setInterval(responseTimeoutMs);
        connect(&m_responseTimer, &QTimer::timeout, this, [this] {
            // QHttpServer gives up on a request it cannot parse by disconnecting every signal
            // of the socket, its own clean-up included; the socket is ours to delete then.
            m_socket->abort();
            m_socket->deleteLater();
        });
        m_headerTimer.start();
    }

private:
    qint64 headBudget() const { return m_settings.limits.maxHeadBytes + 1; }
    qint64 requestBudget() const
    {
        const HttpLimits& l = m_settings.limits;
        return 2 * l.maxHeadBytes + l.maxBodyBytes + l.maxChunkFramingBytes + 1;
    }

    void beforeQHttpServer()
    {
        // QHttpServer reads everything it is offered in its own readyRead slot; from the
        // second signal on, afterQHttpServer (connected after it) says what it left unread.
        const bool knowsUnread = m_watchingAfter;
        if (!m_watchingAfter) {
            connect(m_socket, &QTcpSocket::readyRead, this, &GateWatch::afterQHttpServer);
            m_watchingAfter = true;
            // A slot connected while the signal is being emitted is not called by that
            // emission: learn what QHttpServer leaves unread of these first bytes (the next
            // pipelined request) before any further bytes arrive, or they would be framed twice.
            QMetaObject::invokeMethod(this, &GateWatch::afterQHttpServer, Qt::QueuedConnection);
        }
        const qint64 available = m_socket->bytesAvailable();
        const qint64 fresh = available - m_unreadSeen;
        m_unreadSeen = knowsUnread ? available : 0;
        if (fresh <= 0)
            return;
        const QByteArray bytes = m_socket->peek(available);
        m_idleTimer.stop();
        if (!m_framer.inRequest())
            m_headerTimer.start();
        std::vector<HttpFramer::Event> events = m_framer.feed(QByteArrayView(bytes).sliced(bytes.size() - fresh));
        for (HttpFramer::Event& event : events) {
            switch (event.kind) {
            case HttpFramer::Event::Kind::Error:
                stop(framingRefusal(event.status, m_settings.limits));
                return;
            case HttpFramer::Event::Kind::Head:
                if (m_check) {
                    if (const std::optional<HttpRefusal> refusal = m_check(event.head)) {
                        stop(*refusal);
                        return;
                    }
                }
                if (event.head.upgradeToWebSocket) {
                    // The WebSocket layer has its own frame limits and timers.
                    m_socket->setReadBufferSize(0);
                    m_socket->disconnect(this);
                    m_headerTimer.stop();
                    m_responseTimer.stop();
                    deleteLater();
                    return;
                }
                if (!event.head.keepAlive)
                    m_closeAfterResponse = true;
                m_socket->setReadBufferSize(requestBudget());
                break;
            case HttpFramer::Event::Kind::Complete:
                ++m_awaitingResponses;
                m_headerTimer.stop();
                m_responseTimer.start();
                m_socket->setReadBufferSize(headBudget());
                break;
            }
        }
        // A body must keep coming: each piece of it restarts the clock.
        if (m_framer.inBody())
            m_headerTimer.start();
    }

    void afterQHttpServer() { m_unreadSeen = m_socket->bytesAvailable(); }

    void onBytesWritten()
    {
        if (m_socket->bytesToWrite() > 0 || m_awaitingResponses == 0)
            return;
        if (--m_awaitingResponses > 0)
            return;
        m_responseTimer.stop();
        if (m_closeAfterResponse) {
            m_socket->disconnectFromHost();
            return;
        }
        if (!m_framer.inRequest())
            m_idleTimer.start();
    }

    void stop(const HttpRefusal& refusal)
    {
        m_headerTimer.stop();
        m_idleTimer.stop();
        m_responseTimer.stop();
        m_socket->disconnect(this);
        HttpGate::refuse(m_socket, refusal);
        deleteLater();
    }

    QTcpSocket* m_socket;
    HttpGateSettings m_settings;
    HttpGate::Check m_check;
    HttpFramer m_framer;
    QTimer m_headerTimer;
    QTimer m_idleTimer;
    QTimer m_responseTimer;
    qint64 m_unreadSeen = 0;
    bool m_watchingAfter = false;
    int m_awaitingResponses = 0;
    bool m_closeAfterResponse = false;
};

} // namespace

HttpGate::HttpGate(HttpGateSettings settings, QObject* parent)
    : QTcpServer(parent)
    , m_settings(settings)
{ }

void HttpGate::incomingConnection(qintptr handle)
{
    auto* socket = new QTcpSocket(this);
    if (!socket->setSocketDescriptor(handle)) {
        Log::line(Log::Kind::Warning, u"could not take a connection: %1"_s.arg(socket->errorString()));
        delete socket;
        ::close(int(handle));
        return;
    }
    // Connected before QHttpServer connects its own slots, which happens once the socket
    // is handed over below.
    new GateWatch(socket, m_settings, m_check);
    addPendingConnection(socket);
}

void HttpGate::refuse(QTcpSocket* socket, const HttpRefusal& refusal)
{
    refusalLog().line(Log::Kind::Warning,
        u"refused a request from %1: %2 %3"_s.arg(socket->peerAddress().toString())
            .arg(refusal.status)
            .arg(refusal.code));
    // Nothing more goes to QHttpServer; what it holds of this request is dropped.
    QObject::disconnect(socket, &QTcpSocket::readyRead, nullptr, nullptr);
    if (socket->isTransactionStarted())
        socket->commitTransaction();
    socket->skip(socket->bytesAvailable());
    socket->setReadBufferSize(drainBufferBytes);

    const QByteArray body = QJsonDocument(
        QJsonObject { { u"error"_s, QJsonObject { { u"code"_s, refusal.code }, { u"message"_s, refusal.message } } } })
                                .toJson(QJsonDocument::Compact);
    QByteArray response = "HTTP/1.1 " + QByteArray::number(refusal.status) + ' ' + reasonPhrase(refusal.status)
        + "\r\nContent-Type: application/json\r\nCache-Control: no-store\r\nConnection: close\r\nContent-Length: "
        + QByteArray::number(body.size()) + "\r\n";
    for (const auto& [name, value] : refusal.headers)
        response += name + ": " + value + "\r\n";
    response += "\r\n" + body;
    socket->write(response);

    auto drained = std::make_shared<qint64>(0);
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket, drained] {
        *drained += socket->skip(socket->bytesAvailable());
        if (*drained > drainBytes)
            socket->abort();
    });
    QTimer::singleShot(drainMs, socket, [socket] { socket->disconnectFromHost(); });
    // QHttpServer deletes its sockets when they disconnect, unless it gave up on this one
    // earlier (see GateWatch); deleting twice later is harmless.
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
}
