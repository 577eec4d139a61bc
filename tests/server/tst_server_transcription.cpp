// Real speech through the real server: Debian's LibriVox clips streamed in the client's
// 1,365-sample chunks must give partials, then finals that match the clips' transcription
// about as well as PocketSphinx's own command-line decoder does on the same files.
#include "ServerProcess.h"
#include "StreamClient.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString clipDir = u"/usr/share/pocketsphinx/test/data/librivox/"_s;

// "<s> words </s> (clip-id)" lines.
QHash<QString, QString> referenceTranscripts()
{
    QHash<QString, QString> out;
    QFile file(clipDir + u"transcription"_s);
    if (!file.open(QIODevice::ReadOnly))
        return out;
    static const QRegularExpression line(u"^<s>(.*)</s>\\s*\\(([^)]+)\\)"_s);
    for (const QByteArray& raw : file.readAll().split('\n')) {
        const auto match = line.match(QString::fromUtf8(raw).trimmed());
        if (match.hasMatch())
            out.insert(match.captured(2), match.captured(1).simplified());
    }
    return out;
}

int editDistanceWords(const QString& reference, const QString& hypothesis)
{
    return int(wordErrorRate(reference, hypothesis) * reference.split(u' ', Qt::SkipEmptyParts).size() / 100.0 + 0.5);
}

} // namespace

class ServerTranscription : public QObject
{
    Q_OBJECT

private:
    ServerProcess m_server { { u"--account-name"_s, u"listener"_s } };
    Http m_http;
    QString m_access;

private Q_SLOTS:
    void initTestCase()
    {
        if (!QFile::exists(clipDir + u"transcription"_s))
            QSKIP("pocketsphinx-testdata is not installed");
        QString error;
        QVERIFY2(m_server.start(&error), qPrintable(error));
        // The server measures its decoding speed on a decoder thread at start; streams that
        // begin meanwhile share that thread, and on a busy machine their partials fall behind.
        QVERIFY(QTest::qWaitFor([&] { return m_server.output().contains("capacity:"); }, 60'000));
        m_access = signInThroughSite(m_http, m_server, &error).access;
        QVERIFY2(!m_access.isEmpty(), qPrintable(error));
    }

    void clipsMatchTheReferenceDecoder()
    {
        const QHash<QString, QString> references = referenceTranscripts();
        QVERIFY(references.size() >= 5);
        QStringList ids = references.keys();
        ids.sort();

        int referenceWords = 0;
        int ourErrors = 0;
        int theirErrors = 0;
        for (const QString& id : std::as_const(ids)) {
            const QString wav = clipDir + id + u".wav"_s;
            const QByteArray pcm = readWavPcm(wav);
            QVERIFY2(!pcm.isEmpty(), qPrintable(wav));

            StreamClient client;
            QVERIFY(client.open(m_server.streamUrl()));
            client.sendAuth(m_access);
            // Twice as fast as someone speaking: still a live stream for the decoder, which
            // drops provisional texts that arrive after "stop", but half the waiting.
            QElapsedTimer clock;
            clock.start();
            qint64 sentSamples = 0;
            for (const QByteArray& chunk : chunked(pcm, 1365)) {
                client.sendAudio(chunk);
                sentSamples += chunk.size() / 2;
                const qint64 due = sentSamples * 1000 / 16000 / 2;
                if (due > clock.elapsed())
                    QTest::qWait(int(due - clock.elapsed()));
            }
            client.sendStop();
            QVERIFY2(client.waitClosed(60'000), qPrintable(id));
            QCOMPARE(client.closeCode(), 1000);
            QVERIFY(client.texts(u"error"_s).isEmpty());

            // Partials come before the segment's final, and never twice the same in a row.
            QString previous;
            bool finalSeen = false;
            int partials = 0;
            int partialsBeforeFirstFinal = 0;
            for (const QJsonObject& message : client.messages()) {
                const QString type = message.value(u"type"_s).toString();
                const QString text = message.value(u"text"_s).toString();
                QVERIFY(!text.isEmpty());
                if (type == u"partial"_s) {
                    QVERIFY2(text != previous, qPrintable(u"repeated partial: "_s + text));
                    ++partials;
                    if (!finalSeen)
                        ++partialsBeforeFirstFinal;
                } else {
                    QCOMPARE(type, u"final"_s);
                    finalSeen = true;
                }
                previous = text;
            }
            QVERIFY2(finalSeen, qPrintable(id));
            QVERIFY2(partialsBeforeFirstFinal >= 1, qPrintable(id));
            // Three seconds and more of speech give several provisional texts.
            if (pcm.size() / 2 > 3 * 16000)
                QVERIFY2(partials >= 3, qPrintable(u"%1: %2 partials"_s.arg(id).arg(partials)));

            const QString ours = client.texts(u"final"_s).join(u' ');

            QProcess reference;
            reference.start(
                QStringLiteral(POCKETSPHINX_CONTINUOUS), { u"-infile"_s, wav, u"-logfn"_s, u"/dev/null"_s });
            QVERIFY(reference.waitForFinished(120'000));
            const QString theirs = QString::fromUtf8(reference.readAllStandardOutput()).simplified();

            const QString truth = references.value(id);
            referenceWords += int(truth.split(u' ', Qt::SkipEmptyParts).size());
            ourErrors += editDistanceWords(truth, ours);
            theirErrors += editDistanceWords(truth, theirs);
            qInfo("%s\n  truth:  %s\n  server: %s\n  pocketsphinx_continuous: %s", qPrintable(id), qPrintable(truth),
                qPrintable(ours), qPrintable(theirs));
        }
        const double ourWer = 100.0 * ourErrors / referenceWords;
        const double theirWer = 100.0 * theirErrors / referenceWords;
        qInfo("word error rate over %d words: server %.1f%%, pocketsphinx_continuous %.1f%%", referenceWords, ourWer,
            theirWer);
        QVERIFY2(ourWer <= theirWer + 5.0, qPrintable(u"server %1% vs %2%"_s.arg(ourWer).arg(theirWer)));
    }

    void serverStaysHealthy()
    {
        QVERIFY(m_server.isRunning());
        QCOMPARE(m_http.get(m_server.apiUrl(u"/health"_s)).status, 200);
    }
};

QTEST_GUILESS_MAIN(ServerTranscription)
#include "tst_server_transcription.moc"
