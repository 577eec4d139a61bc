// HttpFramer on its own: where requests start and end on a connection, and which byte
// sequences it refuses, whichever way the bytes are split into reads.
#include "HttpFramer.h"

#include <QTest>

namespace {

using Kind = HttpFramer::Event::Kind;

// Events in a compact form: "H" head, "C" complete, "E413" error.
QByteArray trace(const std::vector<HttpFramer::Event>& events)
{
    QByteArray out;
    for (const auto& event : events) {
        switch (event.kind) {
        case Kind::Head:
            out += 'H';
            break;
        case Kind::Complete:
            out += 'C';
            break;
        case Kind::Error:
            out += 'E' + QByteArray::number(event.status);
            break;
        }
    }
    return out;
}

QByteArray feedWhole(const QByteArray& bytes, const HttpLimits& limits = {})
{
    HttpFramer framer(limits);
    return trace(framer.feed(bytes));
}

QByteArray feedByteByByte(const QByteArray& bytes, const HttpLimits& limits = {})
{
    HttpFramer framer(limits);
    QByteArray out;
    for (char c : bytes)
        out += trace(framer.feed(QByteArrayView(&c, 1)));
    return out;
}

} // namespace

class ServerFramer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void framing_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("get") << QByteArray("GET /health HTTP/1.1\r\nHost: a\r\n\r\n") << QByteArray("HC");
        QTest::newRow("bare line feeds") << QByteArray("GET / HTTP/1.1\nHost: a\n\n") << QByteArray("HC");
        QTest::newRow("two pipelined with a body") << QByteArray("POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello"
                                                                 "GET /y HTTP/1.1\r\n\r\n")
                                                   << QByteArray("HCHC");
        QTest::newRow("half a head") << QByteArray("GET / HTTP/1.1\r\nHost:") << QByteArray("");
        QTest::newRow("chunked with extension") << QByteArray("POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
                                                              "5;ext=1\r\nhello\r\n0\r\n\r\nGET / HTTP/1.1\r\n\r\n")
                                                << QByteArray("HCHC");
        // QHttpServer answers nothing more on a connection once a trailer field has passed.
        QTest::newRow("chunked with trailer") << QByteArray("POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
                                                            "5\r\nhello\r\n0\r\nX-Sum: 1\r\n\r\nGET / HTTP/1.1\r\n\r\n")
                                              << QByteArray("HE400");
        QTest::newRow("upgrade stops") << QByteArray(
            "GET /ws HTTP/1.1\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\n"
            "\x81\x85 frame bytes") << QByteArray("H");
        QTest::newRow("upgrade with another method") << QByteArray(
            "POST /ws/transcribe HTTP/1.1\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n\r\nGET / HTTP/1.1\r\n\r\n")
                                                     << QByteArray("E400");
        QTest::newRow("upgrade to another protocol") << QByteArray(
            "GET / HTTP/1.1\r\nConnection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\n\r\nGET / HTTP/1.1\r\n\r\n")
                                                     << QByteArray("E400");
        QTest::newRow("odd bytes after the upgrade token")
            << QByteArray("GET /ws HTTP/1.1\r\nConnection: Upgrade\xff\xff\r\nUpgrade: websocket\r\n\r\n")
            << QByteArray("E400");
        QTest::newRow("connect") << QByteArray("CONNECT a:443 HTTP/1.1\r\nHost: a:443\r\n\r\n") << QByteArray("E400");
        QTest::newRow("length too large")
            << QByteArray("POST / HTTP/1.1\r\nContent-Length: 1048577\r\n\r\n") << QByteArray("E413");
        QTest::newRow("length at the limit") << QByteArray("POST / HTTP/1.1\r\nContent-Length: 1048576\r\n\r\n")
                + QByteArray(1048576, 'a') << QByteArray("HC");
        QTest::newRow("chunks beyond the limit")
            << QByteArray("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n80000\r\n") + QByteArray(0x80000, 'a')
                + "\r\n80001\r\n"
            << QByteArray("HE413");
        QTest::newRow("negative length") << QByteArray("POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n")
                                         << QByteArray("E400");
        QTest::newRow("length with chunked")
            << QByteArray("POST / HTTP/1.1\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n")
            << QByteArray("E400");
        QTest::newRow("unknown version") << QByteArray("GET / HTTP/2.0\r\n\r\n") << QByteArray("E400");
        QTest::newRow("space before colon") << QByteArray("GET / HTTP/1.1\r\nHost : a\r\n\r\n") << QByteArray("E400");
        QTest::newRow("control character in the target")
            << QByteArray("GET /he\x01lth HTTP/1.1\r\n\r\n") << QByteArray("E400");
        QTest::newRow("control character in a value")
            << QByteArray("GET / HTTP/1.1\r\nX: a\x7f\r\n\r\n") << QByteArray("E400");
        // Qt's parser would read these as part of a chunk extension, and the chunk's data
        // (here the request's last chunk) would start later than the framer thought.
        QTest::newRow("bare line feed after a chunk size")
            << QByteArray("POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
                          "6;ext=1\n world\r\n00\r\n\r\nGET / HTTP/1.1\r\n\r\n")
            << QByteArray("HE400");
        QTest::newRow("control character in a chunk extension")
            << QByteArray("POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n6;ext=1\x0c\r\n world\r\n0\r\n\r\n")
            << QByteArray("HE400");
        QTest::newRow("bare line feed after chunk data")
            << QByteArray("POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\n0\r\n\r\n")
            << QByteArray("HE400");
        QTest::newRow("bare line feed ending the chunks")
            << QByteArray("POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\n")
            << QByteArray("HE400");
        QTest::newRow("missing chunk end")
            << QByteArray("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nab\r\n") << QByteArray("HE400");
    }

    void framing()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QByteArray, expected);
        QCOMPARE(feedWhole(bytes), expected);
        QCOMPARE(feedByteByByte(bytes), expected);
    }

    void headLimitIsExact()
    {
        HttpLimits limits;
        limits.maxHeadBytes = 64;
        const QByteArray start = "GET / HTTP/1.1\r\nX: ";
        const QByteArray exact = start + QByteArray(64 - start.size() - 4, 'a') + "\r\n\r\n";
        QCOMPARE(exact.size(), 64);
        QCOMPARE(feedWhole(exact, limits), QByteArray("HC"));
        QCOMPARE(feedWhole(start + QByteArray(64 - start.size() - 3, 'a') + "\r\n\r\n", limits), QByteArray("E431"));
        // A head that never ends is refused as soon as it passes the limit.
        HttpFramer framer(limits);
        QCOMPARE(trace(framer.feed(start + QByteArray(45, 'a'))), QByteArray());
        QCOMPARE(trace(framer.feed("a")), QByteArray("E431"));
        QVERIFY(framer.stopped());
        QCOMPARE(trace(framer.feed("\r\n\r\n")), QByteArray());
    }

    void headFields()
    {
        int status = -1;
        const HttpRequestHead head = HttpFramer::parseHead(
            "GET /ws/transcribe?x=1 HTTP/1.0\r\nConnection: keep-alive, Upgrade\r\nUPGRADE: WebSocket\r\n"
            "Origin:  https://evil.example \r\n\r\n",
            {}, &status);
        QCOMPARE(status, 0);
        QCOMPARE(head.path(), QByteArray("/ws/transcribe"));
        QVERIFY(head.keepAlive);
        QVERIFY(head.upgradeToWebSocket);
        QCOMPARE(head.value("origin"), QByteArray("https://evil.example"));
        const HttpRequestHead closing
            = HttpFramer::parseHead("GET / HTTP/1.1\r\nConnection: close\r\n\r\n", {}, &status);
        QCOMPARE(status, 0);
        QVERIFY(!closing.keepAlive);
        QVERIFY(!HttpFramer::parseHead("GET / HTTP/1.0\r\n\r\n", {}, &status).keepAlive);
    }
};

QTEST_GUILESS_MAIN(ServerFramer)
#include "tst_server_framer.moc"
