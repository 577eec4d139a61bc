#include "HttpFramer.h"

#include <algorithm>

namespace {

constexpr qsizetype maxChunkLineBytes = 1024;

bool isToken(QByteArrayView name)
{
    if (name.isEmpty())
        return false;
    for (char c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 32 || u >= 127 || c == ':' || c == '(' || c == ')' || c == ',' || c == ';' || c == '"' || c == '/'
            || c == '[' || c == ']' || c == '?' || c == '=' || c == '{' || c == '}' || c == '<' || c == '>' || c == '@'
            || c == '\\')
            return false;
    }
    return true;
}

bool hasToken(QByteArrayView list, QByteArrayView token)
{
    for (QByteArrayView part : QByteArray(list.toByteArray()).split(',')) {
        if (part.trimmed().compare(token, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

// A chunk-size line: hex digits, then optional ";extensions". -1 when malformed.
qint64 chunkSize(QByteArrayView line)
{
    const qsizetype semicolon = line.indexOf(';');
    const QByteArrayView digits = (semicolon < 0 ? line : line.first(semicolon)).trimmed();
    if (digits.isEmpty() || digits.size() > 15)
        return -1;
    qint64 size = 0;
    for (char c : digits) {
        int v = -1;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        if (v < 0)
            return -1;
        size = size * 16 + v;
    }
    return size;
}

// A chunk framing line without its CR LF: no control character but tab.
bool isChunkLine(QByteArrayView line)
{
    return std::none_of(line.begin(), line.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return (u < 0x20 && u != '\t') || u == 0x7f;
    });
}

// Visible ASCII only: Qt's parser drops a connection on anything else in a target, and
// then nobody would answer or close it.
bool isTarget(QByteArrayView target)
{
    if (target.isEmpty())
        return false;
    for (char c : target) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 32 || u >= 127)
            return false;
    }
    return true;
}

// Field values may hold tabs and bytes from 0x80 up, but no other control characters.
bool isFieldValue(QByteArrayView value)
{
    for (char c : value) {
        const auto u = static_cast<unsigned char>(c);
        if ((u < 32 && c != '\t') || u == 127)
            return false;
    }
    return true;
}

QByteArrayView withoutCr(QByteArrayView line)
{
    return line.endsWith('\r') ? line.chopped(1) : line;
}

} // namespace

QByteArray HttpRequestHead::path() const
{
    const qsizetype query = target.indexOf('?');
    return query < 0 ? target : target.left(query);
}

QByteArray HttpRequestHead::value(QByteArrayView name) const
{
    for (const auto& [key, value] : headers) {
        if (key == name)
            return value;
    }
    return {};
}

bool HttpRequestHead::has(QByteArrayView name) const
{
    for (const auto& header : headers) {
        if (header.first == name)
            return true;
    }
    return false;
}

HttpFramer::HttpFramer(const HttpLimits& limits)
    : m_limits(limits)
{ }

bool HttpFramer::inRequest() const
{
    return m_state != State::Stopped && (m_state != State::Head || !m_head.isEmpty());
}

bool HttpFramer::inBody() const
{
    return m_state != State::Head && m_state != State::Stopped;
}

HttpRequestHead HttpFramer::parseHead(QByteArrayView head, const HttpLimits& limits, int* status)
{
    *status = 400;
    HttpRequestHead result;
    result.headBytes = head.size();
    QList<QByteArrayView> lines;
    qsizetype start = 0;
    for (qsizetype i = 0; i < head.size(); ++i) {
        if (head.at(i) == '\n') {
            lines.append(withoutCr(head.sliced(start, i - start)));
            start = i + 1;
        }
    }
    // Empty lines before the request line are allowed and skipped.
    while (!lines.isEmpty() && lines.constFirst().isEmpty())
        lines.removeFirst();
    if (lines.isEmpty())
        return result;
    const QList<QByteArray> requestLine = lines.constFirst().toByteArray().split(' ');
    if (requestLine.size() != 3 || !isToken(requestLine.at(0)) || !isTarget(requestLine.at(1))
        || (requestLine.at(2) != "HTTP/1.1" && requestLine.at(2) != "HTTP/1.0"))
        return result;
    result.method = requestLine.at(0);
    result.target = requestLine.at(1);
    result.version = requestLine.at(2);

    bool sawLength = false;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArrayView line = lines.at(i);
        if (line.isEmpty())
            break; // the end of the head
        const qsizetype colon = line.indexOf(':');
        // Folded continuation lines and names with spaces are how requests get smuggled
        // past one parser and into another; neither is needed by anything that talks to us.
        if (colon <= 0 || !isToken(line.first(colon)) || !isFieldValue(line.sliced(colon + 1)))
            return result;
        const QByteArray name = line.first(colon).toByteArray().toLower();
        const QByteArray value = line.sliced(colon + 1).trimmed().toByteArray();
        if (name == "content-length") {
            bool ok = value.size() <= 18 && !value.isEmpty();
            for (char c : value)
                ok = ok && c >= '0' && c <= '9';
            const qint64 length = ok ? value.toLongLong(&ok) : -1;
            if (!ok || (sawLength && length != result.contentLength))
                return result;
            sawLength = true;
            result.contentLength = length;
        } else if (name == "transfer-encoding") {
            if (value.compare("chunked", Qt::CaseInsensitive) != 0 || result.chunked) {
                *status = 501;
                return result;
            }
            result.chunked = true;
        }
        result.headers.append({ name, value });
    }
    if (result.chunked && sawLength)
        return result;
    if (result.contentLength > limits.maxBodyBytes) {
        *status = 413;
        return result;
    }
    const QByteArray connection = result.value("connection");
    result.keepAlive
        = result.version == "HTTP/1.1" ? !hasToken(connection, "close") : hasToken(connection, "keep-alive");
    result.upgradeToWebSocket = result.method == "GET" && hasToken(connection, "upgrade")
        && result.value("upgrade").compare("websocket", Qt::CaseInsensitive) == 0;
    // QHttpServer's parser reads no more HTTP after a request that asks for any upgrade
    // (an Upgrade field with "upgrade" in Connection, whatever the method or protocol, or
    // the method CONNECT). A WebSocket GET is the only upgrade this server takes; any other
    // is refused, so the gate and QHttpServer never disagree about where HTTP ends.
    // Anything that looks like one counts: parsers differ on odd bytes around the token.
    const bool asksForUpgrade
        = connection.toLower().contains("upgrade") || result.has("upgrade") || result.method == "CONNECT";
    if (asksForUpgrade && !result.upgradeToWebSocket)
        return result;
    *status = 0;
    return result;
}

std::vector<HttpFramer::Event> HttpFramer::feed(QByteArrayView bytes)
{
    std::vector<Event> events;
    auto fail = [this, &events](int status) {
        m_state = State::Stopped;
        m_head.clear();
        m_line.clear();
        events.push_back(Event { Event::Kind::Error, {}, status });
        return events;
    };
    auto complete = [this, &events] {
        m_state = State::Head;
        m_head.clear();
        m_lineStart = 0;
        m_sawRequestLine = false;
        events.push_back(Event { Event::Kind::Complete, {}, 0 });
    };

    qsizetype i = 0;
    while (i < bytes.size()) {
        switch (m_state) {
        case State::Stopped:
            return events;
        case State::Head: {
            const char c = bytes.at(i++);
            m_head.append(c);
            if (m_head.size() > m_limits.maxHeadBytes)
                return fail(431);
            if (c != '\n')
                break;
            const bool empty
                = withoutCr(QByteArrayView(m_head).sliced(m_lineStart, m_head.size() - m_lineStart - 1)).isEmpty();
            m_lineStart = m_head.size();
            if (!empty) {
                m_sawRequestLine = true;
                break;
            }
            if (!m_sawRequestLine)
                break; // blank lines before a request are tolerated
            int status = 0;
            HttpRequestHead head = parseHead(m_head, m_limits, &status);
            if (status != 0)
                return fail(status);
            const bool upgrade = head.upgradeToWebSocket;
            const bool chunked = head.chunked;
            m_remaining = head.contentLength;
            m_bodyBytes = 0;
            m_framingBytes = 0;
            m_head.clear();
            m_lineStart = 0;
            events.push_back(Event { Event::Kind::Head, std::move(head), 0 });
            if (upgrade) {
                // From here on the bytes are WebSocket frames.
                m_state = State::Stopped;
                return events;
            }
            if (chunked) {
                m_state = State::ChunkSize;
                m_line.clear();
            } else if (m_remaining > 0) {
                m_state = State::Body;
            } else {
                complete();
            }
            break;
        }
        case State::Body: {
            const qint64 take = std::min<qint64>(m_remaining, bytes.size() - i);
            i += take;
            m_remaining -= take;
            if (m_remaining == 0)
                complete();
            break;
        }
        case State::ChunkSize:
        case State::Trailer:
        case State::ChunkDataEnd: {
            const char c = bytes.at(i++);
            if (++m_framingBytes > m_limits.maxChunkFramingBytes)
                return fail(413);
            if (c != '\n') {
                m_line.append(c);
                if (m_line.size() > maxChunkLineBytes)
                    return fail(400);
                break;
            }
            // Qt's parser reads a bare line feed, or any other control character, as part of
            // a chunk extension and looks for the CR LF after it: accepting one here would
            // make the two disagree about where the chunk, and so the request, ends.
            if (!m_line.endsWith('\r') || !isChunkLine(QByteArrayView(m_line).chopped(1)))
                return fail(400);
            const QByteArrayView line = withoutCr(m_line);
            if (m_state == State::ChunkDataEnd) {
                if (!line.isEmpty())
                    return fail(400);
                m_state = State::ChunkSize;
            } else if (m_state == State::ChunkSize) {
                const qint64 size = chunkSize(line);
                if (size < 0)
                    return fail(400);
                if (size == 0) {
                    m_state = State::Trailer;
                } else {
                    m_bodyBytes += size;
                    if (m_bodyBytes > m_limits.maxBodyBytes)
                        return fail(413);
                    m_remaining = size;
                    m_state = State::ChunkData;
                }
            } else if (line.isEmpty()) {
                m_line.clear();
                complete();
                break;
            } else {
                // A trailer field. Nothing that talks to us sends one, and QHttpServer stops
                // answering a connection after it: the next request would wait for ever.
                return fail(400);
            }
            m_line.clear();
            break;
        }
        case State::ChunkData: {
            const qint64 take = std::min<qint64>(m_remaining, bytes.size() - i);
            i += take;
            m_remaining -= take;
            if (m_remaining == 0)
                m_state = State::ChunkDataEnd;
            break;
        }
        }
    }
    return events;
}
