#include "TestInfoFile.h"
#include "services/AppConfig.h"

#include <QtTest>

using namespace Qt::StringLiterals;

class TestAppConfig : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void missingFileGivesLoopbackDefaults()
    {
        AppConfig::setInfoFilePathForTesting(u"/nonexistent/quillet-info.json"_s);
        QCOMPARE(AppConfig::apiBaseURL(), u"http://127.0.0.1:8000"_s);
        QCOMPARE(AppConfig::siteURL(), u"http://127.0.0.1:3000"_s);
        AppConfig::setInfoFilePathForTesting({});
    }
    void fileWithoutKeysGivesDefaults()
    {
        TestInfoFile info(QJsonObject { { u"CFBundleShortVersionString"_s, u"1.2"_s } });
        QCOMPARE(AppConfig::apiBaseURL(), u"http://127.0.0.1:8000"_s);
        QCOMPARE(AppConfig::siteURL(), u"http://127.0.0.1:3000"_s);
    }
    void emptyFileGivesDefaults()
    {
        TestInfoFile info(QJsonObject {});
        QCOMPARE(AppConfig::apiBaseURL(), u"http://127.0.0.1:8000"_s);
    }
    void fileThatIsNotAnObjectGivesDefaults()
    {
        TestInfoFile info(QByteArray("[1, 2]"));
        QCOMPARE(AppConfig::apiBaseURL(), u"http://127.0.0.1:8000"_s);
        TestInfoFile broken(QByteArray("{ not json"));
        QCOMPARE(AppConfig::siteURL(), u"http://127.0.0.1:3000"_s);
    }
    void numberGivesDefaultNotConversion()
    {
        TestInfoFile info(QJsonObject { { u"API_BASE_URL"_s, 8080 }, { u"SITE_URL"_s, true } });
        QCOMPARE(AppConfig::apiBaseURL(), u"http://127.0.0.1:8000"_s);
        QCOMPARE(AppConfig::siteURL(), u"http://127.0.0.1:3000"_s);
    }
    void emptyTextIsReturnedAsIs()
    {
        TestInfoFile info(QJsonObject { { u"API_BASE_URL"_s, u""_s }, { u"SITE_URL"_s, u""_s } });
        QCOMPARE(AppConfig::apiBaseURL(), u""_s);
        QCOMPARE(AppConfig::siteURL(), u""_s);
    }
    void blanksAreKept()
    {
        TestInfoFile info(QJsonObject { { u"API_BASE_URL"_s, u"  https://api.example.test  "_s },
            { u"SITE_URL"_s, u"\thttps://example.test\n"_s } });
        QCOMPARE(AppConfig::apiBaseURL(), u"  https://api.example.test  "_s);
        QCOMPARE(AppConfig::siteURL(), u"\thttps://example.test\n"_s);
    }
    void fileIsReadOnEveryAccess()
    {
        QTemporaryFile file;
        QVERIFY(file.open());
        file.write("{\"API_BASE_URL\":\"http://first.test\"}");
        file.flush();
        AppConfig::setInfoFilePathForTesting(file.fileName());
        QCOMPARE(AppConfig::apiBaseURL(), u"http://first.test"_s);
        file.resize(0);
        file.write("{\"API_BASE_URL\":\"http://second.test\"}");
        file.flush();
        QCOMPARE(AppConfig::apiBaseURL(), u"http://second.test"_s);
        AppConfig::setInfoFilePathForTesting({});
    }
    void buildWritesInformationFileBesideExecutables()
    {
        // The test binaries live beside the build's own information file.
        AppConfig::setInfoFilePathForTesting({});
        const std::optional<QJsonObject> info = AppConfig::readInfo();
        QVERIFY2(info.has_value(), "quillet-info.json is missing beside the executable");
        QCOMPARE(AppConfig::shortVersion(), std::optional<QString>(QStringLiteral(QUILLET_VERSION)));
    }
};

QTEST_GUILESS_MAIN(TestAppConfig)
#include "tst_appconfig.moc"
