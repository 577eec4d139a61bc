// Twenty clients at once against one server, a third of them misbehaving: garbage,
// oversized frames, disconnects in the middle of a stream, streams that never sign in.
// Every well-behaved client must still get its whole transcript, and the server must be
// healthy afterwards.
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QRandomGenerator>
#include <QTest>

#include <memory>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString clipDir = u"/usr/share/pocketsphinx/test/data/librivox/"_s;
constexpr int clientCount = 20;
constexpr int chunkSamples = 1365;

enum class Behaviour { Good, Garbage, OversizedBeforeAuth, OversizedAfterAuth, HugeFrame, DropMidStream, NoAuth };

QString behaviourName(Behaviour b)
{
    switch (b) {
    case Behaviour::Good:
        return u"good"_s;
    case Behaviour::Garbage:
        return u"garbage"_s;
    case Behaviour::OversizedBeforeAuth:
        return u"oversized before auth"_s;
    case Behaviour::OversizedAfterAuth:
        return u"oversized after auth"_s;
    case Behaviour::HugeFrame:
        return u"frame beyond every limit"_s;
    case Behaviour::DropMidStream:
        return u"drops mid-stream"_s;
    case Behaviour::NoAuth:
        return u"never signs in"_s;
    }
    return {};
}

struct Participant {
    Behaviour behaviour = Behaviour::Good;
    std::unique_ptr<StreamClient> client;
    QList<QByteArray> chunks;
    QString clipId;
    int next = 0;
    bool stopped = false;
};

} // namespace

class ServerRobustness : public QObject
{
    Q_OBJECT

private:
    ServerProcess m_server { { u"--account-name"_s, u"crowd"_s, u"--max-streams"_s, u"16"_s, u"--auth-timeout"_s,
        u"3"_s } };
    Http m_http;
    QString m_access;
    QHash<QString, QList<QByteArray>> m_clips;
    QHash<QString, QString> m_soloTranscripts;

    QString transcribeAlone(const QList<QByteArray>& chunks)
    {
        StreamClient client;
        if (!client.open(m_server.streamUrl()))
            return {};
        client.sendAuth(m_access);
        for (const QByteArray& chunk : chunks)
            client.sendAudio(chunk);
        client.sendStop();
        client.waitClosed(60'000);
        return client.texts(u"final"_s).join(u' ');
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!QDir(clipDir).exists())
            QSKIP("pocketsphinx-testdata is not installed");
        QString error;
        QVERIFY2(m_server.start(&error), qPrintable(error));
        m_access = signInThroughSite(m_http, m_server, &error).access;
        QVERIFY2(!m_access.isEmpty(), qPrintable(error));
        const QStringList wavs = QDir(clipDir).entryList({ u"*.wav"_s }, QDir::Files, QDir::Name);
        QVERIFY(wavs.size() >= 5);
        for (const QString& wav : wavs) {
            const QList<QByteArray> chunks = chunked(readWavPcm(clipDir + wav), chunkSamples);
            QVERIFY(!chunks.isEmpty());
            m_clips.insert(wav, chunks);
            // What each clip gives when the server has nothing else to do.
            m_soloTranscripts.insert(wav, transcribeAlone(chunks));
            QVERIFY2(!m_soloTranscripts.value(wav).isEmpty(), qPrintable(wav));
        }
    }

    void twentyClientsAThirdMisbehaving()
    {
        const std::vector<Behaviour> bad { Behaviour::Garbage, Behaviour::OversizedBeforeAuth,
            Behaviour::OversizedAfterAuth, Behaviour::HugeFrame, Behaviour::DropMidStream, Behaviour::NoAuth,
            Behaviour::DropMidStream };
        const QStringList clipIds = m_clips.keys();
        std::vector<Participant> participants(clientCount);
        for (int i = 0; i < clientCount; ++i) {
            Participant& p = participants[size_t(i)];
            // Spread the misbehaving ones among the good ones.
            p.behaviour = (i % 3 == 1 && size_t(i / 3) < bad.size()) ? bad[size_t(i / 3)] : Behaviour::Good;
            p.clipId = clipIds.at(i % clipIds.size());
            p.chunks = m_clips.value(p.clipId);
            p.client = std::make_unique<StreamClient>();
            QVERIFY(p.client->open(m_server.streamUrl()));
        }
        int misbehaving = 0;
        for (const Participant& p : participants)
            misbehaving += p.behaviour != Behaviour::Good;
        QCOMPARE(misbehaving, 7);

        for (Participant& p : participants) {
            switch (p.behaviour) {
            case Behaviour::Good:
            case Behaviour::DropMidStream:
                p.client->sendAuth(m_access);
                break;
            case Behaviour::Garbage: {
                QByteArray noise(4096, Qt::Uninitialized);
                QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(noise.data()), noise.size() / 4);
                p.client->sendBinary(noise);
                break;
            }
            case Behaviour::OversizedBeforeAuth:
                p.client->sendText(QString(2 * 1024 * 1024, u'x'));
                break;
            case Behaviour::OversizedAfterAuth:
                p.client->sendAuth(m_access);
                p.client->sendAudio(QByteArray(1536 * 1024, 1));
                break;
            case Behaviour::HugeFrame:
                p.client->sendText(QString(9 * 1024 * 1024, u'y'));
                break;
            case Behaviour::NoAuth:
                break;
            }
        }

        // Everyone who streams does so at the pace of speech, chunk by chunk, side by side.
        QElapsedTimer clock;
        clock.start();
        qint64 samples = 0;
        bool anyLeft = true;
        while (anyLeft) {
            anyLeft = false;
            for (Participant& p : participants) {
                if (p.behaviour != Behaviour::Good && p.behaviour != Behaviour::DropMidStream)
                    continue;
                if (p.stopped)
                    continue;
                if (p.behaviour == Behaviour::DropMidStream && p.next == p.chunks.size() / 2) {
                    p.client->abort();
                    p.stopped = true;
                    continue;
                }
                if (p.next < p.chunks.size()) {
                    p.client->sendAudio(p.chunks.at(p.next++));
                    anyLeft = true;
                } else {
                    p.client->sendStop();
                    p.stopped = true;
                }
            }
            samples += chunkSamples;
            const qint64 due = samples * 1000 / 16000;
            if (due > clock.elapsed())
                QTest::qWait(int(due - clock.elapsed()));
        }

        for (Participant& p : participants) {
            if (p.behaviour == Behaviour::DropMidStream)
                continue;
            QVERIFY2(p.client->waitClosed(60'000), qPrintable(behaviourName(p.behaviour)));
        }

        for (Participant& p : participants) {
            const QString name = behaviourName(p.behaviour);
            switch (p.behaviour) {
            case Behaviour::Good: {
                QCOMPARE(p.client->closeCode(), 1000);
                QVERIFY(p.client->texts(u"error"_s).isEmpty());
                const QString transcript = p.client->texts(u"final"_s).join(u' ');
                const QString solo = m_soloTranscripts.value(p.clipId);
                // Every stream starts from a fresh decoder state, so the crowd changes nothing.
                QVERIFY2(
                    transcript == solo, qPrintable(u"%1: \"%2\" against \"%3\""_s.arg(p.clipId, transcript, solo)));
                break;
            }
            case Behaviour::Garbage:
                QCOMPARE(p.client->firstOfType(u"error"_s).value(u"code"_s).toString(), u"INVALID_JSON"_s);
                break;
            case Behaviour::OversizedBeforeAuth:
            case Behaviour::OversizedAfterAuth:
                QCOMPARE(p.client->firstOfType(u"error"_s).value(u"code"_s).toString(), u"MESSAGE_TOO_LARGE"_s);
                QCOMPARE(p.client->closeCode(), 1009);
                break;
            case Behaviour::HugeFrame:
                // Beyond the hard cap the WebSocket layer refuses the frame itself.
                QCOMPARE(p.client->closeCode(), 1009);
                break;
            case Behaviour::NoAuth:
                QCOMPARE(p.client->firstOfType(u"error"_s).value(u"code"_s).toString(), u"AUTH_TIMEOUT"_s);
                break;
            case Behaviour::DropMidStream:
                break;
            }
        }
    }

    void serverIsHealthyAfterwards()
    {
        QVERIFY(m_server.isRunning());
        const HttpResult health = m_http.get(m_server.apiUrl(u"/health"_s));
        QCOMPARE(health.status, 200);
        // Every stream, including the dropped ones, gave its decoder back.
        QTRY_COMPARE_WITH_TIMEOUT(
            m_http.get(m_server.apiUrl(u"/health"_s)).json().value(u"streams"_s).toObject().value(u"active"_s).toInt(),
            0, 10'000);
        const HttpResult cleanup = m_http.postJson(m_server.apiUrl(u"/cleanup"_s),
            { { u"text"_s, u"still here"_s }, { u"dictionary"_s, QJsonArray {} } }, m_access.toUtf8());
        QCOMPARE(cleanup.status, 200);
        const QString clip = m_clips.keys().constFirst();
        QCOMPARE(transcribeAlone(m_clips.value(clip)).isEmpty(), false);
    }
};

QTEST_GUILESS_MAIN(ServerRobustness)
#include "tst_server_robustness.moc"
