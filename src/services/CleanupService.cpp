#include "services/CleanupService.h"

#include "services/AppConfig.h"
#include "services/KeychainHelper.h"
#include "services/SettingsStore.h"
#include "services/TextServiceRequest.h"

#include <QJsonDocument>
#include <QNetworkReply>
#include <QPointer>

#include <QCoroNetworkReply>

using namespace Qt::StringLiterals;

namespace {

std::unique_ptr<CleanupService>& sharedSlot()
{
    static std::unique_ptr<CleanupService> slot;
    return slot;
}

} // namespace

CleanupService::CleanupService(std::chrono::milliseconds timeout, QObject* parent)
    : QObject(parent)
    , m_timeout(timeout)
{ }

CleanupService::~CleanupService()
{
    // Deleting a reply would leave its awaiting coroutine suspended for ever; an abort
    // finishes it, and the coroutine touches nothing of ours after the network wait.
    const auto replies = m_network.findChildren<QNetworkReply*>();
    for (QNetworkReply* reply : replies)
        reply->abort();
}

CleanupService& CleanupService::shared()
{
    std::unique_ptr<CleanupService>& slot = sharedSlot();
    if (!slot)
        slot = std::make_unique<CleanupService>();
    return *slot;
}

void CleanupService::resetShared(std::unique_ptr<CleanupService> service)
{
    sharedSlot() = std::move(service);
}

QCoro::Task<std::optional<QString>> CleanupService::cleanup(QString text)
{
    QPointer<CleanupService> self(this);
    const std::optional<QString> token = co_await KeychainHelper::validAccessToken();
    if (!self || !token)
        co_return std::nullopt;

    // Read at every request, so a change in the settings counts from the next dictation.
    const QStringList dictionary = SettingsStore::shared().dictionary();
    const std::optional<QUrl> url = TextServiceRequest::address(AppConfig::apiBaseURL(), u"/cleanup");
    if (!url)
        co_return std::nullopt;

    const QByteArray body = QJsonDocument(TextServiceRequest::body(text, dictionary)).toJson(QJsonDocument::Compact);
    QPointer<QNetworkReply> reply = m_network.post(TextServiceRequest::build(*url, *token, m_timeout), body);
    co_await reply.get();
    if (!reply)
        co_return std::nullopt;
    reply->deleteLater();

    // The status is not looked at: an error reply simply has no "text", and a reply of
    // any status that carries one is taken.
    if (!TextServiceRequest::httpStatus(*reply))
        co_return std::nullopt;
    co_return TextServiceRequest::decodeText(reply->readAll());
}
