#include "services/RewriteService.h"

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

std::unique_ptr<RewriteService>& sharedSlot()
{
    static std::unique_ptr<RewriteService> slot;
    return slot;
}

constexpr int kForbidden = 403;

} // namespace

RewriteService::RewriteService(std::chrono::milliseconds timeout, QObject* parent)
    : QObject(parent)
    , m_timeout(timeout)
{ }

RewriteService::~RewriteService()
{
    // Deleting a reply would leave its awaiting coroutine suspended for ever; an abort
    // finishes it, and the coroutine touches nothing of ours after the network wait.
    const auto replies = m_network.findChildren<QNetworkReply*>();
    for (QNetworkReply* reply : replies)
        reply->abort();
}

RewriteService& RewriteService::shared()
{
    std::unique_ptr<RewriteService>& slot = sharedSlot();
    if (!slot)
        slot = std::make_unique<RewriteService>();
    return *slot;
}

void RewriteService::resetShared(std::unique_ptr<RewriteService> service)
{
    sharedSlot() = std::move(service);
}

QCoro::Task<std::optional<QString>> RewriteService::rewrite(QString text, Tone tone)
{
    QPointer<RewriteService> self(this);
    const std::optional<QString> token = co_await KeychainHelper::validAccessToken();
    if (!self || !token)
        co_return std::nullopt;

    // Read at every request, so a change in the settings counts from the next dictation.
    const QStringList dictionary = SettingsStore::shared().dictionary();
    const std::optional<QUrl> url = TextServiceRequest::address(AppConfig::apiBaseURL(), u"/rewrite");
    if (!url)
        co_return std::nullopt;

    QJsonObject json = TextServiceRequest::body(text, dictionary);
    json.insert(u"tone"_s, Tones::rawValue(tone));
    const QByteArray body = QJsonDocument(json).toJson(QJsonDocument::Compact);
    QPointer<QNetworkReply> reply = m_network.post(TextServiceRequest::build(*url, *token, m_timeout), body);
    co_await reply.get();
    if (!reply)
        co_return std::nullopt;
    reply->deleteLater();

    const std::optional<int> status = TextServiceRequest::httpStatus(*reply);
    // A refusal (the account may not rewrite) is never read, whatever its body says.
    if (!status || *status == kForbidden)
        co_return std::nullopt;
    co_return TextServiceRequest::decodeText(reply->readAll());
}
