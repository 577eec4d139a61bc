#include "services/KeychainHelper.h"

#include "platform/SecretStore.h"
#include "services/AppConfig.h"
#include "services/AuthNotifier.h"
#include "services/Log.h"
#include "services/TokenShape.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QPromise>
#include <QStringDecoder>
#include <QThreadPool>
#include <QUrl>

#include <QCoroFuture>
#include <QCoroNetworkReply>

using namespace Qt::StringLiterals;

const QString KeychainHelper::accessTokenKey = u"quillet.access_token"_s;
const QString KeychainHelper::refreshTokenKey = u"quillet.refresh_token"_s;
const QString KeychainHelper::legacyAccessTokenKey = u"corvel.access_token"_s;
const QString KeychainHelper::legacyRefreshTokenKey = u"corvel.refresh_token"_s;

namespace {

std::unique_ptr<SecretStore>& storeSlot()
{
    static std::unique_ptr<SecretStore> slot;
    return slot;
}

std::optional<QString> decodeUtf8(const QByteArray& bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

constexpr int kRefreshTimeoutMs = 60'000;
constexpr double kExpiryMarginSeconds = 60.0;

// The one thread that talks to the secret store. One thread, so calls keep their
// order (a save's delete and add, then the next read) and a store that is not
// thread-safe is only ever used from one place.
QThreadPool& keychainThread()
{
    static QThreadPool* pool = [] {
        auto* threads = new QThreadPool; // lives as long as the process: a call may still be waiting at exit
        threads->setMaxThreadCount(1);
        threads->setExpiryTimeout(-1);
        return threads;
    }();
    return *pool;
}

// Runs work on the keychain thread; its result arrives through the future.
template <typename Work> auto onKeychainThread(Work work) -> QFuture<decltype(work())>
{
    using Result = decltype(work());
    auto promise = std::make_shared<QPromise<Result>>();
    QFuture<Result> future = promise->future();
    promise->start();
    keychainThread().start([promise, work = std::move(work)]() mutable {
        promise->addResult(work());
        promise->finish();
    });
    return future;
}

// The blocking forms wait here; never from the keychain thread itself.
template <typename Result> Result waitFor(QFuture<Result> future)
{
    future.waitForFinished();
    return future.result();
}

KeychainHelper::Read readItem(const QString& key)
{
    QByteArray data;
    const SecretStore::Status status = KeychainHelper::store().copy(key, data);
    if (status != SecretStore::Status::Success)
        return { std::nullopt, status };
    std::optional<QString> text = decodeUtf8(data);
    return { text, text ? SecretStore::Status::Success : SecretStore::Status::NotFound };
}

SecretStore::Status writeItem(const QString& key, const QString& value)
{
    const QByteArray data = value.toUtf8();
    KeychainHelper::store().remove(key);
    return KeychainHelper::store().add(key, data);
}

void removeItem(const QString& key)
{
    KeychainHelper::store().remove(key);
}

QString describe(SecretStore::Status status)
{
    switch (status) {
    case SecretStore::Status::Locked:
        return u"the keyring is locked"_s;
    case SecretStore::Status::Unavailable:
        return u"the secret store did not answer"_s;
    case SecretStore::Status::Duplicate:
        return u"the secret store already held it"_s;
    case SecretStore::Status::NotFound:
    case SecretStore::Status::Success:
        break;
    }
    return u"the secret store refused it"_s;
}

void reportFailedSave(const QString& key, SecretStore::Status status)
{
    if (status == SecretStore::Status::Success)
        return;
    Log::write(Log::Symbol::Failure, u"could not save %1: %2"_s.arg(key, describe(status)));
}

void reportLocked()
{
    Log::write(Log::Symbol::Warning, u"the keyring is locked: unlock it to use your sign-in"_s);
}

void migrateItems()
{
    if (readItem(KeychainHelper::accessTokenKey).value)
        return;
    const std::optional<QString> legacyAccess = readItem(KeychainHelper::legacyAccessTokenKey).value;
    if (!legacyAccess)
        return;
    const std::optional<QString> legacyRefresh = readItem(KeychainHelper::legacyRefreshTokenKey).value;
    if (!legacyRefresh)
        return;
    reportFailedSave(KeychainHelper::accessTokenKey, writeItem(KeychainHelper::accessTokenKey, *legacyAccess));
    reportFailedSave(KeychainHelper::refreshTokenKey, writeItem(KeychainHelper::refreshTokenKey, *legacyRefresh));
    removeItem(KeychainHelper::legacyAccessTokenKey);
    removeItem(KeychainHelper::legacyRefreshTokenKey);
}

// The renewal in progress, shared by everyone who asks while it runs.
struct RefreshFlight {
    QFuture<std::optional<QString>> answer;
    bool running = false;
};

RefreshFlight& refreshFlight()
{
    static RefreshFlight flight;
    return flight;
}

} // namespace

SecretStore& KeychainHelper::store()
{
    std::unique_ptr<SecretStore>& slot = storeSlot();
    if (!slot)
        slot = makeSystemSecretStore();
    return *slot;
}

void KeychainHelper::setStore(std::unique_ptr<SecretStore> store)
{
    keychainThread().waitForDone();
    storeSlot() = std::move(store);
}

QCoro::Task<KeychainHelper::Read> KeychainHelper::loadAsync(QString key)
{
    const QFuture<Read> read = onKeychainThread([key] { return readItem(key); });
    const Read result = co_await read;
    co_return result;
}

QCoro::Task<SecretStore::Status> KeychainHelper::saveAsync(QString key, QString value)
{
    const QFuture<SecretStore::Status> written = onKeychainThread([key, value] { return writeItem(key, value); });
    const SecretStore::Status status = co_await written;
    reportFailedSave(key, status);
    co_return status;
}

QCoro::Task<> KeychainHelper::clearTokensAsync()
{
    const QFuture<bool> cleared = onKeychainThread([] {
        removeItem(accessTokenKey);
        removeItem(refreshTokenKey);
        return true;
    });
    co_await cleared;
}

QCoro::Task<> KeychainHelper::migrateIfNeededAsync()
{
    const QFuture<bool> migrated = onKeychainThread([] {
        migrateItems();
        return true;
    });
    co_await migrated;
}

std::optional<QString> KeychainHelper::load(const QString& key)
{
    return waitFor(onKeychainThread([key] { return readItem(key); })).value;
}

SecretStore::Status KeychainHelper::save(const QString& key, const QString& value)
{
    const SecretStore::Status status = waitFor(onKeychainThread([key, value] { return writeItem(key, value); }));
    reportFailedSave(key, status);
    return status;
}

void KeychainHelper::clearTokens()
{
    waitFor(onKeychainThread([] {
        removeItem(accessTokenKey);
        removeItem(refreshTokenKey);
        return true;
    }));
}

void KeychainHelper::migrateIfNeeded()
{
    waitFor(onKeychainThread([] {
        migrateItems();
        return true;
    }));
}

bool KeychainHelper::isExpiringSoon(QStringView token)
{
    const double now = static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
    return isExpiringSoon(token, now);
}

bool KeychainHelper::isExpiringSoon(QStringView token, double nowSeconds)
{
    const auto pieces = token.split(u'.', Qt::SkipEmptyParts);
    if (pieces.size() < 2)
        return true;

    QByteArray payload = pieces.at(1).toLatin1();
    payload.replace('-', '+').replace('_', '/');
    while (payload.size() % 4 != 0)
        payload.append('=');
    // Strict standard base64: any character outside its alphabet is a decoding failure.
    const auto decoded = QByteArray::fromBase64Encoding(payload, QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return true;

    QJsonParseError error {};
    const QJsonDocument doc = QJsonDocument::fromJson(decoded.decoded, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return true;
    const QJsonValue exp = doc.object().value(u"exp"_s);
    if (!exp.isDouble())
        return true;
    return exp.toDouble() - kExpiryMarginSeconds <= nowSeconds;
}

QNetworkAccessManager& KeychainHelper::network()
{
    static QNetworkAccessManager manager;
    return manager;
}

QCoro::Task<std::optional<QString>> KeychainHelper::performRefresh()
{
    RefreshFlight& flight = refreshFlight();
    if (!flight.running) {
        flight.running = true;
        auto promise = std::make_shared<QPromise<std::optional<QString>>>();
        promise->start();
        flight.answer = promise->future();
        // Started here and left to run: it answers through the promise, whoever is still waiting.
        answerRefresh(std::move(promise));
    }
    const QFuture<std::optional<QString>> answer = flight.answer;
    const std::optional<QString> token = co_await answer;
    co_return token;
}

QCoro::Task<> KeychainHelper::answerRefresh(std::shared_ptr<QPromise<std::optional<QString>>> answer)
{
    const std::optional<QString> token = co_await refreshOnce();
    refreshFlight().running = false;
    answer->addResult(token);
    answer->finish();
}

QCoro::Task<std::optional<QString>> KeychainHelper::refreshOnce()
{
    const Read stored = co_await loadAsync(refreshTokenKey);
    const std::optional<QString> refreshToken = stored.value;
    if (!refreshToken)
        co_return std::nullopt;

    // A relative address (an empty base) is still sent, and fails as a request would.
    const QUrl url(AppConfig::apiBaseURL() + u"/auth/refresh"_s, QUrl::StrictMode);
    if (!url.isValid())
        co_return std::nullopt;

    QNetworkRequest request(url);
    request.setTransferTimeout(kRefreshTimeoutMs);
    request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    const QByteArray body
        = QJsonDocument(QJsonObject { { u"refresh_token"_s, *refreshToken } }).toJson(QJsonDocument::Compact);

    QPointer<QNetworkReply> reply = network().post(request, body);
    co_await reply.get();
    if (!reply)
        co_return std::nullopt;
    reply->deleteLater();

    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!statusAttribute.isValid() && reply->error() != QNetworkReply::NoError) {
        Log::write(Log::Symbol::Failure, QString(u"token refresh error: "_s + reply->errorString()));
        co_return std::nullopt;
    }
    const int status = statusAttribute.isValid() ? statusAttribute.toInt() : -1;

    if (status == 200) {
        const QJsonDocument doc = QJsonDocument::fromJson(reply->readAll());
        const QJsonValue access = doc.object().value(u"access_token"_s);
        const QJsonValue refresh = doc.object().value(u"refresh_token"_s);
        // Tokens of the wrong shape would end up in request headers: such a reply is unusable.
        const QString newAccess = access.toString();
        const QString newRefresh = refresh.toString();
        if (doc.isObject() && access.isString() && refresh.isString() && TokenShape::isAccessToken(newAccess)
            && TokenShape::isRefreshToken(newRefresh)) {
            co_await saveAsync(accessTokenKey, newAccess);
            co_await saveAsync(refreshTokenKey, newRefresh);
            Log::write(Log::Symbol::Refreshed, u"access token refreshed");
            co_return newAccess;
        }
    } else if (status == 401) {
        Log::write(Log::Symbol::Failure, u"refresh token is invalid \u2014 clearing keychain");
        co_await clearTokensAsync();
        Q_EMIT AuthNotifier::instance().quilletAuthInvalidated();
        co_return std::nullopt;
    }

    Log::write(Log::Symbol::Failure, QString(u"token refresh failed (status="_s + QString::number(status) + u')'));
    co_return std::nullopt;
}

QCoro::Task<std::optional<QString>> KeychainHelper::validAccessToken()
{
    const Read token = co_await loadAsync(accessTokenKey);
    if (!token.value) {
        if (token.status == SecretStore::Status::Locked)
            reportLocked();
        co_return std::nullopt;
    }
    if (!isExpiringSoon(*token.value))
        co_return token.value;
    const std::optional<QString> renewed = co_await performRefresh();
    co_return renewed;
}
