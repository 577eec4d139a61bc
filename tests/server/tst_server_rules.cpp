// The server's pure parts on their own: the rule text engine, HS256 tokens and the
// stream's message parsing.
#include "Jwt.h"
#include "RuleTextEngine.h"
#include "StreamProtocol.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

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

QTEST_GUILESS_MAIN(ServerRules)
#include "tst_server_rules.moc"
