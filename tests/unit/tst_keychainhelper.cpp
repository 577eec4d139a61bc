#include "MemorySecretStore.h"
#include "StdoutCapture.h"
#include "TestTokens.h"
#include "services/KeychainHelper.h"

#include <QtTest>

using namespace Qt::StringLiterals;

// The token store's own logic over a recording fake of the secret store. The same
// behaviour against the real Secret Service and the file store is checked by the
// integration tests.
class TestKeychainHelper : public QObject
{
    Q_OBJECT

    MemorySecretStore* m_store = nullptr;

    static QString tokenWithPayloadText(const QByteArray& payload) { return TestTokens::withPayload(payload); }

private Q_SLOTS:
    void init()
    {
        auto store = std::make_unique<MemorySecretStore>();
        m_store = store.get();
        KeychainHelper::setStore(std::move(store));
    }
    void cleanup() { KeychainHelper::setStore(nullptr); }

    void saveDeletesThenAdds()
    {
        KeychainHelper::save(u"quillet.access_token"_s, u"first"_s);
        KeychainHelper::save(u"quillet.access_token"_s, u"second"_s);
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::optional<QString>(u"second"_s));
        QCOMPARE(m_store->calls,
            (QStringList { u"remove:quillet.access_token"_s, u"add:quillet.access_token"_s,
                u"remove:quillet.access_token"_s, u"add:quillet.access_token"_s, u"copy:quillet.access_token"_s }));
    }
    void loadOfMissingItemGivesNothing() { QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::nullopt); }
    void loadOfBytesThatAreNotUtf8GivesNothing()
    {
        m_store->items.insert(u"quillet.access_token"_s, QByteArray("\xff\xfe\x80", 3));
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::nullopt);
    }
    void tokensAreStoredAsUtf8()
    {
        KeychainHelper::save(u"quillet.refresh_token"_s, u"tök€n"_s);
        QCOMPARE(m_store->items.value(u"quillet.refresh_token"_s), u"tök€n"_s.toUtf8());
    }
    void clearTokensRemovesAccessThenRefresh()
    {
        KeychainHelper::save(u"quillet.access_token"_s, u"a"_s);
        KeychainHelper::save(u"quillet.refresh_token"_s, u"r"_s);
        m_store->calls.clear();
        KeychainHelper::clearTokens();
        QCOMPARE(m_store->calls, (QStringList { u"remove:quillet.access_token"_s, u"remove:quillet.refresh_token"_s }));
        QVERIFY(m_store->items.isEmpty());
    }

    void aLockedKeyringIsReportedAsLockedNotAsSignedOut()
    {
        KeychainHelper::save(u"quillet.access_token"_s, TestTokens::expiringIn(900));
        m_store->locked = true;
        StdoutCapture out;
        const KeychainHelper::Read read = QCoro::waitFor(KeychainHelper::loadAsync(u"quillet.access_token"_s));
        QCOMPARE(read.value, std::nullopt);
        QCOMPARE(read.status, SecretStore::Status::Locked);
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::nullopt);
        QCOMPARE(
            out.lines(), QStringList { u"⚠️ [Quillet] the keyring is locked: unlock it to use your sign-in"_s });
        // Nothing was forgotten: unlocked, the token is there again.
        m_store->locked = false;
        QVERIFY(QCoro::waitFor(KeychainHelper::validAccessToken()).has_value());
    }
    void aFailedSaveIsReportedAndLogged()
    {
        m_store->locked = true;
        StdoutCapture out;
        QCOMPARE(
            QCoro::waitFor(KeychainHelper::saveAsync(u"quillet.access_token"_s, u"a"_s)), SecretStore::Status::Locked);
        QCOMPARE(KeychainHelper::save(u"quillet.refresh_token"_s, u"r"_s), SecretStore::Status::Locked);
        QCOMPARE(out.lines(),
            (QStringList { u"✗ [Quillet] could not save quillet.access_token: the keyring is locked"_s,
                u"✗ [Quillet] could not save quillet.refresh_token: the keyring is locked"_s }));
    }
    void storeCallsKeepTheirOrderAcrossTheKeychainThread()
    {
        QCoro::Task<SecretStore::Status> first = KeychainHelper::saveAsync(u"quillet.access_token"_s, u"1"_s);
        QCoro::Task<SecretStore::Status> second = KeychainHelper::saveAsync(u"quillet.access_token"_s, u"2"_s);
        QCoro::Task<KeychainHelper::Read> read = KeychainHelper::loadAsync(u"quillet.access_token"_s);
        QCOMPARE(QCoro::waitFor(std::move(read)).value, std::optional<QString>(u"2"_s));
        QCOMPARE(QCoro::waitFor(std::move(first)), SecretStore::Status::Success);
        QCOMPARE(QCoro::waitFor(std::move(second)), SecretStore::Status::Success);
    }

    void expiry_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<bool>("expiring");
        const double now = 1'800'000'000.0;
        auto payload = [](const QByteArray& json) { return TestTokens::withPayload(json); };
        auto expAt = [&](double seconds) {
            return payload("{\"exp\":" + QByteArray::number(static_cast<qint64>(now + seconds)) + "}");
        };
        QTest::newRow("61 s left is sent") << expAt(61) << false;
        QTest::newRow("exactly 60 s left is renewed") << expAt(60) << true;
        QTest::newRow("59 s left") << expAt(59) << true;
        QTest::newRow("expired") << expAt(-10) << true;
        QTest::newRow("an hour left") << expAt(3600) << false;
        QTest::newRow("no dot") << u"abcdef"_s << true;
        QTest::newRow("empty") << QString() << true;
        QTest::newRow("only dots") << u"..."_s << true;
        const QString full = expAt(3600);
        QTest::newRow("two segments accepted") << full.section(u'.', 0, 1) << false;
        QTest::newRow("empty header piece skipped")
            << u"."_s + full.section(u'.', 1, 1) + u".sig"_s << true; // the payload becomes the first piece
        QTest::newRow("exp as text") << payload(R"({"exp":"1900000000"})") << true;
        QTest::newRow("missing exp") << payload(R"({"sub":"u"})") << true;
        QTest::newRow("payload not json") << TestTokens::withPayload("not json") << true;
        QTest::newRow("payload is an array") << payload("[1800009999]") << true;
        QTest::newRow("bad base64") << u"aGVhZGVy.!!!!.c2ln"_s << true;
        QTest::newRow("fractional exp") << payload("{\"exp\":" + QByteArray::number(now + 60.5, 'f', 1) + "}") << false;
    }
    void expiry()
    {
        QFETCH(QString, token);
        QFETCH(bool, expiring);
        QCOMPARE(KeychainHelper::isExpiringSoon(token, 1'800'000'000.0), expiring);
    }
    void payloadNeedingTwoPadsDecodes()
    {
        // {"exp":1900000000,"a":"b"} is 26 bytes: base64url of it is 35 characters, padded with one "=";
        // find a payload whose unpadded length is 2 mod 4 so it needs "==".
        QByteArray json = R"({"exp":1900000000})";
        while (json.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals).size() % 4 != 2)
            json.insert(1, ' ');
        const QString token = u"h."_s
            + QString::fromLatin1(json.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals))
            + u".s"_s;
        QCOMPARE(KeychainHelper::isExpiringSoon(token, 1'800'000'000.0), false);
    }
    void urlSafeCharactersAreTranslated()
    {
        // Bytes chosen so the base64url form contains both "-" and "_".
        QByteArray json = R"({"exp":1900000000,"k":"~~~???>>>"})";
        const QByteArray encoded = json.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
        QVERIFY(encoded.contains('-') || encoded.contains('_'));
        const QString token = u"h."_s + QString::fromLatin1(encoded) + u".s"_s;
        QCOMPARE(KeychainHelper::isExpiringSoon(token, 1'800'000'000.0), false);
    }
    void expiryAgainstTheRealClock()
    {
        QCOMPARE(KeychainHelper::isExpiringSoon(TestTokens::expiringIn(3600)), false);
        QCOMPARE(KeychainHelper::isExpiringSoon(TestTokens::expiringIn(30)), true);
    }

    void validAccessTokenSignedOutGivesNothing()
    {
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::nullopt);
    }
    void validAccessTokenFreshTokenIsSentAsItIs()
    {
        const QString token = TestTokens::expiringIn(3600);
        KeychainHelper::save(u"quillet.access_token"_s, token);
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::optional<QString>(token));
    }
    void refreshWithoutRefreshTokenGivesNothingWithoutRequest()
    {
        KeychainHelper::save(u"quillet.access_token"_s, TestTokens::expiringIn(10));
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::nullopt);
        QVERIFY(m_store->items.contains(u"quillet.access_token"_s));
    }

    void migrationMovesBothLegacyItems()
    {
        m_store->items.insert(u"corvel.access_token"_s, "legacy-access");
        m_store->items.insert(u"corvel.refresh_token"_s, "legacy-refresh");
        KeychainHelper::migrateIfNeeded();
        QCOMPARE(m_store->items.value(u"quillet.access_token"_s), QByteArray("legacy-access"));
        QCOMPARE(m_store->items.value(u"quillet.refresh_token"_s), QByteArray("legacy-refresh"));
        QVERIFY(!m_store->items.contains(u"corvel.access_token"_s));
        QVERIFY(!m_store->items.contains(u"corvel.refresh_token"_s));
    }
    void migrationWithOnlyLegacyAccessChangesNothing()
    {
        m_store->items.insert(u"corvel.access_token"_s, "legacy-access");
        KeychainHelper::migrateIfNeeded();
        QCOMPARE(m_store->items.keys(), QStringList { u"corvel.access_token"_s });
    }
    void migrationWhenAlreadySignedInChangesNothing()
    {
        m_store->items.insert(u"quillet.access_token"_s, "current");
        m_store->items.insert(u"corvel.access_token"_s, "legacy-access");
        m_store->items.insert(u"corvel.refresh_token"_s, "legacy-refresh");
        KeychainHelper::migrateIfNeeded();
        QCOMPARE(m_store->items.size(), 3);
        QCOMPARE(m_store->items.value(u"quillet.access_token"_s), QByteArray("current"));
        QCOMPARE(m_store->calls, QStringList { u"copy:quillet.access_token"_s });
    }
    void migrationWithoutLegacyItemsChangesNothing()
    {
        KeychainHelper::migrateIfNeeded();
        QVERIFY(m_store->items.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestKeychainHelper)
#include "tst_keychainhelper.moc"
