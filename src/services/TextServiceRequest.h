#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QString>
#include <QStringList>
#include <QStringView>
#include <QUrl>

#include <chrono>
#include <optional>

class QNetworkReply;

// The parts the clean-up and rewrite requests share, as plain functions: the address,
// the request, the body and the reading of the reply.
namespace TextServiceRequest {

// `base` followed by `path`, when that is a valid address.
std::optional<QUrl> address(const QString& base, QStringView path);

// A POST carrying the bearer token and a JSON body. The timeout is the network's idle
// timeout: it fires when nothing has moved on the connection for that long.
QNetworkRequest build(const QUrl& url, const QString& token, std::chrono::milliseconds timeout);

// {"text": text, "dictionary": [...]}: the dictionary is always there, empty or not.
QJsonObject body(const QString& text, const QStringList& dictionary);

// The reply's HTTP status, or nothing when the exchange failed below HTTP: refused,
// dropped, timed out, or cut short in the middle of the body.
std::optional<int> httpStatus(const QNetworkReply& reply);

// The "text" of a reply body that is a JSON object whose "text" is a string; other keys
// are ignored. Anything else gives nothing.
std::optional<QString> decodeText(const QByteArray& body);

} // namespace TextServiceRequest
