#include "StdoutCapture.h"
#include "TestTokens.h"
#include "platform/SecretStore.h"
#include "services/KeychainHelper.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <QSemaphore>
#include <QTimer>
#include <QtTest>

#include <atomic>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

// The token store on the secret store this session really offers: run once with an
// unlocked Secret Service (gnome-keyring) and once without any, where the private
// file takes over. QUILLET_EXPECT_SECRET_BACKEND names the one expected.
class TestSecretStore : public QObject
{
    Q_OBJECT

    QString m_expected;

    SecretStore& store() { return KeychainHelper::store(); }

    void wipe()
    {
        for (const QString& key : { KeychainHelper::accessTokenKey, KeychainHelper::refreshTokenKey,
                 KeychainHelper::legacyAccessTokenKey, KeychainHelper::legacyRefreshTokenKey })
            store().remove(key);
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_expected = qEnvironmentVariable("QUILLET_EXPECT_SECRET_BACKEND");
        QVERIFY2(!m_expected.isEmpty(), "set QUILLET_EXPECT_SECRET_BACKEND to \"Secret Service\" or \"file\"");
        KeychainHelper::setStore(nullptr); // the system's choice
    }
    void init() { wipe(); }
    void cleanupTestCase()
    {
        wipe(); // a locked keyring keeps its items: the session's keyring goes with the session
    }

    void theSessionsStoreIsChosen() { QCOMPARE(store().backendName(), m_expected); }

    void copyRemoveAddSemantics()
    {
        QByteArray data;
        QCOMPARE(store().copy(u"quillet.access_token"_s, data), SecretStore::Status::NotFound);
        const SecretStore::Status removedNothing = store().remove(u"quillet.access_token"_s);
        QVERIFY(removedNothing == SecretStore::Status::NotFound || removedNothing == SecretStore::Status::Success);
        QCOMPARE(store().add(u"quillet.access_token"_s, "abc"), SecretStore::Status::Success);
        QCOMPARE(store().copy(u"quillet.access_token"_s, data), SecretStore::Status::Success);
        QCOMPARE(data, QByteArray("abc"));
        QCOMPARE(store().remove(u"quillet.access_token"_s), SecretStore::Status::Success);
        QCOMPARE(store().copy(u"quillet.access_token"_s, data), SecretStore::Status::NotFound);
    }

    void itemsAreKeyedByAccountAlone()
    {
        KeychainHelper::save(u"quillet.access_token"_s, u"access"_s);
        KeychainHelper::save(u"quillet.refresh_token"_s, u"refresh"_s);
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::optional<QString>(u"access"_s));
        QCOMPARE(KeychainHelper::load(u"quillet.refresh_token"_s), std::optional<QString>(u"refresh"_s));
    }

    void saveReplacesAnExistingItem()
    {
        KeychainHelper::save(u"quillet.access_token"_s, u"first"_s);
        KeychainHelper::save(u"quillet.access_token"_s, u"second"_s);
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::optional<QString>(u"second"_s));
    }

    void utf8RoundTrip()
    {
        KeychainHelper::save(u"quillet.refresh_token"_s, u"tök€n-👋"_s);
        QCOMPARE(KeychainHelper::load(u"quillet.refresh_token"_s), std::optional<QString>(u"tök€n-👋"_s));
    }

    void clearTokensRemovesBoth()
    {
        KeychainHelper::save(u"quillet.access_token"_s, u"a"_s);
        KeychainHelper::save(u"quillet.refresh_token"_s, u"r"_s);
        KeychainHelper::clearTokens();
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::nullopt);
        QCOMPARE(KeychainHelper::load(u"quillet.refresh_token"_s), std::nullopt);
    }

    void migrationWithBothLegacyItems()
    {
        KeychainHelper::save(u"corvel.access_token"_s, u"legacy-a"_s);
        KeychainHelper::save(u"corvel.refresh_token"_s, u"legacy-r"_s);
        KeychainHelper::migrateIfNeeded();
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::optional<QString>(u"legacy-a"_s));
        QCOMPARE(KeychainHelper::load(u"quillet.refresh_token"_s), std::optional<QString>(u"legacy-r"_s));
        QCOMPARE(KeychainHelper::load(u"corvel.access_token"_s), std::nullopt);
        QCOMPARE(KeychainHelper::load(u"corvel.refresh_token"_s), std::nullopt);
    }

    void migrationWithOnlyLegacyAccessChangesNothing()
    {
        KeychainHelper::save(u"corvel.access_token"_s, u"legacy-a"_s);
        KeychainHelper::migrateIfNeeded();
        QCOMPARE(KeychainHelper::load(u"corvel.access_token"_s), std::optional<QString>(u"legacy-a"_s));
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::nullopt);
        QCOMPARE(KeychainHelper::load(u"quillet.refresh_token"_s), std::nullopt);
    }

    void migrationWhenSignedInChangesNothing()
    {
        KeychainHelper::save(u"quillet.access_token"_s, u"current"_s);
        KeychainHelper::save(u"corvel.access_token"_s, u"legacy-a"_s);
        KeychainHelper::save(u"corvel.refresh_token"_s, u"legacy-r"_s);
        KeychainHelper::migrateIfNeeded();
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::optional<QString>(u"current"_s));
        QCOMPARE(KeychainHelper::load(u"quillet.refresh_token"_s), std::nullopt);
        QCOMPARE(KeychainHelper::load(u"corvel.refresh_token"_s), std::optional<QString>(u"legacy-r"_s));
    }

    void secretsLiveOnlyWhereTheyShould()
    {
        const QString marker = u"token-marker-5d1c0e"_s;
        KeychainHelper::save(u"quillet.access_token"_s, marker);
        const QString fallback = defaultSecretFilePath();
        if (m_expected == u"file"_s) {
            QVERIFY(QFileInfo::exists(fallback));
            struct stat info {
            };
            QCOMPARE(::stat(QFile::encodeName(fallback).constData(), &info), 0);
            QCOMPARE(info.st_mode & 0777, 0600u);
            QCOMPARE(::stat(QFile::encodeName(QFileInfo(fallback).absolutePath()).constData(), &info), 0);
            QCOMPARE(info.st_mode & 0777, 0700u);
        } else {
            // The Secret Service holds it: the fallback file is never written.
            QVERIFY(!QFileInfo::exists(fallback));
            QProcess lookup;
            lookup.start(u"secret-tool"_s, { u"search"_s, u"--all"_s, u"user"_s, u"quillet.access_token"_s });
            QVERIFY(lookup.waitForFinished(10000));
            QVERIFY2(lookup.readAllStandardOutput().contains("label"), "no Secret Service item for the access token");
        }
        // No plain copy in the user's settings or anywhere else in the configuration folders.
        for (const QString& dir : { qEnvironmentVariable("XDG_CONFIG_HOME"), qEnvironmentVariable("XDG_CACHE_HOME") }) {
            if (dir.isEmpty())
                continue;
            QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories);
            while (it.hasNext()) {
                QFile file(it.next());
                QVERIFY(file.open(QIODevice::ReadOnly));
                QVERIFY2(!file.readAll().contains(marker.toUtf8()), qPrintable(file.fileName()));
            }
        }
    }

    void keychainCallsLetTheEventLoopRun()
    {
        // The session's store, behind a gate that opens only when the program's event
        // loop runs a timer: the store is asked on the token store's own thread, and the
        // GUI thread goes on meanwhile (a key press, the capsule's timers, a sign-in
        // link). Had a call been made on the GUI thread, the gate would never open and
        // the call would fail after 5 s.
        struct GatedStore final : SecretStore {
            std::unique_ptr<SecretStore> inner;
            QSemaphore gate;
            std::atomic<int> timedOut { 0 };
            bool pass()
            {
                if (gate.tryAcquire(1, 5000))
                    return true;
                ++timedOut;
                return false;
            }
            Status copy(const QString& a, QByteArray& d) override
            {
                return pass() ? inner->copy(a, d) : Status::Unavailable;
            }
            Status remove(const QString& a) override { return pass() ? inner->remove(a) : Status::Unavailable; }
            Status add(const QString& a, const QByteArray& d) override
            {
                return pass() ? inner->add(a, d) : Status::Unavailable;
            }
            QString backendName() const override { return inner->backendName(); }
        };
        auto owner = std::make_unique<GatedStore>();
        owner->inner = makeSystemSecretStore();
        QCOMPARE(owner->inner->backendName(), m_expected);
        GatedStore* gated = owner.get();
        KeychainHelper::setStore(std::move(owner));
        auto restore = qScopeGuard([] { KeychainHelper::setStore(nullptr); });
        // Each operation's store calls are let through by the event loop, from a timer.
        const auto openFromTheLoop
            = [&](int calls) { QTimer::singleShot(0, this, [gated, calls] { gated->gate.release(calls); }); };

        const QString token = TestTokens::expiringIn(3600);
        openFromTheLoop(2);
        QCOMPARE(
            QCoro::waitFor(KeychainHelper::saveAsync(u"quillet.access_token"_s, token)), SecretStore::Status::Success);
        openFromTheLoop(1);
        QCOMPARE(
            QCoro::waitFor(KeychainHelper::loadAsync(u"quillet.access_token"_s)).value, std::optional<QString>(token));
        openFromTheLoop(1);
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::optional<QString>(token));
        openFromTheLoop(2);
        QCoro::waitFor(KeychainHelper::clearTokensAsync());
        openFromTheLoop(2);
        QCoro::waitFor(KeychainHelper::migrateIfNeededAsync()); // signed out, no legacy items: two reads
        QCOMPARE(gated->timedOut.load(), 0);
        gated->gate.release(1);
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::nullopt);
    }

    void itemsOfTheEarlierBuildAreFound()
    {
        if (m_expected != u"Secret Service"_s)
            QSKIP("only the Secret Service kept items of the earlier build");
        // Items exactly as the QtKeychain-based build wrote them: binary data as base64
        // text, and text written as plain text by other QtKeychain users.
        const auto storeLikeBefore = [this](const QString& account, const QString& type, const QByteArray& secret) {
            QProcess tool;
            tool.start(u"secret-tool"_s,
                { u"store"_s, u"--label=Quillet"_s, u"xdg:schema"_s, u"org.qt.keychain"_s, u"user"_s, account,
                    u"server"_s, u"Quillet"_s, u"type"_s, type });
            QVERIFY(tool.waitForStarted());
            tool.write(secret);
            tool.closeWriteChannel();
            QVERIFY(tool.waitForFinished(10000));
            QCOMPARE(tool.exitCode(), 0);
        };
        storeLikeBefore(u"quillet.access_token"_s, u"base64"_s, QByteArray("tök€n").toBase64());
        storeLikeBefore(u"quillet.refresh_token"_s, u"plaintext"_s, "refresh-plain");
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::optional<QString>(u"tök€n"_s));
        QCOMPARE(KeychainHelper::load(u"quillet.refresh_token"_s), std::optional<QString>(u"refresh-plain"_s));
        KeychainHelper::clearTokens();
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::nullopt);
        QCOMPARE(KeychainHelper::load(u"quillet.refresh_token"_s), std::nullopt);
    }

    void unreadableFallbackFileCountsAsMissing()
    {
        if (m_expected != u"file"_s)
            QSKIP("only the file store has a file to damage");
        KeychainHelper::save(u"quillet.access_token"_s, u"a"_s);
        {
            QFile file(defaultSecretFilePath());
            QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
            file.write("{ damaged");
        }
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::nullopt);
        // Writes fail silently rather than throwing the damaged file away.
        KeychainHelper::save(u"quillet.access_token"_s, u"b"_s);
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::nullopt);
        QFile::remove(defaultSecretFilePath());
        KeychainHelper::save(u"quillet.access_token"_s, u"c"_s);
        QCOMPARE(KeychainHelper::load(u"quillet.access_token"_s), std::optional<QString>(u"c"_s));
    }

    // Last: the keyring stays locked for the rest of this session.
    void zzLockedKeyringIsReportedAsLocked()
    {
        if (m_expected != u"Secret Service"_s)
            QSKIP("only the Secret Service can be locked");
        KeychainHelper::save(u"quillet.access_token"_s, u"locked-away"_s);
        // As after a suspend: the user's keyring is locked while Quillet runs.
        QProcess lock;
        lock.start(u"dbus-send"_s,
            { u"--session"_s, u"--print-reply"_s, u"--dest=org.freedesktop.secrets"_s, u"/org/freedesktop/secrets"_s,
                u"org.freedesktop.Secret.Service.Lock"_s,
                u"array:objpath:/org/freedesktop/secrets/collection/login"_s });
        QVERIFY(lock.waitForFinished(10000));
        QCOMPARE(lock.exitCode(), 0);

        StdoutCapture out;
        QObject context;
        int queuedRuns = 0;
        QMetaObject::invokeMethod(
            &context, [&] { ++queuedRuns; }, Qt::QueuedConnection);
        const KeychainHelper::Read read = QCoro::waitFor(KeychainHelper::loadAsync(u"quillet.access_token"_s));
        QCOMPARE(queuedRuns, 1);
        QCOMPARE(read.status, SecretStore::Status::Locked);
        QCOMPARE(read.value, std::nullopt);
        // Not "signed out": the log says what is wrong.
        QCOMPARE(QCoro::waitFor(KeychainHelper::validAccessToken()), std::nullopt);
        // A save fails at once, and says so.
        const SecretStore::Status saved
            = QCoro::waitFor(KeychainHelper::saveAsync(u"quillet.refresh_token"_s, u"refresh-token"_s));
        QCOMPARE(saved, SecretStore::Status::Locked);
        QCOMPARE(out.lines(),
            (QStringList { u"⚠️ [Quillet] the keyring is locked: unlock it to use your sign-in"_s,
                u"✗ [Quillet] could not save quillet.refresh_token: the keyring is locked"_s }));
        // The keyring was not swapped for the private file.
        QCOMPARE(makeSystemSecretStore()->backendName(), u"Secret Service"_s);
    }
};

QTEST_GUILESS_MAIN(TestSecretStore)
#include "tst_secretstore.moc"
