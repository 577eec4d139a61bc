#pragma once

#include "SpeechEngine.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QUrl>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QNetworkReply;

struct SpeechEndpoint {
    QUrl url; // a base such as http://gpu-box:8080/v1, or the full .../audio/transcriptions address
    QString model = QStringLiteral("whisper-1");
    QString apiKey; // optional; never logged
    QString language; // optional ISO-639-1 code
    int timeoutMs = 10'000; // from "stop" to the answer, waiting for a free request slot included
    int maxRequests = 0; // requests in flight at once; 0: the stream limit

    QUrl transcriptionsUrl() const;
};

// Recognises each utterance with an OpenAI-compatible POST .../audio/transcriptions
// (whisper.cpp's server, speaches, LocalAI, vLLM, hosted services), while an embedded
// engine, when there is one, keeps the stream live with partials and stands by.
//
// While the user speaks, the embedded engine's partials go out as they come, and its
// finished segments go out as partials too (the endpoint's text will replace them), so
// the client's provisional line shows everything said so far. At "stop" the whole
// utterance goes to the endpoint as one WAV, and its text is the stream's only final.
// When the endpoint fails in any way, the embedded engine's own text is the final and one
// log line says why; without an embedded engine the failure is the stream's.
//
// Every stream sends its own request as soon as it stops; at most maxRequests are in
// flight, the rest wait their turn in the order they stopped. Everything here runs on the
// event loop's thread and never blocks it.
class OpenAiSpeechEngine final : public SpeechEngine
{
public:
    // `embedded` may be null (no model installed): the endpoint alone serves, without partials.
    OpenAiSpeechEngine(SpeechEndpoint endpoint, SpeechEngine* embedded);
    ~OpenAiSpeechEngine() override;

    QString name() const override;
    std::unique_ptr<SpeechStream> open(QObject* context, SpeechSink* sink) override;
    QJsonObject endpointStatus() const override;

    // Requests in flight at once from now on (the stream limit, once it is measured).
    void setRequestLimit(int limit);
    int requestLimit() const { return m_limit; }

    // A RIFF/WAVE file around 16 kHz mono signed 16-bit little-endian samples.
    static QByteArray wavFile(const QByteArray& pcm);
    // The transcript in a response body, or why there is none.
    static std::optional<QString> replyText(const QByteArray& body, QString* why);

    // One utterance's request, owned by its stream. The engine starts it when a slot is
    // free and calls `done` with the text or, on failure, nothing and the cause.
    struct Request {
        QByteArray wav;
        std::function<void(std::optional<QString> text, const QString& cause)> done;
        // Context of the request's reply and deadline: destroying the request cancels both.
        QObject guard;
        QNetworkReply* reply = nullptr;
        size_t network = 0;
        bool queued = false;
    };
    void submit(Request* request);
    // Drops a request that is waiting or in flight; its `done` is not called.
    void withdraw(Request* request);

private:
    void startWaiting();
    void start(Request* request);
    void finished(Request* request);
    void timedOut(Request* request);
    void release(Request* request);
    size_t quietestNetwork();

    SpeechEndpoint m_endpoint;
    SpeechEngine* m_embedded;
    int m_limit;
    std::deque<Request*> m_waiting;
    int m_inFlight = 0;
    // Qt opens at most six connections to one host per manager and queues the rest inside
    // it, which would make one slow answer hold up the streams behind it; so requests are
    // spread over as many managers as the limit needs.
    std::vector<std::unique_ptr<QNetworkAccessManager>> m_networks;
    std::vector<int> m_networkLoad;
    std::optional<bool> m_lastAnswered;
    QString m_lastFailure;
};
