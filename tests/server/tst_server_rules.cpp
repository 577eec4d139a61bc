// The server's pure parts on their own: the rule text engine, HS256 tokens, the
// stream's message parsing, and the speech endpoint's request, answer and options.
#include "Jwt.h"
#include "OpenAiSpeechEngine.h"
#include "Options.h"
#include "RuleTextEngine.h"
#include "StreamProtocol.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

using namespace Qt::Literals::StringLiterals;

class ServerRules : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanUpText_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QStringList>("dictionary");
        QTest::addColumn<QString>("expected");
        QTest::newRow("empty") << u""_s << QStringList() << u""_s;
        QTest::newRow("only fillers") << u"um uh"_s << QStringList() << u""_s;
        QTest::newRow("filler with comma") << u"um, i think so"_s << QStringList() << u"I think so."_s;
        QTest::newRow("filler before a sentence end")
            << u"that is all uh. next point"_s << QStringList() << u"That is all. Next point."_s;
        QTest::newRow("triple repeat") << u"the the the end"_s << QStringList() << u"The end."_s;
        QTest::newRow("stutter over a comma") << u"i, i mean it"_s << QStringList() << u"I mean it."_s;
        QTest::newRow("had had stays") << u"he had had enough"_s << QStringList() << u"He had had enough."_s;
        QTest::newRow("that that stays") << u"i know that that works"_s << QStringList()
                                         << u"I know that that works."_s;
        QTest::newRow("numbers repeat") << u"room 4 4"_s << QStringList() << u"Room 4 4."_s;
        QTest::newRow("pronoun forms") << u"i'm sure i'll say what i've said"_s << QStringList()
                                       << u"I'm sure I'll say what I've said."_s;
        QTest::newRow("question kept") << u"is it done?"_s << QStringList() << u"Is it done?"_s;
        QTest::newRow("trailing comma") << u"first, second,"_s << QStringList() << u"First, second."_s;
        QTest::newRow("closing quote") << u"she said \"yes\""_s << QStringList() << u"She said \"yes.\""_s;
        QTest::newRow("sentences") << u"one. two! three? four"_s << QStringList() << u"One. Two! Three? Four."_s;
        QTest::newRow("multi-word term") << u"ask the new york office"_s << QStringList { u"New York"_s }
                                         << u"Ask the New York office."_s;
        QTest::newRow("term at the start keeps its case")
            << u"ebay listings"_s << QStringList { u"eBay"_s } << u"eBay listings."_s;
        QTest::newRow("terms with punctuation")
            << u"we use c++ and node.js"_s << QStringList { u"C++"_s, u"Node.js"_s } << u"We use C++ and Node.js."_s;
        QTest::newRow("term not inside words")
            << u"the quilletx build"_s << QStringList { u"Quillet"_s } << u"The quilletx build."_s;
    }

    void cleanUpText()
    {
        QFETCH(QString, input);
        QFETCH(QStringList, dictionary);
        QFETCH(QString, expected);
        QCOMPARE(RuleTextEngine::cleanup(input, dictionary), expected);
    }

    void tones_data()
    {
        QTest::addColumn<QString>("tone");
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("professional keeps the verb like")
            << u"professional"_s << u"i like it, yeah"_s << u"I like it, yes."_s;
        QTest::newRow("professional drops the pause like")
            << u"professional"_s << u"it was like, done"_s << u"It was done."_s;
        QTest::newRow("firm only at sentence starts")
            << u"firm"_s << u"how can you say that"_s << u"How can you say that."_s;
        QTest::newRow("firm drops hedges") << u"firm"_s << u"i think we should maybe wait"_s << u"We should wait."_s;
        QTest::newRow("friendly contracts")
            << u"friendly"_s << u"we are ready and it is late"_s << u"We're ready and it's late!"_s;
        QTest::newRow("supportive softens") << u"supportive"_s << u"that was wrong"_s
                                            << u"That was not quite right. I'm here to help if you need anything."_s;
        QTest::newRow("concise") << u"concise"_s << u"due to the fact that it is very late we stop"_s
                                 << u"Because it is late we stop."_s;
    }

    void tones()
    {
        QFETCH(QString, tone);
        QFETCH(QString, input);
        QFETCH(QString, expected);
        const auto parsed = toneFromName(tone);
        QVERIFY(parsed);
        QCOMPARE(RuleTextEngine::rewrite(input, *parsed, {}), expected);
    }

    void toneNamesAreExact()
    {
        QCOMPARE(toneNames(),
            (QStringList { u"professional"_s, u"friendly"_s, u"funny"_s, u"firm"_s, u"supportive"_s, u"concise"_s }));
        QVERIFY(!toneFromName(u"Professional"_s));
        QVERIFY(!toneFromName(u""_s));
    }

    void jwtRoundTrip()
    {
        const QByteArray key(32, 'k');
        Jwt::Claims claims { u"alice"_s, 1000, 2000, 3 };
        const QByteArray token = Jwt::sign(claims, key);
        const Jwt::Verification ok = Jwt::verify(token, key, 1500);
        QCOMPARE(ok.verdict, Jwt::Verdict::Valid);
        QCOMPARE(ok.claims.subject, u"alice"_s);
        QCOMPARE(ok.claims.expiresAt, 2000);
        QCOMPARE(ok.claims.generation, 3);
        QCOMPARE(Jwt::verify(token, key, 2000).verdict, Jwt::Verdict::Expired);
        QCOMPARE(Jwt::verify(token, QByteArray(32, 'x'), 1500).verdict, Jwt::Verdict::BadSignature);
    }

    void jwtRejectsTamperingAndOtherAlgorithms()
    {
        const QByteArray key(32, 'k');
        const QByteArray token = Jwt::sign({ u"alice"_s, 1000, 2000, 0 }, key);
        const QList<QByteArray> parts = token.split('.');
        const QByteArray otherPayload = Jwt::base64Url(QJsonDocument(
            QJsonObject { { u"sub"_s, u"mallory"_s },
                { u"exp"_s, 99999 } }).toJson(QJsonDocument::Compact));
        QCOMPARE(
            Jwt::verify(parts[0] + '.' + otherPayload + '.' + parts[2], key, 1500).verdict, Jwt::Verdict::BadSignature);

        const QByteArray none = Jwt::base64Url(R"({"alg":"none","typ":"JWT"})");
        QCOMPARE(Jwt::verify(none + '.' + parts[1] + '.', key, 1500).verdict, Jwt::Verdict::UnsupportedAlgorithm);
        const QByteArray rs = Jwt::base64Url(R"({"alg":"RS256","typ":"JWT"})");
        QCOMPARE(
            Jwt::verify(rs + '.' + parts[1] + '.' + parts[2], key, 1500).verdict, Jwt::Verdict::UnsupportedAlgorithm);
        QCOMPARE(Jwt::verify(parts[0] + '.' + parts[1], key, 1500).verdict, Jwt::Verdict::Malformed);
        QCOMPARE(Jwt::verify(token + ".extra", key, 1500).verdict, Jwt::Verdict::Malformed);
        QCOMPARE(Jwt::verify("", key, 1500).verdict, Jwt::Verdict::Malformed);
    }

    void speechWavFile();
    void speechReplyText();
    void speechEndpointAddress();
    void speechOptions();

    void streamMessages()
    {
        using Kind = StreamProtocol::ClientMessage::Kind;
        using StreamProtocol::Error;
        auto auth = StreamProtocol::parse(R"({"type":"auth","token":"abc"})");
        QVERIFY(auth.ok);
        QCOMPARE(auth.message.kind, Kind::Auth);
        QCOMPARE(auth.message.token, u"abc"_s);
        auto audio = StreamProtocol::parse(R"({"type":"audio","data":"AAAA"})");
        QVERIFY(audio.ok);
        QByteArray pcm;
        // "AAAA" is three bytes: half a sample too many.
        QVERIFY(!StreamProtocol::decodeAudio(audio.message.audioBase64, &pcm));
        QVERIFY(StreamProtocol::decodeAudio(QByteArray(3200, 0).toBase64(), &pcm));
        QCOMPARE(pcm.size(), 3200);
        QVERIFY(!StreamProtocol::decodeAudio("!!!!", &pcm));
        QCOMPARE(StreamProtocol::parse("{").error, Error::InvalidJson);
        QCOMPARE(StreamProtocol::parse("[]").error, Error::InvalidMessage);
        QCOMPARE(StreamProtocol::parse(R"({"type":7})").error, Error::InvalidMessage);
        QCOMPARE(StreamProtocol::parse(R"({"type":"audio"})").error, Error::InvalidAudio);
        QCOMPARE(StreamProtocol::parse(R"({"type":"auth"})").error, Error::InvalidToken);
        QCOMPARE(StreamProtocol::code(Error::ServerBusy), u"SERVER_BUSY"_s);
        QCOMPARE(StreamProtocol::finalMessage(u"hi"_s), QByteArray(R"({"text":"hi","type":"final"})"));
    }
};

void ServerRules::speechWavFile()
{
    const QByteArray pcm = QByteArray::fromHex("0100ff7f0080");
    const QByteArray wav = OpenAiSpeechEngine::wavFile(pcm);
    QCOMPARE(wav.size(), 44 + 6);
    QCOMPARE(wav.left(4), QByteArray("RIFF"));
    QCOMPARE(qFromLittleEndian<quint32>(wav.constData() + 4), quint32(36 + 6));
    QCOMPARE(wav.mid(8, 8), QByteArray("WAVEfmt "));
    QCOMPARE(qFromLittleEndian<quint16>(wav.constData() + 22), quint16(1)); // mono
    QCOMPARE(qFromLittleEndian<quint32>(wav.constData() + 24), quint32(16000));
    QCOMPARE(qFromLittleEndian<quint16>(wav.constData() + 34), quint16(16));
    QCOMPARE(wav.mid(36, 4), QByteArray("data"));
    QCOMPARE(qFromLittleEndian<quint32>(wav.constData() + 40), quint32(6));
    QCOMPARE(wav.mid(44), pcm);
}

void ServerRules::speechReplyText()
{
    QString why;
    QCOMPARE(
        OpenAiSpeechEngine::replyText("{\"text\":\" Hello there.\\n\"}", &why).value_or(u"-"_s), u"Hello there."_s);
    QCOMPARE(OpenAiSpeechEngine::replyText("{\"text\":\"\"}", &why).value_or(u"-"_s), QString());
    QVERIFY(!OpenAiSpeechEngine::replyText("{\"text\": \"half", &why).has_value());
    QCOMPARE(why, u"malformed JSON in the answer"_s);
    QVERIFY(!OpenAiSpeechEngine::replyText("[\"text\"]", &why).has_value());
    QCOMPARE(why, u"malformed JSON in the answer"_s);
    QVERIFY(!OpenAiSpeechEngine::replyText("{\"text\":42}", &why).has_value());
    QCOMPARE(why, u"no \"text\" in the answer"_s);
    QVERIFY(!OpenAiSpeechEngine::replyText("{\"segments\":[]}", &why).has_value());
}

void ServerRules::speechEndpointAddress()
{
    SpeechEndpoint endpoint;
    endpoint.url = QUrl(u"http://gpu-box:8080/v1/"_s);
    QCOMPARE(endpoint.transcriptionsUrl(), QUrl(u"http://gpu-box:8080/v1/audio/transcriptions"_s));
    endpoint.url = QUrl(u"https://api.example/v1/audio/transcriptions"_s);
    QCOMPARE(endpoint.transcriptionsUrl(), QUrl(u"https://api.example/v1/audio/transcriptions"_s));
}

void ServerRules::speechOptions()
{
    QTemporaryDir dir;
    const QString keyPath = dir.filePath(u"key"_s);
    QFile key(keyPath);
    QVERIFY(key.open(QIODevice::WriteOnly));
    key.write("sk-abc123\n");
    key.close();
    QVERIFY(key.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner));

    const QProcessEnvironment none;
    ParsedOptions parsed = parseOptions({ u"quillet-server"_s, u"--speech-url"_s, u"http://h:8080/v1"_s,
                                            u"--speech-key-file"_s, keyPath, u"--speech-language"_s, u"en"_s },
        none);
    QCOMPARE(int(parsed.action), int(ParsedOptions::Action::Run));
    QCOMPARE(parsed.options.speechEngine, u"openai"_s);
    QCOMPARE(parsed.options.speech.apiKey, u"sk-abc123"_s);
    QCOMPARE(parsed.options.speech.model, u"whisper-1"_s);
    QCOMPARE(parsed.options.speech.language, u"en"_s);
    QCOMPARE(parsed.options.speech.timeoutMs, 10'000);
    QCOMPARE(parsed.options.speech.maxRequests, 0);

    // The same from the environment; the command line wins.
    QProcessEnvironment environment;
    environment.insert(u"QUILLET_SPEECH_URL"_s, u"http://env:1/v1"_s);
    environment.insert(u"QUILLET_SPEECH_MODEL"_s, u"large-v3"_s);
    environment.insert(u"QUILLET_SPEECH_TIMEOUT"_s, u"7"_s);
    environment.insert(u"QUILLET_SPEECH_MAX_REQUESTS"_s, u"3"_s);
    environment.insert(u"QUILLET_SPEECH_API_KEY"_s, u"sk-from-env"_s);
    parsed = parseOptions({ u"quillet-server"_s, u"--speech-model"_s, u"small"_s }, environment);
    QCOMPARE(int(parsed.action), int(ParsedOptions::Action::Run));
    QCOMPARE(parsed.options.speechEngine, u"openai"_s);
    QCOMPARE(parsed.options.speech.url, QUrl(u"http://env:1/v1"_s));
    QCOMPARE(parsed.options.speech.model, u"small"_s);
    QCOMPARE(parsed.options.speech.timeoutMs, 7000);
    QCOMPARE(parsed.options.speech.maxRequests, 3);
    QCOMPARE(parsed.options.speech.apiKey, u"sk-from-env"_s);

    environment.insert(u"QUILLET_SPEECH_TIMEOUT"_s, u"soon"_s);
    parsed = parseOptions({ u"quillet-server"_s }, environment);
    QCOMPARE(int(parsed.action), int(ParsedOptions::Action::Fail));
    QCOMPARE(parsed.text, u"QUILLET_SPEECH_TIMEOUT needs a whole number from 1 to 600"_s);

    // A key others can read is refused, and the refusal does not quote it.
    QVERIFY(key.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther));
    parsed = parseOptions(
        { u"quillet-server"_s, u"--speech-url"_s, u"http://h/v1"_s, u"--speech-key-file"_s, keyPath }, none);
    QCOMPARE(int(parsed.action), int(ParsedOptions::Action::Fail));
    QVERIFY2(parsed.text.contains(u"can be read by other users"_s), qPrintable(parsed.text));
    QVERIFY(!parsed.text.contains(u"sk-abc123"_s));

    parsed = parseOptions({ u"quillet-server"_s, u"--speech-timeout"_s, u"5"_s }, none);
    QCOMPARE(parsed.text, u"--speech-timeout needs --speech-engine openai"_s);
    parsed = parseOptions({ u"quillet-server"_s, u"--speech-engine"_s, u"openai"_s }, none);
    QCOMPARE(parsed.text, u"--speech-engine openai needs --speech-url with an http or https address"_s);
}

QTEST_GUILESS_MAIN(ServerRules)
#include "tst_server_rules.moc"
