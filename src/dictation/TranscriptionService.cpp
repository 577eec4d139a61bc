#include "dictation/TranscriptionService.h"

#include "services/AppConfig.h"
#include "services/KeychainHelper.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>
#include <QWebSocket>

#include <QCoroWebSocket>

#include <bit>
#include <cstdlib>

using namespace Qt::StringLiterals;

namespace {

// What connect() reports when its owner went away while it was waiting.
StreamConnectFailure cancelled()
{
    return { std::nullopt, u"The dictation was cancelled."_s };
}

} // namespace

static_assert(std::endian::native == std::endian::little, "audio is sent as little-endian PCM");

QString TranscriptionError::errorDescription() const
{
    switch (m_case) {
    case notSignedIn:
        return u"Sign in to Quillet to use dictation."_s;
    case connectionTimeout:
        return u"Connection timed out. Check your internet connection."_s;
    }
    return {};
}

TranscriptionService::TranscriptionService(QObject* parent)
    : QObject(parent)
{ }

TranscriptionService::~TranscriptionService()
{
    // The owner is done with the stream; the socket must not report into a dead object.
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket->abort();
    }
}

QString TranscriptionService::streamAddress(const QString& apiBaseURL)
{
    QString address = apiBaseURL;
    address.replace(u"https://"_s, u"wss://"_s);
    address.replace(u"http://"_s, u"ws://"_s);
    return address + u"/ws/transcribe"_s;
}

QByteArray TranscriptionService::audioMessage(std::span<const qint16> samples)
{
    static constexpr char prefix[] = R"({"type":"audio","data":")";
    static constexpr char suffix[] = R"("})";
    const auto pcm = QByteArray::fromRawData(
        reinterpret_cast<const char*>(samples.data()), static_cast<qsizetype>(samples.size_bytes()));
    const QByteArray encoded = pcm.toBase64();
    QByteArray message;
    message.reserve(static_cast<qsizetype>(sizeof prefix + sizeof suffix) + encoded.size());
    message.append(prefix).append(encoded).append(suffix);
    return message;
}

TranscriptionDelegate* TranscriptionService::delegate() const
{
    return m_delegateObject ? m_delegate : nullptr;
}

QCoro::Task<std::optional<StreamConnectFailure>> TranscriptionService::connect()
{
    QPointer<TranscriptionService> self(this);
    const std::optional<QString> token = co_await KeychainHelper::validAccessToken();
    if (!self)
        co_return cancelled();
    if (!token) {
        const TranscriptionError error(TranscriptionError::notSignedIn);
        co_return StreamConnectFailure { error, error.errorDescription() };
    }

    const QUrl url(streamAddress(AppConfig::apiBaseURL()), QUrl::StrictMode);
    if (!url.isValid()) {
        // The address comes from the build's own information file; a broken one is a packaging bug.
        qFatal("The stream address built from the API base is not a valid URL");
    }

    auto* socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
    m_socket = socket;
    const bool opened = co_await qCoro(socket).open(url);
    if (!self)
        co_return cancelled();
    if (!opened) {
        const QString reason = socket->errorString();
        if (m_socket == socket)
            m_socket = nullptr;
        socket->deleteLater();
        co_return StreamConnectFailure { std::nullopt,
            reason.isEmpty() ? u"Could not connect to the transcription server."_s : reason };
    }

    const QByteArray auth = QJsonDocument(QJsonObject { { u"type"_s, u"auth"_s }, { u"token"_s, *token } })
                                .toJson(QJsonDocument::Compact);
    if (!sendJSON(auth)) {
        const QString reason = socket->errorString();
        // Without its authentication the stream is useless: drop it rather than leave it open for stop().
        m_socket = nullptr;
        socket->abort();
        socket->deleteLater();
        co_return StreamConnectFailure { std::nullopt,
            reason.isEmpty() ? u"Could not reach the transcription server."_s : reason };
    }
    startReceiving();
    co_return std::nullopt;
}

bool TranscriptionService::sendJSON(const QByteArray& json)
{
    if (!m_socket)
        return false;
    // Qt takes text frames as QString; the JSON built here is UTF-8 throughout.
    return m_socket->sendTextMessage(QString::fromUtf8(json)) >= 0 && m_socket->isValid();
}

void TranscriptionService::sendAudio(std::span<const qint16> samples)
{
    if (samples.empty())
        return;
    sendJSON(audioMessage(samples));
}

void TranscriptionService::stop()
{
    if (!m_socket)
        return;
    sendJSON(QByteArrayLiteral(R"({"type":"stop"})"));
}

void TranscriptionService::cancel()
{
    if (!m_socket)
        return;
    QWebSocket* socket = m_socket;
    m_socket = nullptr;
    socket->close(QWebSocketProtocol::CloseCodeNormal);
    // The disconnected signal still arrives and ends the stream, as any close does.
}

void TranscriptionService::startReceiving()
{
    QWebSocket* socket = m_socket;
    QObject::connect(socket, &QWebSocket::textMessageReceived, this,
        [this](const QString& message) { handleMessage(message.toUtf8()); });
    QObject::connect(socket, &QWebSocket::binaryMessageReceived, this, &TranscriptionService::handleMessage);
    QObject::connect(socket, &QWebSocket::disconnected, this, [this, socket] {
        socket->deleteLater();
        if (m_socket == socket)
            m_socket = nullptr;
        endStream();
    });
}

void TranscriptionService::endStream()
{
    if (m_ended)
        return;
    m_ended = true;
    if (m_sawError)
        return;
    TranscriptionDelegate* target = delegate();
    if (!target)
        return;
    if (m_gotAnyResponse)
        target->transcriptionDidEnd();
    else
        target->transcriptionDidFail(
            u"Connection closed before any response. Check backend or token."_s, u"WS_CLOSED"_s);
}

void TranscriptionService::handleMessage(const QByteArray& data)
{
    QJsonParseError error {};
    const QJsonDocument doc = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return;
    const QJsonObject object = doc.object();
    const QJsonValue type = object.value(QLatin1StringView("type"));
    if (!type.isString())
        return;
    m_gotAnyResponse = true;

    const QString kind = type.toString();
    if (kind == QLatin1StringView("partial") || kind == QLatin1StringView("final")) {
        const QJsonValue text = object.value(QLatin1StringView("text"));
        TranscriptionDelegate* target = delegate();
        if (!text.isString() || !target)
            return;
        if (kind == QLatin1StringView("partial"))
            target->transcriptionDidReceivePartial(text.toString());
        else
            target->transcriptionDidReceiveFinal(text.toString());
    } else if (kind == QLatin1StringView("error")) {
        m_sawError = true;
        const QJsonValue code = object.value(QLatin1StringView("code"));
        const QJsonValue message = object.value(QLatin1StringView("message"));
        if (TranscriptionDelegate* target = delegate()) {
            target->transcriptionDidFail(message.isString() ? message.toString() : u"Unknown error"_s,
                code.isString() ? code.toString() : u"UNKNOWN"_s);
        }
    }
}
