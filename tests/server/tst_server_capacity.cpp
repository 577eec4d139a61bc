// Admission: how many streams the server decodes at once, measured at start-up or set
// with --max-streams, and what the stream one over the limit is told.
#include "Capacity.h"
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

using namespace Qt::Literals::StringLiterals;

class ServerCapacity : public QObject
{
    Q_OBJECT

private:
    Http m_http;

    int activeStreams(const ServerProcess& server)
    {
        return m_http.get(server.apiUrl(u"/health"_s)).json().value(u"streams"_s).toObject().value(u"active"_s).toInt();
    }

    int streamLimit(const ServerProcess& server)
    {
        return m_http.get(server.apiUrl(u"/health"_s)).json().value(u"streams"_s).toObject().value(u"limit"_s).toInt();
    }

    // The start-up measurement's log line, once it is there.
    QRegularExpressionMatch capacityLine(ServerProcess& server)
    {
        static const QRegularExpression line(
            u"capacity: (\\d+) streams \\((\\d+) cores, real-time factor (\\d+\\.\\d+)\\)(; --max-streams (\\d+) applies)?"_s);
        QRegularExpressionMatch match;
        const QDeadlineTimer deadline(30'000);
        while (!deadline.hasExpired()) {
            match = line.match(QString::fromUtf8(server.output()));
            if (match.hasMatch())
                break;
            QTest::qWait(50);
        }
        return match;
    }

private Q_SLOTS:
    void capacityFollowsTheMeasurement()
    {
        // Nine tenths of each core, for streams that each cost `factor` of one.
        QCOMPARE(Capacity::streams(2, 0.16), 11);
        QCOMPARE(Capacity::streams(4, 0.16), 22);
        QCOMPARE(Capacity::streams(2, 0.35), 5);
        QCOMPARE(Capacity::streams(1, 5.0), 1); // slower than real time: still one stream
        QCOMPARE(Capacity::streams(2, 0.0), 1); // a failed measurement
        QCOMPARE(Capacity::streams(64, 0.001), 256);
        // The calibration clip is two seconds and the same on every call.
        QCOMPARE(Capacity::calibrationClip().size(), 2 * 16000 * 2);
        QCOMPARE(Capacity::calibrationClip(), Capacity::calibrationClip());
    }

    void measuredLimitIsLoggedAndApplied()
    {
        ServerProcess server({ u"--account-name"_s, u"cap"_s, u"--decoder-threads"_s, u"2"_s });
        QString error;
        QVERIFY2(server.start(&error), qPrintable(error));
        const QRegularExpressionMatch match = capacityLine(server);
        QVERIFY2(match.hasMatch(), server.output().constData());
        QVERIFY(!match.hasCaptured(4));
        const int capacity = match.captured(1).toInt();
        const double factor = match.captured(3).toDouble();
        QVERIFY(factor > 0);
        QCOMPARE(match.captured(2).toInt(), std::min(2, QThread::idealThreadCount()));
        // The log rounds the factor to three decimals.
        QVERIFY(capacity >= Capacity::streams(match.captured(2).toInt(), factor + 0.0005));
        QVERIFY(capacity <= Capacity::streams(match.captured(2).toInt(), factor - 0.0005));
        QCOMPARE(streamLimit(server), capacity);
    }

    void maxStreamsOverridesTheMeasurement()
    {
        ServerProcess server({ u"--account-name"_s, u"cap"_s, u"--max-streams"_s, u"3"_s });
        QString error;
        QVERIFY2(server.start(&error), qPrintable(error));
        const QRegularExpressionMatch match = capacityLine(server);
        QVERIFY2(match.hasMatch(), server.output().constData());
        QCOMPARE(match.captured(5), u"3"_s);
        QCOMPARE(streamLimit(server), 3);

        // Three streams decoding...
        const TokenPair pair = signInThroughSite(m_http, server, &error);
        QVERIFY2(!pair.access.isEmpty(), qPrintable(error));
        std::vector<std::unique_ptr<StreamClient>> active;
        for (int i = 0; i < 3; ++i) {
            active.push_back(std::make_unique<StreamClient>());
            QVERIFY(active.back()->open(server.streamUrl()));
            active.back()->sendAuth(pair.access);
            active.back()->sendAudio(QByteArray(3200, 0));
        }
        const QDeadlineTimer deadline(15'000);
        while (activeStreams(server) < 3 && !deadline.hasExpired())
            QTest::qWait(20);
        QCOMPARE(activeStreams(server), 3);

        // ...so the fourth is told at once, after its auth.
        StreamClient fourth;
        QVERIFY(fourth.open(server.streamUrl()));
        fourth.sendAuth(pair.access);
        QVERIFY(fourth.waitClosed(10'000));
        QCOMPARE(fourth.messages().size(), 1);
        QCOMPARE(fourth.messages().constFirst().value(u"type"_s).toString(), u"error"_s);
        QCOMPARE(fourth.messages().constFirst().value(u"code"_s).toString(), u"SERVER_BUSY"_s);
        QCOMPARE(fourth.closeCode(), 1008);

        // The three were not disturbed, and when one ends its slot is free again.
        for (auto& client : active)
            QVERIFY(!client->closed());
        active.front()->sendStop();
        QVERIFY(active.front()->waitClosed(10'000));
        QCOMPARE(active.front()->closeCode(), 1000);
        StreamClient next;
        QVERIFY(next.open(server.streamUrl()));
        next.sendAuth(pair.access);
        next.sendStop();
        QVERIFY(next.waitClosed(10'000));
        QCOMPARE(next.closeCode(), 1000);
        QVERIFY(next.texts(u"error"_s).isEmpty());
        for (size_t i = 1; i < active.size(); ++i) {
            active[i]->sendStop();
            QVERIFY(active[i]->waitClosed(10'000));
            QCOMPARE(active[i]->closeCode(), 1000);
        }
    }
};

QTEST_MAIN(ServerCapacity)
#include "tst_server_capacity.moc"
