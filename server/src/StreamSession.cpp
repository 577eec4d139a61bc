#include "StreamSession.h"

#include "AuthService.h"
#include "Log.h"

using namespace Qt::Literals::StringLiterals;
using StreamProtocol::Error;

namespace {

constexpr qint64 sampleRate = 16000;
// Messages over our limit are answered with an error as long as they are under this cap;
// beyond it the WebSocket layer refuses the frame by itself, before buffering it.
constexpr qint64 hardCapFactor = 4;
constexpr int closeGuardMs = 5000;

// Streams that never sign in can be opened by anyone as fast as they like; their lines
// must not flood the log. Signed-in streams always log.
Log::Throttle& strangerLog()
{
    static Log::Throttle throttle(30, 10'000);
    return throttle;
}

QString durationText(qint64 seconds)
{
    if (seconds % 60 == 0)
        return seconds == 60 ? u"1 minute"_s : u"%1 minutes"_s.arg(seconds / 60);
    return u"%1 seconds"_s.arg(seconds);
}

} // namespace

StreamSession::StreamSession(quint64 id, std::unique_ptr<QWebSocket> socket, AuthService& auth, SpeechEngine& engine,
    StreamCounter& counter, const StreamLimits& limits, QObject* parent)
    : QObject(parent)
    , m_id(id)
    , m_socket(std::move(socket))
    , m_auth(auth)
    , m_engine(engine)
    , m_counter(counter)
    , m_limits(limits)
{
    m_peer = u"%1:%2"_s.arg(m_socket->peerAddress().toString()).arg(m_socket->peerPort());
    const quint64 cap = quint64(m_limits.maxMessageBytes * hardCapFactor);
    m_socket->setMaxAllowedIncomingFrameSize(cap);
    m_socket->setMaxAllowedIncomingMessageSize(cap);

    connect(m_socket.get(), &QWebSocket::textMessageReceived, this, &StreamSession::onText);
    connect(m_socket.get(), &QWebSocket::binaryMessageReceived, this, &StreamSession::onBinary);
    connect(m_socket.get(), &QWebSocket::disconnected, this, &StreamSession::onDisconnected);

    m_authTimer.setSingleShot(true);
    m_authTimer.setInterval(m_limits.authTimeoutMs);
    connect(&m_authTimer, &QTimer::timeout, this, [this] {
        if (m_state == State::AwaitingAuth)
            fail(Error::AuthTimeout, u"Quillet did not send its sign-in in time. Try again."_s);
    });
    m_authTimer.start();

    m_idleTimer.setSingleShot(true);
    m_idleTimer.setInterval(m_limits.idleTimeoutMs);
    connect(&m_idleTimer, &QTimer::timeout, this, [this] {
        if (m_state == State::Streaming)
            fail(Error::IdleTimeout,
                u"No audio arrived for %1. Try again."_s.arg(durationText(m_limits.idleTimeoutMs / 1000)));
    });

    m_closeGuard.setSingleShot(true);
    m_closeGuard.setInterval(closeGuardMs);
    connect(&m_closeGuard, &QTimer::timeout, this, [this] {
        // The peer never answered our close frame.
        m_socket->abort();
    });

    strangerLog().line(Log::Kind::Connection, u"stream %1 opened from %2"_s.arg(m_id).arg(m_peer));
}

StreamSession::~StreamSession()
{
    releaseEngine();
    if (m_socket && !m_disconnected) {
        m_socket->disconnect(this);
        m_socket->abort();
    }
}

void StreamSession::refuseBusy()
{
    fail(Error::ServerBusy, u"The server is busy with other dictations. Try again in a moment."_s,
        u"too many open connections"_s);
}

void StreamSession::onText(const QString& message)
{
    onMessage(message.toUtf8());
}

void StreamSession::onBinary(const QByteArray& message)
{
    // The client sends text frames, but the same JSON in a binary frame means the same.
    onMessage(message);
}

void StreamSession::onMessage(const QByteArray& utf8)
{
    if (m_state == State::Finishing || m_state == State::Closing)
        return; // audio that raced the stop message, or anything after an error
    if (utf8.size() > m_limits.maxMessageBytes) {
        fail(Error::MessageTooLarge, u"A message to the server was larger than 1 MiB. Try again."_s,
            u"%1 bytes"_s.arg(utf8.size()));
        return;
    }
    const StreamProtocol::Parsed parsed = StreamProtocol::parse(utf8);
    if (!parsed.ok) {
        switch (parsed.error) {
        case Error::InvalidJson:
            fail(parsed.error, u"The server could not read a message from Quillet. Try again."_s, parsed.detail);
            return;
        case Error::InvalidToken:
            fail(parsed.error, u"Your sign-in is missing. Sign in to Quillet again."_s, parsed.detail);
            return;
        case Error::InvalidAudio:
            fail(parsed.error, u"The server could not decode the audio. Try again."_s, parsed.detail);
            return;
        default:
            fail(Error::InvalidMessage, u"The server did not understand a message from Quillet. Try again."_s,
                parsed.detail);
            return;
        }
    }
    using Kind = StreamProtocol::ClientMessage::Kind;
    switch (parsed.message.kind) {
    case Kind::Auth:
        if (m_state == State::AwaitingAuth)
            handleAuth(parsed.message.token);
        // A second auth message changes nothing.
        return;
    case Kind::Audio:
        if (m_state == State::AwaitingAuth) {
            fail(Error::AuthRequired, u"Audio arrived before sign-in. Sign in to Quillet and try again."_s);
            return;
        }
        handleAudio(parsed.message.audioBase64);
        return;
    case Kind::Stop:
        if (m_state == State::AwaitingAuth) {
            fail(Error::AuthRequired, u"The stream ended before sign-in. Sign in to Quillet and try again."_s);
            return;
        }
        handleStop();
        return;
    }
}

void StreamSession::handleAuth(const QString& token)
{
    m_authTimer.stop();
    const AuthService::AccessResult access = m_auth.checkAccess(token.toUtf8());
    switch (access.check) {
    case AuthService::AccessCheck::Valid:
        break;
    case AuthService::AccessCheck::Expired:
        fail(Error::TokenExpired, u"Your session has expired. Sign in to Quillet again."_s);
        return;
    case AuthService::AccessCheck::Revoked:
        fail(Error::TokenRevoked, u"You were signed out. Sign in to Quillet again."_s);
        return;
    case AuthService::AccessCheck::FamilyRevoked:
        fail(Error::InvalidToken, u"Your sign-in is not valid here. Sign in to Quillet again."_s,
            u"sign-in revoked after a replayed refresh token"_s);
        return;
    case AuthService::AccessCheck::Malformed:
    case AuthService::AccessCheck::BadSignature:
        fail(Error::InvalidToken, u"Your sign-in is not valid here. Sign in to Quillet again."_s,
            access.check == AuthService::AccessCheck::Malformed ? u"malformed token"_s : u"bad signature"_s);
        return;
    }
    if (!m_counter.tryAcquire()) {
        fail(Error::ServerBusy, u"The server is busy with other dictations. Try again in a moment."_s,
            u"%1 streams already decoding"_s.arg(m_counter.active()));
        return;
    }
    m_holdsSlot = true;
    m_subject = access.subject;
    m_speech = m_engine.open(this, this);
    m_state = State::Streaming;
    m_idleTimer.start();
    Log::line(Log::Kind::Key, u"stream %1 signed in as %2"_s.arg(m_id).arg(m_subject));
    Q_EMIT signedIn();
}

void StreamSession::handleAudio(const QByteArray& base64)
{
    QByteArray pcm;
    if (!StreamProtocol::decodeAudio(base64, &pcm)) {
        fail(Error::InvalidAudio, u"The server could not decode the audio. Try again."_s,
            u"bad base64 or odd byte count"_s);
        return;
    }
    m_samples += pcm.size() / 2;
    if (m_samples > m_limits.maxStreamSeconds * sampleRate) {
        fail(Error::StreamTooLong,
            u"Dictations are limited to %1. Release the key sooner."_s.arg(durationText(m_limits.maxStreamSeconds)));
        return;
    }
    if (pcm.isEmpty())
        return; // keeps nothing alive: only real audio resets the idle timer
    m_idleTimer.start();
    m_speech->feed(std::move(pcm));
}

void StreamSession::handleStop()
{
    m_idleTimer.stop();
    m_state = State::Finishing;
    m_sinceStop.start();
    m_speech->finish();
}

void StreamSession::speechPartial(const QString& text)
{
    if (m_state != State::Streaming)
        return; // after "stop" only finals matter
    ++m_partials;
    m_socket->sendTextMessage(QString::fromUtf8(StreamProtocol::partialMessage(text)));
}

void StreamSession::speechFinal(const QString& text)
{
    if (m_state != State::Streaming && m_state != State::Finishing)
        return;
    ++m_finals;
    m_socket->sendTextMessage(QString::fromUtf8(StreamProtocol::finalMessage(text)));
}

void StreamSession::speechFinished()
{
    if (m_state != State::Finishing)
        return;
    releaseEngine();
    Log::line(Log::Kind::End,
        u"stream %1 finished: %2 s of audio, %3 partials, %4 finals, closed %5 ms after stop"_s.arg(m_id)
            .arg(double(m_samples) / sampleRate, 0, 'f', 1)
            .arg(m_partials)
            .arg(m_finals)
            .arg(m_sinceStop.elapsed()));
    closeSocket(QWebSocketProtocol::CloseCodeNormal, QString());
}

void StreamSession::speechFailed(const QString& reason)
{
    fail(Error::EngineError, u"Speech recognition failed on the server. Try again."_s, reason);
}

void StreamSession::fail(Error error, const QString& message, const QString& detail)
{
    if (m_state == State::Closing)
        return;
    const QString line = u"stream %1 error %2%3"_s.arg(m_id)
                             .arg(StreamProtocol::code(error))
                             .arg(detail.isEmpty() ? QString() : u" ("_s + detail + u')');
    if (m_subject.isEmpty())
        strangerLog().line(Log::Kind::Failure, line);
    else
        Log::line(Log::Kind::Failure, line);
    releaseEngine();
    m_socket->sendTextMessage(QString::fromUtf8(StreamProtocol::errorMessage(error, message)));
    // 1013 ("try again later") would suit SERVER_BUSY, but Qt's own peers reject codes
    // above 1011 as invalid; the error message carries the reason anyway.
    QWebSocketProtocol::CloseCode code = QWebSocketProtocol::CloseCodePolicyViolated;
    if (error == Error::MessageTooLarge)
        code = QWebSocketProtocol::CloseCodeTooMuchData;
    else if (error == Error::EngineError)
        code = QWebSocketProtocol::CloseCodeBadOperation;
    closeSocket(code, StreamProtocol::code(error));
}

void StreamSession::closeSocket(QWebSocketProtocol::CloseCode code, const QString& reason)
{
    m_state = State::Closing;
    m_authTimer.stop();
    m_idleTimer.stop();
    if (m_disconnected)
        return;
    m_socket->close(code, reason);
    m_closeGuard.start();
}

void StreamSession::releaseEngine()
{
    m_speech.reset();
    if (m_holdsSlot) {
        m_holdsSlot = false;
        m_counter.release();
    }
}

void StreamSession::onDisconnected()
{
    if (m_disconnected)
        return;
    m_disconnected = true;
    m_closeGuard.stop();
    m_authTimer.stop();
    m_idleTimer.stop();
    const QString line
        = m_state != State::Closing ? u"stream %1 dropped by the client"_s.arg(m_id) : u"stream %1 closed"_s.arg(m_id);
    if (m_subject.isEmpty())
        strangerLog().line(Log::Kind::Connection, line);
    else
        Log::line(Log::Kind::Connection, line);
    m_state = State::Closing;
    releaseEngine();
    Q_EMIT closed();
}
