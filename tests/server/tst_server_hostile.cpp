// Clients that mean harm, on loopback: texts built to make the rule engine slow or
// greedy, bodies and headers far beyond any real request, connections that never finish
// or never leave, and strangers taking the stream slots. Each case must be answered or
// cut off while the server keeps serving everybody else at its usual memory.
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTest>

#include <algorithm>
#include <memory>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

// A field of /proc/<pid>/status in KiB (VmRSS, VmHWM).
qint64 statusKiB(qint64 pid, const QByteArray& field)
{
    QFile file(u"/proc/%1/status"_s.arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').constFirst().toLongLong();
    }
    return -1;
}

QByteArray jsonBody(const QString& text, const QStringList& dictionary, const QString& tone = {})
{
    QJsonObject body { { u"text"_s, text }, { u"dictionary"_s, QJsonArray::fromStringList(dictionary) } };
    if (!tone.isEmpty())
        body.insert(u"tone"_s, tone);
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

} // namespace

class ServerHostile : public QObject
{
    Q_OBJECT

    QNetworkReply* postText(QNetworkAccessManager& network, const QString& path, const QByteArray& body)
    {
        QNetworkRequest request(m_server.apiUrl(path));
        request.setRawHeader("Content-Type", "application/json");
        request.setRawHeader("Authorization", "Bearer " + m_access.toUtf8());
        return network.post(request, body);
    }

    ServerProcess m_server { { u"--idle-timeout"_s, u"2"_s } };
    Http m_http;
    QString m_access;

private Q_SLOTS:
    void initTestCase()
    {
        QString error;
        QVERIFY2(m_server.start(&error), qPrintable(error));
        m_access = signInThroughSite(m_http, m_server, &error).access;
        QVERIFY2(!m_access.isEmpty(), qPrintable(error));
    }

    // Inputs that took seconds or gigabytes when every removed word copied the
    // punctuation before it, the dictionary was re-sorted per term and a long trail was
    // compared once per character; they are scaled to the text limit here.
    void heavyTextsAreAnsweredInBoundedMemory_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("expectedStart");

        QTest::newRow("long trail against a punctuated term")
            << u"/cleanup"_s << jsonBody(u"a"_s + QString(50'000, u'.'), { u"c++"_s }) << u"A....."_s;
        QTest::newRow("fillers each behind a bracket")
            << u"/cleanup"_s << jsonBody(u"(um "_s.repeated(16'000) + u"x"_s, {}) << u"(((((("_s;
        QStringList terms;
        for (int i = 0; i < 2000; ++i)
            terms << u"quillet term%1"_s.arg(i);
        QTest::newRow("dictionary terms sharing their first word")
            << u"/cleanup"_s << jsonBody(u"Quillet Term1999 "_s.repeated(3'800), terms)
            << u"quillet term1999 quillet"_s;
        QTest::newRow("firm rewrite of hedges behind brackets")
            << u"/rewrite"_s << jsonBody(u"(maybe "_s.repeated(9'000) + u"go"_s, {}, u"firm"_s) << u"(((((("_s;
    }

    void heavyTextsAreAnsweredInBoundedMemory()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, body);
        QFETCH(QString, expectedStart);
        const qint64 pid = m_server.processId();
        const qint64 hwmBefore = statusKiB(pid, "VmHWM");
        QVERIFY(hwmBefore > 0);

        // Six at once, then /health on its own connection: health must not queue
        // behind them, so it is answered while heavy work is still outstanding.
        QNetworkAccessManager heavyNetwork;
        std::vector<QNetworkReply*> heavy;
        int uploaded = 0;
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < 6; ++i) {
            heavy.push_back(postText(heavyNetwork, path, body));
            connect(heavy.back(), &QNetworkReply::uploadProgress, this, [&uploaded](qint64 sent, qint64 total) {
                if (total > 0 && sent == total)
                    ++uploaded;
            });
        }
        QTRY_COMPARE_WITH_TIMEOUT(uploaded, 6, 10'000);
        QNetworkAccessManager healthNetwork;
        QNetworkReply* health = healthNetwork.get(QNetworkRequest(m_server.apiUrl(u"/health"_s)));
        QTRY_VERIFY_WITH_TIMEOUT(health->isFinished(), 30'000);
        QCOMPARE(health->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        const qint64 healthAt = clock.elapsed();
        int stillRunning = 0;
        for (QNetworkReply* reply : heavy)
            stillRunning += reply->isFinished() ? 0 : 1;

        for (QNetworkReply* reply : heavy) {
            QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), 30'000);
            QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
            const QString text = QJsonDocument::fromJson(reply->readAll()).object().value(u"text"_s).toString();
            QVERIFY2(text.startsWith(expectedStart), qPrintable(text.left(40)));
            reply->deleteLater();
        }
        health->deleteLater();
        qInfo("health answered after %lld ms with %d of 6 heavy requests outstanding; all done after %lld ms", healthAt,
            stillRunning, clock.elapsed());

        const qint64 hwmAfter = statusKiB(pid, "VmHWM");
        qInfo("peak resident memory %lld MiB before, %lld MiB after", hwmBefore / 1024, hwmAfter / 1024);
        QVERIFY2(hwmAfter - hwmBefore < 100 * 1024,
            qPrintable(u"peak memory grew by %1 MiB"_s.arg((hwmAfter - hwmBefore) / 1024)));
    }

    // Text work happens beside the network thread: with a dozen of the heaviest
    // requests queued, /health is answered while some of them are still being worked on.
    void healthIsAnsweredWhileTextsAreWorkedOn()
    {
        QStringList terms;
        for (int i = 0; i < 2000; ++i)
            terms << u"quillet term%1"_s.arg(i);
        const QByteArray body = jsonBody(u"Quillet Term1999 "_s.repeated(3'800), terms);
        QNetworkAccessManager first;
        QNetworkAccessManager second;
        std::vector<QNetworkReply*> heavy;
        int uploaded = 0;
        for (int i = 0; i < 12; ++i) {
            heavy.push_back(postText(i % 2 ? first : second, u"/cleanup"_s, body));
            connect(heavy.back(), &QNetworkReply::uploadProgress, this, [&uploaded](qint64 sent, qint64 total) {
                if (total > 0 && sent == total)
                    ++uploaded;
            });
        }
        QTRY_COMPARE_WITH_TIMEOUT(uploaded, 12, 10'000);
        QNetworkAccessManager healthNetwork;
        QNetworkReply* health = healthNetwork.get(QNetworkRequest(m_server.apiUrl(u"/health"_s)));
        int outstandingAtHealth = -1;
        connect(health, &QNetworkReply::finished, this, [&] {
            outstandingAtHealth = int(std::count_if(
                heavy.begin(), heavy.end(), [](const QNetworkReply* reply) { return !reply->isFinished(); }));
        });
        QTRY_VERIFY_WITH_TIMEOUT(health->isFinished(), 30'000);
        QCOMPARE(health->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        for (QNetworkReply* reply : heavy) {
            QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), 30'000);
            QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
            reply->deleteLater();
        }
        health->deleteLater();
        qInfo("%d of 12 clean-ups were outstanding when /health answered", outstandingAtHealth);
        QVERIFY(outstandingAtHealth > 0);
    }

    void oversizedTextsAreRefusedWithoutText_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("code");
        QTest::newRow("text") << jsonBody(QString(70'000, u'a'), {}) << u"TEXT_TOO_LONG"_s;
        QStringList many;
        for (int i = 0; i < 2001; ++i)
            many << u"term%1"_s.arg(i);
        QTest::newRow("terms") << jsonBody(u"hello"_s, many) << u"DICTIONARY_TOO_LARGE"_s;
        QTest::newRow("long term") << jsonBody(u"hello"_s, { QString(101, u'x') }) << u"DICTIONARY_TOO_LARGE"_s;
    }

    void oversizedTextsAreRefusedWithoutText()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, code);
        const HttpResult result = m_http.post(m_server.apiUrl(u"/cleanup"_s), body, "application/json",
            { { "Authorization", "Bearer " + m_access.toUtf8() } });
        QCOMPARE(result.status, 413);
        const QJsonObject json = result.json();
        QVERIFY(!json.contains(u"text"_s));
        QCOMPARE(json.value(u"error"_s).toObject().value(u"code"_s).toString(), code);
        // Just under the limits, the same request is served.
        const HttpResult fine
            = m_http.post(m_server.apiUrl(u"/cleanup"_s), jsonBody(QString(1000, u'a'), { QString(100, u'x') }),
                "application/json", { { "Authorization", "Bearer " + m_access.toUtf8() } });
        QCOMPARE(fine.status, 200);
    }
};

QTEST_GUILESS_MAIN(ServerHostile)
#include "tst_server_hostile.moc"
