#include "app/SignInLink.h"

#include <QtTest>

using namespace Qt::StringLiterals;

class TestSignInLink : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void bothTokens()
    {
        const auto result = SignInLink::parse(u"quillet://auth?token=A&refresh=R"_s);
        const auto* tokens = std::get_if<SignInLink::Tokens>(&result);
        QVERIFY(tokens);
        QCOMPARE(tokens->accessToken, u"A"_s);
        QCOMPARE(tokens->refreshToken, u"R"_s);
    }
    void valuesArePercentDecodedButPlusStays()
    {
        const auto result = SignInLink::parse(u"quillet://auth?refresh=r%2Fs%3D%3D&token=a.b+c&source=x"_s);
        const auto* tokens = std::get_if<SignInLink::Tokens>(&result);
        QVERIFY(tokens);
        QCOMPARE(tokens->accessToken, u"a.b+c"_s);
        QCOMPARE(tokens->refreshToken, u"r/s=="_s);
    }
    void emptyValueCountsAsPresent()
    {
        const auto result = SignInLink::parse(u"quillet://auth?token=&refresh=R"_s);
        const auto* tokens = std::get_if<SignInLink::Tokens>(&result);
        QVERIFY(tokens);
        QCOMPARE(tokens->accessToken, QString());
    }
    void oneTokenIsIncomplete()
    {
        QVERIFY(std::holds_alternative<SignInLink::Incomplete>(SignInLink::parse(u"quillet://auth?token=A"_s)));
        QVERIFY(std::holds_alternative<SignInLink::Incomplete>(SignInLink::parse(u"quillet://auth"_s)));
    }
    void itemWithoutValueDoesNotCount()
    {
        QVERIFY(std::holds_alternative<SignInLink::Incomplete>(SignInLink::parse(u"quillet://auth?token=A&refresh"_s)));
        // Nor does it clash with a valued item of the same name.
        QVERIFY(
            std::holds_alternative<SignInLink::Tokens>(SignInLink::parse(u"quillet://auth?token&token=A&refresh=R"_s)));
    }
    void foreignLinks_data()
    {
        QTest::addColumn<QString>("link");
        QTest::newRow("other host") << u"quillet://other?token=A&refresh=R"_s;
        QTest::newRow("longer host") << u"quillet://authority?token=A&refresh=R"_s;
        QTest::newRow("upper-case scheme") << u"QUILLET://auth?token=A&refresh=R"_s;
        QTest::newRow("upper-case host") << u"quillet://AUTH?token=A&refresh=R"_s;
        QTest::newRow("other scheme") << u"https://auth?token=A&refresh=R"_s;
        QTest::newRow("port") << u"quillet://auth:80?token=A&refresh=R"_s;
        QTest::newRow("not a link") << u"hello"_s;
        QTest::newRow("empty") << QString();
    }
    void foreignLinks()
    {
        QFETCH(QString, link);
        QVERIFY(std::holds_alternative<SignInLink::Foreign>(SignInLink::parse(link)));
    }
    void repeatedNameIsRefused()
    {
        const auto result = SignInLink::parse(u"quillet://auth?token=A&refresh=R&token=B"_s);
        const auto* repeated = std::get_if<SignInLink::RepeatedName>(&result);
        QVERIFY(repeated);
        QCOMPARE(repeated->name, u"token"_s);
    }
};

QTEST_GUILESS_MAIN(TestSignInLink)
#include "tst_signinlink.moc"
