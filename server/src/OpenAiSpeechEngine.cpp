#include "OpenAiSpeechEngine.h"

#include "Log.h"

#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QTimer>
#include <QtEndian>

#include <algorithm>
#include <cstring>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr int sampleRate = 16000;
// Qt's HTTP/1.1 connections per host and manager.
constexpr int connectionsPerNetwork = 6;

QString seconds(int ms)
{
    return ms % 1000 == 0 ? u"%1 s"_s.arg(ms / 1000) : u"%1 s"_s.arg(double(ms) / 1000.0, 0, 'f', 1);
}

// Why a reply failed, in words for the log: never the request's headers, so never the key.
QString failureCause(QNetworkReply* reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status != 0 && (status < 200 || status > 299))
        return u"HTTP status %1"_s.arg(status);
    switch (reply->error()) {
    case QNetworkReply::NoError:
        return {};
    case QNetworkReply::ConnectionRefusedError:
        return u"connection refused"_s;
    case QNetworkReply::RemoteHostClosedError:
        return u"the endpoint closed the connection"_s;
    case QNetworkReply::HostNotFoundError:
        return u"host not found"_s;
    case QNetworkReply::TimeoutError:
        return u"connection timed out"_s;
    case QNetworkReply::SslHandshakeFailedError:
        return u"TLS handshake failed"_s;
    default:
        return u"network error %1"_s.arg(int(reply->error()));
    }
}

// One utterance: the embedded engine's partials while the user speaks, the endpoint's
// text at the end, the embedded engine's text when the endpoint fails.
class RemoteStream final : public SpeechStream, private SpeechSink
{
public:
    RemoteStream(OpenAiSpeechEngine& engine, SpeechEngine* embedded, SpeechSink* sink)
        : m_engine(engine)
        , m_sink(sink)
        , m_embeddedName(embedded ? embedded->name() : QString())
    {
        if (embedded)
            m_embedded = embedded->open(&m_context, this);
    }

    ~RemoteStream() override
    {
        if (m_remote == Remote::Pending)
            m_engine.withdraw(&m_request);
    }

    void feed(QByteArray pcm) override
    {
        if (m_stopped)
            return;
        m_pcm += pcm;
        if (m_embedded && m_embeddedState == Embedded::Running)
            m_embedded->feed(std::move(pcm));
    }

    void finish() override
    {
        if (m_stopped)
            return;
        m_stopped = true;
        if (m_embedded && m_embeddedState == Embedded::Running)
            m_embedded->finish();
        if (m_pcm.isEmpty()) {
            // Nothing was said; there is nothing to send.
            m_remote = Remote::Skipped;
            if (!m_embedded)
                QTimer::singleShot(0, &m_context, [this] { settle(); });
            return;
        }
        m_request.wav = OpenAiSpeechEngine::wavFile(m_pcm);
        m_pcm = QByteArray();
        m_request.done = [this](std::optional<QString> text, const QString& cause) { answered(text, cause); };
        m_remote = Remote::Pending;
        m_engine.submit(&m_request);
    }

private:
    enum class Remote { Idle, Pending, Answered, Failed, Skipped };
    enum class Embedded { Running, Finished, Failed };

    void answered(const std::optional<QString>& text, const QString& cause)
    {
        if (text) {
            m_remote = Remote::Answered;
            m_answer = *text;
        } else {
            m_remote = Remote::Failed;
            m_cause = cause;
            if (m_embedded && m_embeddedState != Embedded::Failed)
                Log::line(Log::Kind::Warning,
                    u"speech endpoint failed (%1); the final comes from %2"_s.arg(cause, m_embeddedName));
        }
        settle();
    }

    // The embedded engine's results.
    void speechPartial(const QString& text) override
    {
        if (m_stopped)
            return;
        QStringList shown = m_segments;
        shown << text;
        showPartial(shown.join(u' '));
    }

    void speechFinal(const QString& text) override
    {
        m_segments << text;
        // A finished segment stays on screen as provisional text: the endpoint's final
        // replaces the whole utterance at the end.
        if (!m_stopped)
            showPartial(m_segments.join(u' '));
    }

    void speechFinished() override
    {
        m_embeddedState = Embedded::Finished;
        settle();
    }

    void speechFailed(const QString& reason) override
    {
        if (m_embeddedState != Embedded::Running)
            return;
        m_embeddedState = Embedded::Failed;
        m_embeddedFailure = reason;
        if (m_stopped)
            settle();
    }

    void showPartial(const QString& text)
    {
        if (text.isEmpty() || text == m_lastPartial)
            return;
        m_lastPartial = text;
        m_sink->speechPartial(text);
    }

    // Delivers the outcome once everything it depends on is known. The sink's last call may
    // destroy this stream, so nothing follows it.
    void settle()
    {
        if (m_settled || !m_stopped)
            return;
        switch (m_remote) {
        case Remote::Idle:
        case Remote::Pending:
            return;
        case Remote::Answered:
            m_settled = true;
            if (!m_answer.isEmpty())
                m_sink->speechFinal(m_answer);
            m_sink->speechFinished();
            return;
        case Remote::Failed:
        case Remote::Skipped:
            break;
        }
        if (!m_embedded) {
            m_settled = true;
            if (m_remote == Remote::Skipped)
                m_sink->speechFinished();
            else
                m_sink->speechFailed(u"speech endpoint: "_s + m_cause);
            return;
        }
        switch (m_embeddedState) {
        case Embedded::Running:
            return; // its last segment is still being decoded
        case Embedded::Finished:
            m_settled = true;
            if (!m_segments.isEmpty())
                m_sink->speechFinal(m_segments.join(u' '));
            m_sink->speechFinished();
            return;
        case Embedded::Failed:
            m_settled = true;
            m_sink->speechFailed(m_remote == Remote::Skipped
                    ? m_embeddedFailure
                    : u"speech endpoint: %1; %2: %3"_s.arg(m_cause, m_embeddedName, m_embeddedFailure));
            return;
        }
    }

    OpenAiSpeechEngine& m_engine;
    SpeechSink* m_sink;
    QString m_embeddedName;
    // Context of the embedded engine's deliveries and of queued calls: gone with the stream.
    QObject m_context;
    OpenAiSpeechEngine::Request m_request;
    std::unique_ptr<SpeechStream> m_embedded;
    Embedded m_embeddedState = Embedded::Running;
    QString m_embeddedFailure;
    Remote m_remote = Remote::Idle;
    QString m_answer;
    QString m_cause;
    QByteArray m_pcm;
    QStringList m_segments;
    QString m_lastPartial;
    bool m_stopped = false;
    bool m_settled = false;
};

} // namespace

QUrl SpeechEndpoint::transcriptionsUrl() const
{
    QUrl full = url;
    QString path = full.path();
    if (!path.endsWith(u"/audio/transcriptions"_s)) {
        while (path.endsWith(u'/'))
            path.chop(1);
        full.setPath(path + u"/audio/transcriptions"_s);
    }
    return full;
}

OpenAiSpeechEngine::OpenAiSpeechEngine(SpeechEndpoint endpoint, SpeechEngine* embedded)
    : m_endpoint(std::move(endpoint))
    , m_embedded(embedded)
    , m_limit(std::max(1, m_endpoint.maxRequests > 0 ? m_endpoint.maxRequests : 8))
{ }

OpenAiSpeechEngine::~OpenAiSpeechEngine() = default;

QString OpenAiSpeechEngine::name() const
{
    return u"openai:"_s + m_endpoint.model;
}

std::unique_ptr<SpeechStream> OpenAiSpeechEngine::open(QObject*, SpeechSink* sink)
{
    // Results reach the sink from this thread's event loop, through the stream's own context.
    return std::make_unique<RemoteStream>(*this, m_embedded, sink);
}

QJsonObject OpenAiSpeechEngine::endpointStatus() const
{
    QJsonObject status {
        { u"model"_s, m_endpoint.model },
        { u"fallback"_s, m_embedded ? QJsonValue(m_embedded->name()) : QJsonValue(QJsonValue::Null) },
        { u"answered_last_request"_s, m_lastAnswered ? QJsonValue(*m_lastAnswered) : QJsonValue(QJsonValue::Null) },
        { u"requests_in_flight"_s, m_inFlight },
        { u"requests_waiting"_s, int(m_waiting.size()) },
        { u"request_limit"_s, m_limit },
    };
    if (m_lastAnswered == false)
        status.insert(u"last_failure"_s, m_lastFailure);
    return status;
}

void OpenAiSpeechEngine::setRequestLimit(int limit)
{
    m_limit = std::max(1, limit);
    startWaiting();
}

QByteArray OpenAiSpeechEngine::wavFile(const QByteArray& pcm)
{
    QByteArray wav(44, Qt::Uninitialized);
    char* h = wav.data();
    const auto dataBytes = quint32(pcm.size());
    std::memcpy(h, "RIFF", 4);
    qToLittleEndian<quint32>(36 + dataBytes, h + 4);
    std::memcpy(h + 8, "WAVEfmt ", 8);
    qToLittleEndian<quint32>(16, h + 16); // format chunk size
    qToLittleEndian<quint16>(1, h + 20); // PCM
    qToLittleEndian<quint16>(1, h + 22); // mono
    qToLittleEndian<quint32>(sampleRate, h + 24);
    qToLittleEndian<quint32>(sampleRate * 2, h + 28); // bytes per second
    qToLittleEndian<quint16>(2, h + 32); // bytes per frame
    qToLittleEndian<quint16>(16, h + 34); // bits per sample
    std::memcpy(h + 36, "data", 4);
    qToLittleEndian<quint32>(dataBytes, h + 40);
    return wav + pcm;
}

std::optional<QString> OpenAiSpeechEngine::replyText(const QByteArray& body, QString* why)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        *why = u"malformed JSON in the answer"_s;
        return std::nullopt;
    }
    const QJsonValue text = doc.object().value(u"text"_s);
    if (!text.isString()) {
        *why = u"no \"text\" in the answer"_s;
        return std::nullopt;
    }
    // Whisper's servers put a space before the text and often a line break after it.
    return text.toString().simplified();
}

void OpenAiSpeechEngine::submit(Request* request)
{
    // The deadline counts from "stop", so a request that waited for a slot gets less time.
    QTimer::singleShot(m_endpoint.timeoutMs, &request->guard, [this, request] { timedOut(request); });
    request->queued = true;
    m_waiting.push_back(request);
    startWaiting();
}

void OpenAiSpeechEngine::withdraw(Request* request)
{
    if (request->queued) {
        request->queued = false;
        m_waiting.erase(std::remove(m_waiting.begin(), m_waiting.end(), request), m_waiting.end());
        return;
    }
    if (QNetworkReply* reply = std::exchange(request->reply, nullptr)) {
        reply->disconnect(&request->guard);
        reply->abort();
        reply->deleteLater();
        release(request);
        startWaiting();
    }
}

void OpenAiSpeechEngine::startWaiting()
{
    while (m_inFlight < m_limit && !m_waiting.empty()) {
        Request* request = m_waiting.front();
        m_waiting.pop_front();
        request->queued = false;
        start(request);
    }
}

size_t OpenAiSpeechEngine::quietestNetwork()
{
    const size_t needed = size_t((m_limit + connectionsPerNetwork - 1) / connectionsPerNetwork);
    while (m_networks.size() < needed) {
        m_networks.push_back(std::make_unique<QNetworkAccessManager>());
        m_networkLoad.push_back(0);
    }
    return size_t(std::min_element(m_networkLoad.begin(), m_networkLoad.end()) - m_networkLoad.begin());
}

void OpenAiSpeechEngine::start(Request* request)
{
    ++m_inFlight;
    request->network = quietestNetwork();
    ++m_networkLoad[request->network];

    QNetworkRequest http(m_endpoint.transcriptionsUrl());
    if (!m_endpoint.apiKey.isEmpty())
        http.setRawHeader("Authorization", "Bearer " + m_endpoint.apiKey.toUtf8());
    http.setRawHeader("Accept", "application/json");

    auto* form = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    QHttpPart file;
    file.setRawHeader("Content-Disposition", R"(form-data; name="file"; filename="audio.wav")");
    file.setRawHeader("Content-Type", "audio/wav");
    file.setBody(request->wav);
    form->append(file);
    auto field = [form](const char* name, const QString& value) {
        QHttpPart part;
        part.setRawHeader("Content-Disposition", QByteArray(R"(form-data; name=")") + name + '"');
        part.setBody(value.toUtf8());
        form->append(part);
    };
    field("model", m_endpoint.model);
    if (!m_endpoint.language.isEmpty())
        field("language", m_endpoint.language);
    field("response_format", u"json"_s);

    request->reply = m_networks[request->network]->post(http, form);
    form->setParent(request->reply);
    QObject::connect(request->reply, &QNetworkReply::finished, &request->guard, [this, request] { finished(request); });
}

void OpenAiSpeechEngine::release(Request* request)
{
    --m_inFlight;
    --m_networkLoad[request->network];
}

void OpenAiSpeechEngine::finished(Request* request)
{
    QNetworkReply* reply = std::exchange(request->reply, nullptr);
    reply->deleteLater();
    release(request);
    QString cause = failureCause(reply);
    std::optional<QString> text;
    if (cause.isEmpty())
        text = replyText(reply->readAll(), &cause);
    m_lastAnswered = text.has_value();
    m_lastFailure = cause;
    startWaiting();
    // May destroy the request and its stream.
    request->done(text, cause);
}

void OpenAiSpeechEngine::timedOut(Request* request)
{
    if (!request->queued && !request->reply)
        return; // answered already
    withdraw(request);
    const QString cause = u"no answer within %1"_s.arg(seconds(m_endpoint.timeoutMs));
    m_lastAnswered = false;
    m_lastFailure = cause;
    request->done(std::nullopt, cause);
}
