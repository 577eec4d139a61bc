#pragma once

#include "TextEngine.h"

#include <QNetworkAccessManager>
#include <QUrl>

struct ChatEndpoint {
    QUrl url; // a base such as http://host/v1, or the full .../chat/completions address
    QString model;
    QString apiKey; // optional
    // Shorter than the client's own limits (10 s and 15 s), so that a slow model still
    // leaves time to answer with the rule engine's text.
    int cleanupTimeoutMs = 8000;
    int rewriteTimeoutMs = 12000;

    QUrl completionsUrl() const;
};

// Forwards clean-up and rewrite to an OpenAI-compatible chat-completions endpoint, and
// answers with the fallback engine's text whenever the endpoint fails, times out or says
// nothing usable. Dictionary spellings are enforced on the model's answer afterwards.
class ChatTextEngine final : public TextEngine
{
public:
    ChatTextEngine(ChatEndpoint endpoint, TextEngine& fallback);

    QString name() const override;
    void process(const TextRequest& request, QObject* context, std::function<void(QString)> done) override;

    static QString instructions(const TextRequest& request);
    // The assistant's text from a chat-completions reply body, or nothing.
    static std::optional<QString> replyText(const QByteArray& body);

private:
    void fallBack(
        const TextRequest& request, QObject* context, const std::function<void(QString)>& done, const QString& why);

    ChatEndpoint m_endpoint;
    TextEngine& m_fallback;
    QNetworkAccessManager m_network;
};
