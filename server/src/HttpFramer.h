#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QPair>

#include <vector>

// What one HTTP/1.x request may be, before anything of it is kept in memory.
struct HttpLimits {
    qsizetype maxHeadBytes = 16 * 1024; // request line and headers
    qsizetype maxBodyBytes = 1024 * 1024; // after chunked decoding
    qsizetype maxChunkFramingBytes = 64 * 1024; // chunk sizes, extensions and trailers
};

struct HttpRequestHead {
    QByteArray method;
    QByteArray target;
    QByteArray version; // "HTTP/1.1"
    QList<QPair<QByteArray, QByteArray>> headers; // names in lower case, values trimmed
    qint64 contentLength = 0;
    bool chunked = false;
    bool keepAlive = true;
    bool upgradeToWebSocket = false;
    qsizetype headBytes = 0;

    QByteArray path() const;
    // The first value of a header (name in lower case), or an empty array.
    QByteArray value(QByteArrayView name) const;
    bool has(QByteArrayView name) const;
};

// Follows the bytes of an HTTP/1.x connection without keeping more than one request
// head: where each request starts and ends, how long its head and body are, and whether
// it breaks a limit. It never buffers a body; chunked bodies are decoded only to be
// counted. Pure, so that every malformed or hostile byte sequence can be tested alone.
class HttpFramer
{
public:
    struct Event {
        enum class Kind {
            Head, // a request head was read and is acceptable as far as framing goes
            Complete, // the request (head and body) has been read in full
            Error, // the connection cannot go on; answer `status` and close
        };
        Kind kind;
        HttpRequestHead head; // with Head
        int status = 0; // with Error: 400, 413, 431 or 501
    };

    explicit HttpFramer(const HttpLimits& limits = {});

    // Consumes `bytes` and reports what they completed, in order. After an Error, or after
    // the head of a WebSocket upgrade (what follows is no longer HTTP), it takes nothing more.
    std::vector<Event> feed(QByteArrayView bytes);

    // True between the first byte of a request and its end.
    bool inRequest() const;
    bool inBody() const;
    bool stopped() const { return m_state == State::Stopped; }

    // Parses a complete head (ending with its empty line); status is 0 or the error to answer.
    static HttpRequestHead parseHead(QByteArrayView head, const HttpLimits& limits, int* status);

private:
    enum class State { Head, Body, ChunkSize, ChunkData, ChunkDataEnd, Trailer, Stopped };

    HttpLimits m_limits;
    State m_state = State::Head;
    QByteArray m_head;
    qsizetype m_lineStart = 0;
    bool m_sawRequestLine = false;
    qint64 m_remaining = 0;
    qint64 m_bodyBytes = 0;
    qint64 m_framingBytes = 0;
    QByteArray m_line; // a chunk-size or trailer line being read
};
