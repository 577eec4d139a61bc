// Sends arbitrary bytes, cut at points the input chooses, through a real connection to the
// HTTP gate with QHttpServer behind it, as the server runs them. The gate frames each
// request itself before QHttpServer parses it; if the two ever disagree about where a
// request ends, a client could smuggle a request past the gate's checks. So every request
// the framer completes must get exactly one answer, in order, an echo of its body length
// must equal the length the framer counted, and a request the framer refuses must end the
// connection with the framer's status.
#include "HttpFramer.h"
#include "HttpGate.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHttpServer>
#include <QHttpServerRequest>
#include <QTcpSocket>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

using namespace Qt::Literals::StringLiterals;

namespace {

const HttpLimits limits { 1024, 4096, 512 };

struct Server {
    std::unique_ptr<QCoreApplication> app;
    std::unique_ptr<QHttpServer> http;
    quint16 port = 0;
};

Server& server()
{
    static Server s = [] {
        static int argc = 1;
        static char name[] = "fuzz_http_gate";
        static char* argv[] = { name, nullptr };
        Server made;
        made.app = std::make_unique<QCoreApplication>(argc, argv);
        made.http = std::make_unique<QHttpServer>();
        made.http->route(
            u"/echo"_s, [](const QHttpServerRequest& request) { return QString::number(request.body().size()); });
        made.http->route(u"/refuse"_s, [] { return u"not refused"_s; });
        HttpGateSettings settings;
        settings.limits = limits;
        settings.headerTimeoutMs = 300;
        auto gate = std::make_unique<HttpGate>(settings);
        gate->setCheck([](const HttpRequestHead& head) -> std::optional<HttpRefusal> {
            if (head.path() == "/refuse")
                return HttpRefusal { 403, u"FORBIDDEN"_s, u"refused by its head"_s, {} };
            return std::nullopt;
        });
        if (!gate->listen(QHostAddress::LocalHost, 0))
            __builtin_trap();
        made.port = gate->serverPort();
        made.http->bind(gate.release());
        return made;
    }();
    return s;
}

struct Response {
    int status = 0;
    QByteArray body;
    bool close = false;
};

// Takes whole responses off the front of `bytes`; stops at an incomplete one.
QList<Response> takeResponses(QByteArray& bytes)
{
    QList<Response> responses;
    for (;;) {
        const qsizetype end = bytes.indexOf("\r\n\r\n");
        if (end < 0)
            return responses;
        const QList<QByteArray> lines = bytes.first(end).split('\n');
        Response response;
        const QList<QByteArray> statusLine = lines.first().trimmed().split(' ');
        if (statusLine.size() < 2 || !statusLine.at(0).startsWith("HTTP/1."))
            __builtin_trap(); // the server never answers with anything but HTTP
        response.status = statusLine.at(1).toInt();
        qsizetype length = 0;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines.at(i).trimmed().toLower();
            if (line.startsWith("content-length:"))
                length = line.mid(15).trimmed().toLongLong();
            else if (line.startsWith("connection:") && line.contains("close"))
                response.close = true;
        }
        if (bytes.size() < end + 4 + length)
            return responses;
        response.body = bytes.sliced(end + 4, length);
        bytes.remove(0, end + 4 + length);
        responses.append(response);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    Server& s = server();
    const QByteArrayView input(reinterpret_cast<const char*>(data) + 1, static_cast<qsizetype>(size) - 1);

    // What the framer makes of the input, cut back to the end of its last whole request
    // (or to the refusal): a request left half-sent would only wait for its timeout.
    struct Expected {
        HttpRequestHead head;
        bool complete = false;
        qsizetype end = 0; // where its last byte is in the input
    };
    QList<Expected> expected;
    int refusal = 0;
    qsizetype sendUpTo = 0;
    HttpFramer framer(limits);
    for (qsizetype i = 0; i < input.size() && !framer.stopped(); ++i) {
        for (auto& event : framer.feed(input.sliced(i, 1))) {
            if (event.kind == HttpFramer::Event::Kind::Head) {
                if (event.head.upgradeToWebSocket || event.head.value("expect").size() > 0) {
                    // Not HTTP after this head, or an interim answer to wait for: end here.
                    refusal = -1;
                    break;
                }
                expected.append({ std::move(event.head), false });
            } else if (event.kind == HttpFramer::Event::Kind::Complete) {
                expected.last().complete = true;
                expected.last().end = i + 1;
                sendUpTo = i + 1;
            } else {
                refusal = event.status;
                sendUpTo = i + 1;
            }
        }
        if (refusal != 0)
            break;
    }
    if (refusal == -1)
        refusal = 0;
    // A head the framer accepted, whose body it then refused (a trailer field, say), may
    // already be answered by QHttpServer when the refusal is written.
    const bool refusedInABody = refusal > 0 && !expected.isEmpty() && !expected.last().complete;
    while (!expected.isEmpty() && !expected.last().complete)
        expected.removeLast();
    // A refused head still counts for the gate's check, which answers it instead.
    qsizetype answered = 0;
    bool closes = false;
    for (const Expected& e : expected) {
        ++answered;
        if (!e.head.keepAlive || e.head.path() == "/refuse") {
            closes = true;
            break;
        }
    }
    if (closes) {
        // The connection ends with that request: what a client sends after it is never
        // answered, and the gate may refuse it before the answers are written, so it is
        // not sent.
        refusal = 0;
        sendUpTo = expected.at(answered - 1).end;
    }
    QByteArray toSend = input.first(sendUpTo).toByteArray();
    if (!closes && refusal == 0)
        toSend += "GET /echo HTTP/1.1\r\nConnection: close\r\n\r\n";

    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, s.port);
    if (!socket.waitForConnected(2000))
        __builtin_trap();
    unsigned state = data[0] * 2654435761u + 1;
    for (qsizetype i = 0; i < toSend.size();) {
        state = state * 1103515245u + 12345u;
        const qsizetype length = std::min<qsizetype>(1 + (state >> 16) % 211, toSend.size() - i);
        socket.write(toSend.sliced(i, length));
        socket.flush();
        QCoreApplication::processEvents();
        i += length;
    }

    QByteArray received;
    QList<Response> responses;
    QElapsedTimer clock;
    clock.start();
    const qsizetype wanted = answered + (refusal != 0 || (!closes && refusal == 0) ? 1 : 0);
    while (responses.size() < wanted && clock.elapsed() < 3000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        socket.waitForReadyRead(5);
        received += socket.readAll();
        responses += takeResponses(received);
        if (socket.state() != QAbstractSocket::ConnectedState && socket.bytesAvailable() == 0)
            break;
        if (!responses.isEmpty() && responses.last().close)
            break;
    }
    socket.abort();
    QCoreApplication::processEvents();

    if (qEnvironmentVariableIsSet("FUZZ_GATE_DEBUG")) {
        std::fprintf(stderr, "wanted %d answers (%d requests, refusal %d), got %d:", int(wanted), int(answered),
            refusal, int(responses.size()));
        for (const Response& r : responses)
            std::fprintf(stderr, " %d[%s]", r.status, r.body.left(40).constData());
        std::fprintf(stderr, "\nleft over: %s\n", received.left(200).constData());
    }
    // One answer per whole request, then the closing request. A refusal is written as soon
    // as the gate reads the bad bytes, so it may come instead of the answers to requests
    // that arrived with them (the client learns the connection is over either way); it is
    // the one answer that closes the connection. QHttpServer may also close a connection on
    // bytes it cannot parse before the gate has framed them, without an answer, after the
    // answers to the whole requests before them: the connection is over, which is all a
    // client can ask.
    if (refusal == 0 ? responses.size() != wanted : responses.size() > wanted + (refusedInABody ? 1 : 0))
        __builtin_trap();
    const bool refused = refusal != 0 && !responses.isEmpty() && responses.last().close;
    const qsizetype answeredBeforeRefusal = std::min(refused ? responses.size() - 1 : responses.size(), answered);
    for (qsizetype i = 0; i < answeredBeforeRefusal; ++i) {
        const HttpRequestHead& head = expected.at(i).head;
        const Response& response = responses.at(i);
        if (head.path() == "/refuse") {
            if (response.status != 403)
                __builtin_trap();
        } else if (head.path() == "/echo" && head.method == "GET" && response.status == 200 && !head.chunked
            && response.body != QByteArray::number(head.contentLength)) {
            __builtin_trap(); // QHttpServer read another body than the gate framed
        }
    }
    // QHttpServer gives up on a request line it cannot parse as soon as it reads it, which
    // can be before the gate has seen the end of the head; the gate then answers 408 when
    // the head's time is up.
    if (refused && responses.last().status != refusal && responses.last().status != 408)
        __builtin_trap();
    return 0;
}
