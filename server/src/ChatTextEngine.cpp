#include "ChatTextEngine.h"

#include "Log.h"
#include "RuleTextEngine.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QPointer>
#include <QTimer>

using namespace Qt::Literals::StringLiterals;

namespace {

QString toneInstruction(Tone tone)
{
    switch (tone) {
    case Tone::Professional:
        return u"Rewrite it in a professional tone: clear, polite and businesslike, without slang or contractions."_s;
    case Tone::Friendly:
        return u"Rewrite it in a friendly, warm and casual tone."_s;
    case Tone::Funny:
        return u"Rewrite it in a light, funny tone, keeping the message intact."_s;
    case Tone::Firm:
        return u"Rewrite it in a firm, direct tone: no hedging, no apologies, clear requests."_s;
    case Tone::Supportive:
        return u"Rewrite it in a supportive, encouraging and kind tone."_s;
    case Tone::Concise:
        return u"Rewrite it as concisely as possible, keeping every fact."_s;
    }
    return {};
}

} // namespace

QUrl ChatEndpoint::completionsUrl() const
{
    QUrl full = url;
    QString path = full.path();
    if (!path.endsWith(u"/chat/completions"_s)) {
        while (path.endsWith(u'/'))
            path.chop(1);
        full.setPath(path + u"/chat/completions"_s);
    }
    return full;
}

ChatTextEngine::ChatTextEngine(ChatEndpoint endpoint, TextEngine& fallback)
    : m_endpoint(std::move(endpoint))
    , m_fallback(fallback)
{ }

QString ChatTextEngine::name() const
{
    return u"chat:"_s + m_endpoint.model;
}

QString ChatTextEngine::instructions(const TextRequest& request)
{
    QString text = u"You edit dictated text that a speech recogniser produced. "_s;
    if (request.tone)
        text += toneInstruction(*request.tone) + u' ';
    else
        text += u"Clean it up: remove filler words and stutters, fix punctuation and capitalisation, and keep the "
                "speaker's words and meaning. "_s;
    if (!request.dictionary.isEmpty())
        text += u"Write these terms exactly as given: "_s + request.dictionary.join(u", "_s) + u". "_s;
    text += u"Reply with the resulting text only, without quotes or comments."_s;
    return text;
}

std::optional<QString> ChatTextEngine::replyText(const QByteArray& body)
{
    const QJsonDocument doc = QJsonDocument::fromJson(body);
    const QJsonValue content = doc.object()
                                   .value(u"choices"_s)
                                   .toArray()
                                   .at(0)
                                   .toObject()
                                   .value(u"message"_s)
                                   .toObject()
                                   .value(u"content"_s);
    if (!content.isString())
        return std::nullopt;
    const QString text = content.toString().trimmed();
    if (text.isEmpty())
        return std::nullopt;
    return text;
}

void ChatTextEngine::fallBack(
    const TextRequest& request, QObject* context, const std::function<void(QString)>& done, const QString& why)
{
    Log::line(Log::Kind::Warning, u"chat endpoint failed (%1); answering with the rule engine"_s.arg(why));
    m_fallback.process(request, context, done);
}

void ChatTextEngine::process(const TextRequest& request, QObject* context, std::function<void(QString)> done)
{
    QNetworkRequest http(m_endpoint.completionsUrl());
    http.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    if (!m_endpoint.apiKey.isEmpty())
        http.setRawHeader("Authorization", "Bearer " + m_endpoint.apiKey.toUtf8());
    const int timeoutMs = request.tone ? m_endpoint.rewriteTimeoutMs : m_endpoint.cleanupTimeoutMs;
    http.setTransferTimeout(timeoutMs);

    const QJsonObject body {
        { u"model"_s, m_endpoint.model },
        { u"temperature"_s, 0.2 },
        { u"messages"_s,
            QJsonArray { QJsonObject { { u"role"_s, u"system"_s }, { u"content"_s, instructions(request) } },
                QJsonObject { { u"role"_s, u"user"_s }, { u"content"_s, request.text } } } },
    };
    QNetworkReply* reply = m_network.post(http, QJsonDocument(body).toJson(QJsonDocument::Compact));
    // The transfer timeout only measures silence; this one bounds the whole exchange.
    QTimer::singleShot(timeoutMs, reply, [reply] { reply->abort(); });
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
    QObject::connect(reply, &QNetworkReply::finished, context, [this, reply, request, context, done] {
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (reply->error() != QNetworkReply::NoError) {
            fallBack(request, context, done, reply->errorString());
            return;
        }
        if (status != 200) {
            fallBack(request, context, done, u"status %1"_s.arg(status));
            return;
        }
        const auto text = replyText(reply->readAll());
        if (!text) {
            fallBack(request, context, done, u"no text in the reply"_s);
            return;
        }
        done(RuleTextEngine::applyDictionary(*text, request.dictionary));
    });
}
