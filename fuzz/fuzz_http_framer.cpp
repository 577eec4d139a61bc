// Feeds a byte stream to the HTTP framer twice, one byte at a time and in chunks cut at
// points the input chooses, as a client (or a proxy in front of us) could deliver it.
// Both must frame the same requests, and every request the framer lets through must be
// one that QHttpServer can only read the same way: exactly the declared body, a clean
// request line, no control characters in a header value.
#include "HttpFramer.h"

#include <cstddef>
#include <cstdint>

namespace {

struct Seen {
    HttpFramer::Event event;
    qsizetype at; // index of the byte that completed the event
};

bool isTokenChar(char c)
{
    static constexpr std::string_view separators = "()<>@,;:\\\"/[]?={} \t";
    return c > 32 && c < 127 && separators.find(c) == std::string_view::npos;
}

bool sameHead(const HttpRequestHead& a, const HttpRequestHead& b)
{
    return a.method == b.method && a.target == b.target && a.version == b.version && a.headers == b.headers
        && a.contentLength == b.contentLength && a.chunked == b.chunked && a.keepAlive == b.keepAlive
        && a.upgradeToWebSocket == b.upgradeToWebSocket && a.headBytes == b.headBytes;
}

void checkHead(const HttpRequestHead& head, const HttpLimits& limits)
{
    if (head.method.isEmpty() || head.target.isEmpty())
        __builtin_trap();
    for (char c : head.method) {
        if (!isTokenChar(c))
            __builtin_trap();
    }
    for (char c : head.target) {
        if (static_cast<unsigned char>(c) <= 32 || c == 127)
            __builtin_trap();
    }
    if (head.version != "HTTP/1.1" && head.version != "HTTP/1.0")
        __builtin_trap();
    if (head.headBytes > limits.maxHeadBytes || head.contentLength < 0 || head.contentLength > limits.maxBodyBytes)
        __builtin_trap();
    if (head.chunked && head.has("content-length"))
        __builtin_trap(); // the classic smuggling pair
    for (const auto& [name, value] : head.headers) {
        if (name.isEmpty() || name != name.toLower())
            __builtin_trap();
        for (char c : name) {
            if (!isTokenChar(c))
                __builtin_trap();
        }
        for (char c : value) {
            if (c == '\r' || c == '\n' || c == '\0')
                __builtin_trap();
        }
    }
}

std::vector<Seen> byteByByte(HttpFramer& framer, QByteArrayView stream)
{
    std::vector<Seen> seen;
    for (qsizetype i = 0; i < stream.size(); ++i) {
        for (auto& event : framer.feed(stream.sliced(i, 1)))
            seen.push_back({ std::move(event), i });
    }
    return seen;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    // The first byte chooses the limits (small ones reach every limit with short inputs),
    // the second how the stream is cut.
    HttpLimits limits;
    if (data[0] & 1)
        limits = HttpLimits { 256, 512, 128 };
    const unsigned cut = data[1];
    const QByteArrayView stream(reinterpret_cast<const char*>(data) + 2, static_cast<qsizetype>(size) - 2);

    HttpFramer single(limits);
    const std::vector<Seen> seen = byteByByte(single, stream);

    HttpFramer chunked(limits);
    std::vector<HttpFramer::Event> events;
    unsigned state = cut * 2654435761u + 1;
    for (qsizetype i = 0; i < stream.size();) {
        state = state * 1103515245u + 12345u;
        const qsizetype length = std::min<qsizetype>(1 + (state >> 16) % 97, stream.size() - i);
        for (auto& event : chunked.feed(stream.sliced(i, length)))
            events.push_back(std::move(event));
        i += length;
    }

    // However the bytes were cut, the same requests.
    if (events.size() != seen.size())
        __builtin_trap();
    for (size_t i = 0; i < events.size(); ++i) {
        const auto& a = events[i];
        const auto& b = seen[i].event;
        if (a.kind != b.kind || a.status != b.status || !sameHead(a.head, b.head))
            __builtin_trap();
    }

    using Kind = HttpFramer::Event::Kind;
    for (size_t i = 0; i < seen.size(); ++i) {
        const Seen& s = seen[i];
        switch (s.event.kind) {
        case Kind::Error:
            if (s.event.status != 400 && s.event.status != 413 && s.event.status != 431 && s.event.status != 501)
                __builtin_trap();
            if (i + 1 != seen.size() || !single.stopped())
                __builtin_trap(); // nothing after an error
            break;
        case Kind::Head: {
            const HttpRequestHead& head = s.event.head;
            checkHead(head, limits);
            if (head.upgradeToWebSocket) {
                if (i + 1 != seen.size() || !single.stopped())
                    __builtin_trap(); // the rest is WebSocket frames, not ours to read
                break;
            }
            if (i + 1 == seen.size())
                break; // the body was still coming when the input ended
            const Seen& next = seen[i + 1];
            if (next.event.kind == Kind::Head)
                __builtin_trap(); // a request's end always comes before the next request
            if (next.event.kind == Kind::Complete && !head.chunked && next.at - s.at != head.contentLength)
                __builtin_trap(); // exactly the declared body, not a byte more or less
            break;
        }
        case Kind::Complete:
            if (i == 0 || seen[i - 1].event.kind != Kind::Head)
                __builtin_trap();
            break;
        }
    }
    return 0;
}
