#include "services/TextServiceRequest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkReply>

using namespace Qt::StringLiterals;

std::optional<QUrl> TextServiceRequest::address(const QString& base, QStringView path)
{
    // A relative address (an empty base) is still sent, and fails as a request would.
    QUrl url(base + path.toString(), QUrl::StrictMode);
    if (!url.isValid())
        return std::nullopt;
    return url;
}

QNetworkRequest TextServiceRequest::build(const QUrl& url, const QString& token, std::chrono::milliseconds timeout)
{
    QNetworkRequest request(url);
    request.setTransferTimeout(static_cast<int>(timeout.count()));
    request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
    request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    return request;
}

QJsonObject TextServiceRequest::body(const QString& text, const QStringList& dictionary)
{
    return QJsonObject { { u"text"_s, text }, { u"dictionary"_s, QJsonArray::fromStringList(dictionary) } };
}

std::optional<int> TextServiceRequest::httpStatus(const QNetworkReply& reply)
{
    // Qt reports an HTTP error status as an error too (codes 200 and up); only the
    // connection-level errors below 200 mean there is no whole answer to read.
    const QNetworkReply::NetworkError error = reply.error();
    if (error != QNetworkReply::NoError && error < QNetworkReply::ContentAccessDenied)
        return std::nullopt;
    const QVariant attribute = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!attribute.isValid())
        return std::nullopt;
    return attribute.toInt();
}

std::optional<QString> TextServiceRequest::decodeText(const QByteArray& body)
{
    QJsonParseError error {};
    const QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    const QJsonValue text = doc.object().value(u"text"_s);
    if (!text.isString())
        return std::nullopt;
    return text.toString();
}
