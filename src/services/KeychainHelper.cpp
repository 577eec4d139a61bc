#include "services/KeychainHelper.h"

#include "platform/SecretStore.h"
#include "services/AppConfig.h"
#include "services/AuthNotifier.h"
#include "services/Log.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QStringDecoder>
#include <QUrl>

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
    storeSlot() = std::move(store);
}

std::optional<QString> KeychainHelper::load(const QString& key)
{
    QByteArray data;
    if (store().copy(key, data) != SecretStore::Status::Success)
        return std::nullopt;
    return decodeUtf8(data);
}

void KeychainHelper::save(const QString& key, const QString& value)
{
    const QByteArray data = value.toUtf8();
    store().remove(key);
    store().add(key, data);
}

void KeychainHelper::remove(const QString& key)
{
    store().remove(key);
}

void KeychainHelper::clearTokens()
{
    remove(accessTokenKey);
    remove(refreshTokenKey);
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
    const std::optional<QString> refreshToken = load(refreshTokenKey);
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
        if (doc.isObject() && access.isString() && refresh.isString()) {
            save(accessTokenKey, access.toString());
            save(refreshTokenKey, refresh.toString());
            Log::write(Log::Symbol::Refreshed, u"access token refreshed");
            co_return access.toString();
        }
    } else if (status == 401) {
        Log::write(Log::Symbol::Failure, u"refresh token is invalid \u2014 clearing keychain");
        clearTokens();
        Q_EMIT AuthNotifier::instance().quilletAuthInvalidated();
        co_return std::nullopt;
    }

    Log::write(Log::Symbol::Failure, QString(u"token refresh failed (status="_s + QString::number(status) + u')'));
    co_return std::nullopt;
}

QCoro::Task<std::optional<QString>> KeychainHelper::validAccessToken()
{
    std::optional<QString> token = load(accessTokenKey);
    if (!token)
        co_return std::nullopt;
    if (!isExpiringSoon(*token))
        co_return token;
    co_return co_await performRefresh();
}

void KeychainHelper::migrateIfNeeded()
{
    if (load(accessTokenKey))
        return;
    const std::optional<QString> legacyAccess = load(legacyAccessTokenKey);
    if (!legacyAccess)
        return;
    const std::optional<QString> legacyRefresh = load(legacyRefreshTokenKey);
    if (!legacyRefresh)
        return;
    save(accessTokenKey, *legacyAccess);
    save(refreshTokenKey, *legacyRefresh);
    remove(legacyAccessTokenKey);
    remove(legacyRefreshTokenKey);
}
