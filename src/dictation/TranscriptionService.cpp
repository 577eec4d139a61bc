#include "dictation/TranscriptionService.h"

#include "services/AppConfig.h"
#include "services/KeychainHelper.h"
#include "services/Log.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>
#include <QUtf8StringView>
#include <QWebSocket>

#include <QCoroSignal>

#include <array>
#include <bit>
#include <cstdlib>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// What connect() reports when its owner went away while it was waiting.
StreamConnectFailure cancelled()
{
    return { std::nullopt, u"The dictation was cancelled."_s };
}

} // namespace

const QString TranscriptionService::keyringLockedMessage = u"Your keyring is locked. Unlock it to use dictation."_s;

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
    if (!self || m_cancelled)
        co_return cancelled();
    if (!token) {
        const TranscriptionError error(TranscriptionError::notSignedIn);
        // A locked keyring (after a suspend, say) is not a sign-out: signing in again would
        // not help, unlocking does.
        const KeychainHelper::Read stored = co_await KeychainHelper::loadAsync(KeychainHelper::accessTokenKey);
        if (!self || m_cancelled)
            co_return cancelled();
        if (stored.status == SecretStore::Status::Locked)
            co_return StreamConnectFailure { error, keyringLockedMessage };
        co_return StreamConnectFailure { error, error.errorDescription() };
    }

    if (const std::optional<QString> failure = co_await open(streamURL())) {
        if (!self || m_cancelled)
            co_return cancelled();
        co_return StreamConnectFailure { std::nullopt, *failure };
    }
    if (!sendAuth(*token)) {
        const QString reason = m_socket ? m_socket->errorString() : QString();
        // Without its authentication the stream is useless: drop it rather than leave it open for stop().
        if (QWebSocket* socket = std::exchange(m_socket, nullptr)) {
            socket->abort();
            socket->deleteLater();
        }
        co_return StreamConnectFailure { std::nullopt,
            reason.isEmpty() ? u"Could not reach the transcription server."_s : reason };
    }
    startReceiving();
    co_return std::nullopt;
}

QUrl TranscriptionService::streamURL()
{
    const QUrl url(streamAddress(AppConfig::apiBaseURL()), QUrl::StrictMode);
    if (!url.isValid()) {
        // The address comes from the build's own information file; a broken one is a packaging bug.
        qFatal("The stream address built from the API base is not a valid URL");
    }
    return url;
}

QCoro::Task<std::optional<QString>> TranscriptionService::open(const QUrl& url)
{
    auto* socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
    m_socket = socket;
    // Whichever comes first settles the handshake: success, a failure, a close, or
    // cancel(). Waiting on the socket alone would never end for a cancelled handshake.
    m_handshaking = true;
    const auto settle = [this] {
        if (!std::exchange(m_handshaking, false))
            return;
        Q_EMIT handshakeSettled();
    };
    const std::array watches { QObject::connect(socket, &QWebSocket::connected, this, settle),
        QObject::connect(socket, &QWebSocket::disconnected, this, settle),
        QObject::connect(socket, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), this, settle) };
    socket->open(url);
    if (m_handshaking)
        co_await qCoro(this, &TranscriptionService::handshakeSettled);
    for (const QMetaObject::Connection& watch : watches)
        QObject::disconnect(watch);

    if (!m_cancelled && m_socket == socket && socket->isValid())
        co_return std::nullopt;
    const QString reason = m_cancelled ? cancelled().description : socket->errorString();
    if (m_socket == socket)
        m_socket = nullptr;
    socket->abort();
    socket->deleteLater();
    co_return reason.isEmpty() ? u"Could not connect to the transcription server."_s : reason;
}

bool TranscriptionService::sendAuth(const QString& token)
{
    return sendJSON(
        QJsonDocument(QJsonObject { { u"type"_s, u"auth"_s }, { u"token"_s, token } }).toJson(QJsonDocument::Compact));
}

bool TranscriptionService::sendJSON(const QByteArray& json)
{
    if (!m_socket)
        return false;
    // Qt takes text frames as QString; the JSON built here is UTF-8 throughout.
    return m_socket->sendTextMessage(QString::fromUtf8(json)) >= 0 && m_socket->isValid();
}

void TranscriptionService::sendStreamMessage(const QByteArray& json)
{
    if (m_reconnecting || (m_keepingReplay && !m_retriedToken))
        m_replay.append(json);
    if (m_reconnecting)
        return; // goes out with the replay
    sendJSON(json);
}

void TranscriptionService::sendAudio(std::span<const qint16> samples)
{
    if (samples.empty())
        return;
    sendStreamMessage(audioMessage(samples));
}

void TranscriptionService::stop()
{
    if (!m_socket && !m_reconnecting)
        return;
    m_stopSent = true;
    sendStreamMessage(QByteArrayLiteral(R"({"type":"stop"})"));
}

void TranscriptionService::cancel()
{
    m_cancelled = true;
    if (m_handshaking) {
        // A handshake that never completes would keep connect() waiting for good: drop
        // the connection and let the waiting code go on.
        if (QWebSocket* socket = std::exchange(m_socket, nullptr))
            socket->abort();
        if (std::exchange(m_handshaking, false))
            Q_EMIT handshakeSettled();
        return;
    }
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
    QObject::connect(socket, &QWebSocket::binaryMessageReceived, this, [this](const QByteArray& message) {
        if (!QUtf8StringView(message).isValidUtf8()) {
            // Decode what can be decoded: a final with one broken character still carries the rest.
            Log::write(Log::Symbol::Warning,
                u"the server sent a binary frame that is not valid UTF-8 (%1 bytes); "
                u"its broken sequences are read as U+FFFD"_s.arg(message.size()));
            handleMessage(QString::fromUtf8(message).toUtf8());
            return;
        }
        handleMessage(message);
    });
    QObject::connect(socket, &QWebSocket::disconnected, this, [this, socket] {
        socket->deleteLater();
        if (m_socket == socket)
            m_socket = nullptr;
        endStream(socket->closeCode() == QWebSocketProtocol::CloseCodeNormal);
    });
}

void TranscriptionService::endStream(bool closedNormally)
{
    if (m_ended)
        return;
    m_ended = true;
    if (m_sawError)
        return;
    TranscriptionDelegate* target = delegate();
    if (!target)
        return;
    // After the stop message a normal close with nothing before it is a transcript with
    // no words in it, not a backend that never answered.
    if (m_gotAnyResponse || (m_stopSent && closedNormally))
        target->transcriptionDidEnd();
    else
        target->transcriptionDidFail(
            u"Connection closed before any response. Check backend or token."_s, u"WS_CLOSED"_s);
}

QCoro::Task<> TranscriptionService::reconnectWithFreshToken(QString message, QString code)
{
    QPointer<TranscriptionService> self(this);
    m_reconnecting = true;
    if (QWebSocket* old = std::exchange(m_socket, nullptr)) {
        old->disconnect(this);
        old->close(QWebSocketProtocol::CloseCodeNormal);
        old->deleteLater();
    }
    Log::write(Log::Symbol::Warning, u"the stream refused the access token as expired: renewing it and reconnecting"_s);
    const std::optional<QString> token = co_await KeychainHelper::performRefresh();
    if (!self)
        co_return;
    std::optional<QString> failure;
    if (m_cancelled)
        failure = cancelled().description;
    else if (!token)
        failure = u"the token could not be renewed"_s;
    else
        failure = co_await open(streamURL());
    if (!self)
        co_return;
    if (!failure && !sendAuth(*token))
        failure = u"the authentication could not be sent"_s;
    m_reconnecting = false;
    if (failure) {
        if (QWebSocket* socket = std::exchange(m_socket, nullptr)) {
            socket->abort();
            socket->deleteLater();
        }
        if (m_cancelled)
            co_return;
        Log::write(Log::Symbol::Failure, u"reconnecting the stream failed: "_s + *failure);
        m_sawError = true;
        m_ended = true;
        if (TranscriptionDelegate* target = delegate())
            target->transcriptionDidFail(message, code);
        co_return;
    }
    startReceiving();
    for (const QByteArray& json : std::as_const(m_replay))
        sendJSON(json);
    Log::write(Log::Symbol::Success,
        u"stream reconnected with a renewed token; %1 messages sent again"_s.arg(m_replay.size()));
    m_replay.clear();
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
        // The backend took the token: nothing will need sending again.
        m_keepingReplay = false;
        m_replay.clear();
        const QJsonValue text = object.value(QLatin1StringView("text"));
        TranscriptionDelegate* target = delegate();
        if (!text.isString() || !target)
            return;
        if (kind == QLatin1StringView("partial"))
            target->transcriptionDidReceivePartial(text.toString());
        else
            target->transcriptionDidReceiveFinal(text.toString());
    } else if (kind == QLatin1StringView("error")) {
        const QJsonValue code = object.value(QLatin1StringView("code"));
        const QJsonValue message = object.value(QLatin1StringView("message"));
        const QString failure = message.isString() ? message.toString() : u"Unknown error"_s;
        const QString failureCode = code.isString() ? code.toString() : u"UNKNOWN"_s;
        // A clock behind the backend's makes a fresh token look expired to it: renew the
        // token once and start over, before any words came back.
        // Only a stream that is open can be opened again (a message handed in by other
        // means is reported as it is).
        if (failureCode == QLatin1StringView("TOKEN_EXPIRED") && !m_retriedToken && m_keepingReplay && m_socket
            && !m_cancelled) {
            m_retriedToken = true;
            reconnectWithFreshToken(failure, failureCode);
            return;
        }
        m_sawError = true;
        if (TranscriptionDelegate* target = delegate())
            target->transcriptionDidFail(failure, failureCode);
    }
}
