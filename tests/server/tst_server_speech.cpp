// The OpenAI-compatible speech engine through the real server: LibriVox clips streamed as
// the client streams them, an endpoint of our own on loopback that checks every request
// and answers with a real recogniser's words, and each way that endpoint can fail.
#include "ServerProcess.h"
#include "StreamClient.h"
#include "TranscriptionEndpoint.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QTcpServer>
#include <QTest>

#include <memory>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString clipDir = u"/usr/share/pocketsphinx/test/data/librivox/"_s;
const QString longClip = clipDir + u"sense_and_sensibility_01_austen_64kb-0870.wav"_s;
const QString shortClip = clipDir + u"sense_and_sensibility_01_austen_64kb-0880.wav"_s;
const QString otherClip = clipDir + u"sense_and_sensibility_01_austen_64kb-0930.wav"_s;
const QByteArray secretKey = "sk-speech-4f1c9e0b7d2a";

// Audio at `speedup` times real time, in the client's chunks; the caller sends "stop".
void speak(StreamClient& client, const QByteArray& pcm, int speedup)
{
    QElapsedTimer clock;
    clock.start();
    qint64 sent = 0;
    for (const QByteArray& chunk : chunked(pcm, 1365)) {
        client.sendAudio(chunk);
        sent += chunk.size() / 2;
        const qint64 due = sent * 1000 / 16000 / speedup;
        if (due > clock.elapsed())
            QTest::qWait(int(due - clock.elapsed()));
    }
}

bool spinUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < timeoutMs)
        QTest::qWait(10);
    return done();
}

int countOf(const QByteArray& haystack, const QByteArray& needle)
{
    int count = 0;
    for (qsizetype at = haystack.indexOf(needle); at >= 0; at = haystack.indexOf(needle, at + 1))
        ++count;
    return count;
}

QString pocketsphinxContinuous(const QString& wav)
{
    QProcess process;
    process.start(QStringLiteral(POCKETSPHINX_CONTINUOUS), { u"-infile"_s, wav, u"-logfn"_s, u"/dev/null"_s });
    process.waitForFinished(120'000);
    return QString::fromUtf8(process.readAllStandardOutput()).simplified();
}

} // namespace

class ServerSpeech : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_keyFile;
    // Answers for the main server; a second one for the server with a short timeout.
    std::unique_ptr<TranscriptionEndpoint> m_endpoint;
    std::unique_ptr<TranscriptionEndpoint> m_stallEndpoint;
    std::unique_ptr<ServerProcess> m_server; // openai, PocketSphinx for partials and fall-back
    std::unique_ptr<ServerProcess> m_embedded; // PocketSphinx alone: what the fall-back must say
    std::unique_ptr<ServerProcess> m_impatient; // --speech-timeout 1
    Http m_http;
    QString m_access;
    QString m_embeddedAccess;
    QString m_impatientAccess;
    QHash<QString, QString> m_embeddedText;

    std::unique_ptr<StreamClient> dictate(
        const ServerProcess& server, const QString& access, const QString& wav, int speedup = 2)
    {
        auto client = std::make_unique<StreamClient>();
        if (!client->open(server.streamUrl()))
            return nullptr;
        client->sendAuth(access);
        // Twice real time: the decoder keeps up even on a busy machine, so partials arrive before "stop".
        speak(*client, readWavPcm(wav), speedup);
        client->sendStop();
        client->waitClosed(60'000);
        return client;
    }

    // The text PocketSphinx alone gives for a clip through the server.
    QString embeddedText(const QString& wav)
    {
        if (!m_embeddedText.contains(wav)) {
            const auto client = dictate(*m_embedded, m_embeddedAccess, wav);
            if (!client || client->closeCode() != 1000)
                return u"(the PocketSphinx server failed)"_s;
            m_embeddedText.insert(wav, client->texts(u"final"_s).join(u' '));
        }
        return m_embeddedText.value(wav);
    }

    static QString sign(Http& http, const ServerProcess& server)
    {
        QString error;
        return signInThroughSite(http, server, &error).access;
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!QFile::exists(longClip) || !QFile::exists(shortClip))
            QSKIP("pocketsphinx-testdata is not installed");
        m_keyFile = m_dir.filePath(u"speech.key"_s);
        QFile key(m_keyFile);
        QVERIFY(key.open(QIODevice::WriteOnly));
        key.write(secretKey + "\n");
        key.close();
        QVERIFY(key.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner));

        m_endpoint = std::make_unique<TranscriptionEndpoint>(u"test-whisper"_s, u"en"_s, secretKey);
        QVERIFY(m_endpoint->port() != 0);
        m_stallEndpoint = std::make_unique<TranscriptionEndpoint>(u"whisper-1"_s, QString(), QByteArray());
        QVERIFY(m_stallEndpoint->port() != 0);

        m_server = std::make_unique<ServerProcess>(QStringList { u"--speech-engine"_s, u"openai"_s, u"--speech-url"_s,
            m_endpoint->baseUrl(), u"--speech-model"_s, u"test-whisper"_s, u"--speech-language"_s, u"en"_s,
            u"--speech-key-file"_s, m_keyFile, u"--speech-max-requests"_s, u"2"_s, u"--speech-timeout"_s, u"60"_s,
            u"--decoder-threads"_s, u"1"_s, u"--max-streams"_s, u"8"_s });
        m_embedded = std::make_unique<ServerProcess>(
            QStringList { u"--decoder-threads"_s, u"1"_s, u"--max-streams"_s, u"8"_s });
        // Configured from the environment, as a systemd unit would.
        m_impatient = std::make_unique<ServerProcess>(
            QStringList { u"--decoder-threads"_s, u"1"_s, u"--max-streams"_s, u"8"_s });
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"QUILLET_SPEECH_URL"_s, m_stallEndpoint->baseUrl() + u"/audio/transcriptions"_s);
        environment.insert(u"QUILLET_SPEECH_TIMEOUT"_s, u"1"_s);
        m_impatient->setEnvironment(environment);

        QString error;
        for (ServerProcess* server : { m_server.get(), m_embedded.get(), m_impatient.get() })
            QVERIFY2(server->launch(&error), qPrintable(error));
        for (ServerProcess* server : { m_server.get(), m_embedded.get(), m_impatient.get() })
            QVERIFY2(server->waitReady(&error), qPrintable(error));
        // The start-up measurement decodes on the only decoding thread; streams wait behind it.
        for (ServerProcess* server : { m_server.get(), m_embedded.get(), m_impatient.get() })
            QVERIFY(spinUntil([&] { return server->output().contains("capacity:"); }, 60'000));
        m_access = sign(m_http, *m_server);
        m_embeddedAccess = sign(m_http, *m_embedded);
        m_impatientAccess = sign(m_http, *m_impatient);
        QVERIFY(!m_access.isEmpty() && !m_embeddedAccess.isEmpty() && !m_impatientAccess.isEmpty());
    }

    void startupLogNamesTheEngine()
    {
        QVERIFY2(m_server->output().contains("speech engine openai:test-whisper at " + m_endpoint->baseUrl().toUtf8()
                     + "/audio/transcriptions, partials and fall-back from pocketsphinx"),
            m_server->output().constData());
        QVERIFY(m_impatient->output().contains("speech engine openai:whisper-1 at"));
    }

    void endpointTextIsTheFinal()
    {
        m_endpoint->mode = TranscriptionEndpoint::Mode::Recognise;
        m_endpoint->uploads.clear();
        // In real time, as someone speaks.
        const auto client = dictate(*m_server, m_access, longClip, 1);
        QVERIFY(client);
        QVERIFY2(client->closeCode() == 1000, QJsonDocument(client->firstOfType(u"error"_s)).toJson().constData());
        QVERIFY(client->texts(u"error"_s).isEmpty());

        // One request, carrying exactly the audio that was streamed, in the agreed format.
        QCOMPARE(m_endpoint->uploads.size(), size_t(1));
        const TranscriptionEndpoint::Upload& upload = m_endpoint->uploads.front();
        QVERIFY2(upload.problems.isEmpty(), qPrintable(upload.problems.join(u"; "_s)));
        QCOMPARE(upload.pcm, readWavPcm(longClip));
        QCOMPARE(upload.authorization, "Bearer " + secretKey);
        QVERIFY(upload.contentType.startsWith("multipart/form-data; boundary="));
        QCOMPARE(upload.filename, u"audio.wav"_s);
        QCOMPARE(upload.fileContentType, QByteArray("audio/wav"));
        QCOMPARE(upload.model, u"test-whisper"_s);
        QCOMPARE(upload.language, u"en"_s);
        QCOMPARE(upload.responseFormat, u"json"_s);
        QCOMPARE(upload.fields, (QStringList { u"file"_s, u"model"_s, u"language"_s, u"response_format"_s }));

        // The recogniser's words are the one final, and they are real words of the clip.
        QVERIFY(!upload.answer.isEmpty());
        QCOMPARE(client->texts(u"final"_s), QStringList { upload.answer });
        QCOMPARE(upload.answer, pocketsphinxContinuous(longClip));
        QVERIFY2(upload.answer.contains(u"leisure to consider"_s), qPrintable(upload.answer));

        // PocketSphinx kept the capsule live while the clip was spoken, and the final came last.
        const QStringList partials = client->texts(u"partial"_s);
        QVERIFY2(partials.size() >= 3,
            qPrintable(u"%1 partials: "_s.arg(partials.size()) + partials.join(u" | "_s) + u"\n"_s
                + QString::fromUtf8(m_server->output())));
        QCOMPARE(client->messages().constLast().value(u"type"_s).toString(), u"final"_s);
        for (qsizetype i = 1; i < partials.size(); ++i)
            QVERIFY(partials.at(i) != partials.at(i - 1));

        const QJsonObject health = m_http.get(m_server->apiUrl(u"/health"_s)).json();
        QCOMPARE(health.value(u"speech_engine"_s).toString(), u"openai:test-whisper"_s);
        const QJsonObject endpoint = health.value(u"speech_endpoint"_s).toObject();
        QCOMPARE(endpoint.value(u"answered_last_request"_s).toBool(false), true);
        QCOMPARE(endpoint.value(u"fallback"_s).toString(), u"pocketsphinx"_s);
        QCOMPARE(endpoint.value(u"request_limit"_s).toInt(), 2);
    }

    void failuresFallBackToPocketSphinx_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QByteArray>("cause");
        QTest::newRow("500") << int(TranscriptionEndpoint::Mode::ServerError) << QByteArray("HTTP status 500");
        QTest::newRow("401") << int(TranscriptionEndpoint::Mode::Unauthorized) << QByteArray("HTTP status 401");
        QTest::newRow("malformed") << int(TranscriptionEndpoint::Mode::Malformed)
                                   << QByteArray("malformed JSON in the answer");
        QTest::newRow("no text") << int(TranscriptionEndpoint::Mode::NoText) << QByteArray("no \"text\" in the answer");
    }

    void failuresFallBackToPocketSphinx()
    {
        QFETCH(int, mode);
        QFETCH(QByteArray, cause);
        const QString expected = embeddedText(shortClip);
        QVERIFY(!expected.isEmpty());

        m_endpoint->mode = TranscriptionEndpoint::Mode(mode);
        m_endpoint->uploads.clear();
        const QByteArray line = "speech endpoint failed (" + cause + "); the final comes from pocketsphinx";
        const int before = countOf(m_server->output(), line);
        const auto client = dictate(*m_server, m_access, shortClip);
        m_endpoint->mode = TranscriptionEndpoint::Mode::Recognise;
        QVERIFY(client);
        QVERIFY2(client->closeCode() == 1000, QJsonDocument(client->firstOfType(u"error"_s)).toJson().constData());
        QVERIFY(client->texts(u"error"_s).isEmpty());
        QCOMPARE(m_endpoint->uploads.size(), size_t(1));
        QCOMPARE(client->texts(u"final"_s), QStringList { expected });
        QVERIFY(spinUntil([&] { return countOf(m_server->output(), line) == before + 1; }, 5000));

        const QJsonObject endpoint
            = m_http.get(m_server->apiUrl(u"/health"_s)).json().value(u"speech_endpoint"_s).toObject();
        QCOMPARE(endpoint.value(u"answered_last_request"_s).toBool(true), false);
        QCOMPARE(endpoint.value(u"last_failure"_s).toString().toUtf8(), cause);
    }

    void stallPastTheTimeoutFallsBack()
    {
        const QString expected = embeddedText(shortClip);
        m_stallEndpoint->mode = TranscriptionEndpoint::Mode::Stall;
        const QByteArray line = "speech endpoint failed (no answer within 1 s); the final comes from pocketsphinx";
        const auto client = dictate(*m_impatient, m_impatientAccess, shortClip);
        QVERIFY(client);
        QVERIFY2(client->closeCode() == 1000, QJsonDocument(client->firstOfType(u"error"_s)).toJson().constData());
        QCOMPARE(m_stallEndpoint->uploads.size(), size_t(1));
        QVERIFY2(m_stallEndpoint->uploads.front().problems.isEmpty(),
            qPrintable(m_stallEndpoint->uploads.front().problems.join(u"; "_s)));
        QCOMPARE(client->texts(u"final"_s), QStringList { expected });
        QVERIFY(spinUntil([&] { return countOf(m_impatient->output(), line) == 1; }, 5000));
    }

    void closedPortFallsBack()
    {
        const QString expected = embeddedText(shortClip);
        m_stallEndpoint->close();
        const QByteArray line = "speech endpoint failed (connection refused); the final comes from pocketsphinx";
        const auto client = dictate(*m_impatient, m_impatientAccess, shortClip);
        QVERIFY(client);
        QVERIFY2(client->closeCode() == 1000, QJsonDocument(client->firstOfType(u"error"_s)).toJson().constData());
        QCOMPARE(client->texts(u"final"_s), QStringList { expected });
        QVERIFY(spinUntil([&] { return countOf(m_impatient->output(), line) == 1; }, 5000));
        QCOMPARE(m_http.get(m_impatient->apiUrl(u"/health"_s))
                     .json()
                     .value(u"speech_endpoint"_s)
                     .toObject()
                     .value(u"last_failure"_s)
                     .toString(),
            u"connection refused"_s);
    }

    void slowEndpointDoesNotDelayAnotherStream()
    {
        m_endpoint->mode = TranscriptionEndpoint::Mode::Recognise;
        m_endpoint->uploads.clear();
        StreamClient slow;
        StreamClient quick;
        QVERIFY(slow.open(m_server->streamUrl()));
        QVERIFY(quick.open(m_server->streamUrl()));
        slow.sendAuth(m_access);
        quick.sendAuth(m_access);
        speak(slow, readWavPcm(shortClip), 8);
        speak(quick, readWavPcm(otherClip), 8);

        // The first request is held by the endpoint until the second stream has its final.
        m_endpoint->holdNext = 1;
        slow.sendStop();
        QVERIFY(spinUntil([&] { return m_endpoint->uploads.size() == 1; }, 10'000));
        quick.sendStop();
        QVERIFY(quick.waitClosed(60'000));
        QVERIFY2(quick.closeCode() == 1000, QJsonDocument(quick.firstOfType(u"error"_s)).toJson().constData());
        QCOMPARE(m_endpoint->uploads.size(), size_t(2));
        QCOMPARE(quick.texts(u"final"_s), QStringList { m_endpoint->uploads.back().answer });
        QVERIFY(!m_endpoint->uploads.back().answer.isEmpty());
        QVERIFY(!slow.closed());
        QVERIFY(slow.texts(u"final"_s).isEmpty());

        m_endpoint->releaseHeld();
        QVERIFY(slow.waitClosed(30'000));
        QCOMPARE(slow.closeCode(), 1000);
        QCOMPARE(slow.texts(u"final"_s), QStringList { m_endpoint->uploads.front().answer });
        QCOMPARE(m_endpoint->uploads.front().pcm, readWavPcm(shortClip));
        QCOMPARE(m_endpoint->uploads.back().pcm, readWavPcm(otherClip));
    }

    void requestsInFlightAreLimited()
    {
        // --speech-max-requests 2: a third stop waits for a free slot.
        m_endpoint->mode = TranscriptionEndpoint::Mode::Recognise;
        m_endpoint->uploads.clear();
        m_endpoint->holdNext = 2;
        std::vector<std::unique_ptr<StreamClient>> clients;
        for (int i = 0; i < 3; ++i) {
            clients.push_back(std::make_unique<StreamClient>());
            QVERIFY(clients.back()->open(m_server->streamUrl()));
            clients.back()->sendAuth(m_access);
            speak(*clients.back(), readWavPcm(shortClip).left(16000 * 2), 16);
        }
        for (auto& client : clients)
            client->sendStop();
        QVERIFY(spinUntil([&] { return m_endpoint->uploads.size() == 2; }, 10'000));
        QJsonObject endpoint;
        spinUntil(
            [&] {
                endpoint = m_http.get(m_server->apiUrl(u"/health"_s)).json().value(u"speech_endpoint"_s).toObject();
                return endpoint.value(u"requests_waiting"_s).toInt() == 1;
            },
            5000);
        QVERIFY2(endpoint.value(u"requests_waiting"_s).toInt() == 1,
            (QJsonDocument(endpoint).toJson() + m_server->output().right(3000)).constData());
        QCOMPARE(endpoint.value(u"requests_in_flight"_s).toInt(), 2);
        QCOMPARE(m_endpoint->uploads.size(), size_t(2));
        for (auto& client : clients)
            QVERIFY(!client->closed());

        m_endpoint->releaseHeld();
        QVERIFY(spinUntil([&] { return m_endpoint->uploads.size() == 3; }, 10'000));
        for (auto& client : clients) {
            QVERIFY(client->waitClosed(30'000));
            QCOMPARE(client->closeCode(), 1000);
            QCOMPARE(client->texts(u"final"_s).size(), 1);
        }
        QCOMPARE(m_endpoint->uploads.back().pcm, readWavPcm(shortClip).left(16000 * 2));
    }

    void endpointAloneWithoutAModel()
    {
        // No acoustic model: the endpoint serves alone, and its failure is the stream's.
        ServerProcess server({ u"--hmm"_s, m_dir.filePath(u"no-such-model"_s), u"--speech-url"_s, m_endpoint->baseUrl(),
            u"--speech-model"_s, u"test-whisper"_s, u"--speech-language"_s, u"en"_s, u"--max-streams"_s, u"8"_s });
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"QUILLET_SPEECH_KEY_FILE"_s, m_keyFile);
        environment.insert(u"QUILLET_SPEECH_TIMEOUT"_s, u"60"_s);
        server.setEnvironment(environment);
        QString error;
        QVERIFY2(server.start(&error), qPrintable(error));
        QVERIFY(server.output().contains("pocketsphinx unavailable"));
        const QString access = sign(m_http, server);

        m_endpoint->mode = TranscriptionEndpoint::Mode::Recognise;
        m_endpoint->uploads.clear();
        auto client = dictate(server, access, shortClip);
        QVERIFY(client);
        QVERIFY2(client->closeCode() == 1000, QJsonDocument(client->firstOfType(u"error"_s)).toJson().constData());
        QVERIFY(client->texts(u"partial"_s).isEmpty());
        QCOMPARE(m_endpoint->uploads.size(), size_t(1));
        QVERIFY2(m_endpoint->uploads.front().problems.isEmpty(),
            qPrintable(m_endpoint->uploads.front().problems.join(u"; "_s)));
        QCOMPARE(client->texts(u"final"_s), QStringList { m_endpoint->uploads.front().answer });
        QCOMPARE(m_http.get(server.apiUrl(u"/health"_s))
                     .json()
                     .value(u"speech_endpoint"_s)
                     .toObject()
                     .value(u"fallback"_s)
                     .type(),
            QJsonValue::Null);

        m_endpoint->mode = TranscriptionEndpoint::Mode::Unauthorized;
        client = dictate(server, access, shortClip);
        m_endpoint->mode = TranscriptionEndpoint::Mode::Recognise;
        QVERIFY(client);
        QCOMPARE(client->closeCode(), 1011);
        QCOMPARE(client->firstOfType(u"error"_s).value(u"code"_s).toString(), u"ENGINE_ERROR"_s);
        QVERIFY(client->texts(u"final"_s).isEmpty());
        QVERIFY(spinUntil(
            [&] { return server.output().contains("error ENGINE_ERROR (speech endpoint: HTTP status 401)"); }, 5000));
        const QByteArray everything = server.output() + QJsonDocument(client->firstOfType(u"error"_s)).toJson()
            + m_http.get(server.apiUrl(u"/health"_s)).body;
        QVERIFY(!everything.contains(secretKey));
    }

    void keyNeverShows()
    {
        for (ServerProcess* server : { m_server.get(), m_impatient.get() }) {
            QVERIFY(!server->output().contains(secretKey));
            QVERIFY(!m_http.get(server->apiUrl(u"/health"_s)).body.contains(secretKey));
        }
    }

    void keyFileReadableByOthersIsRefused()
    {
        const QString shared = m_dir.filePath(u"shared.key"_s);
        QFile key(shared);
        QVERIFY(key.open(QIODevice::WriteOnly));
        key.write(secretKey);
        key.close();
        QVERIFY(key.setPermissions(
            QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther));
        QProcess process;
        process.start(QStringLiteral(QUILLET_SERVER_BINARY),
            { u"--api-port"_s, u"0"_s, u"--site-port"_s, u"0"_s, u"--data-dir"_s, m_dir.filePath(u"refused"_s),
                u"--speech-url"_s, m_endpoint->baseUrl(), u"--speech-key-file"_s, shared });
        QVERIFY(process.waitForFinished(30'000));
        QCOMPARE(process.exitCode(), 2);
        const QByteArray said = process.readAllStandardOutput() + process.readAllStandardError();
        QVERIFY2(said.contains("can be read by other users"), said.constData());
        QVERIFY(said.contains(shared.toUtf8()));
        QVERIFY(!said.contains(secretKey));
    }
};

QTEST_GUILESS_MAIN(ServerSpeech)
#include "tst_server_speech.moc"
