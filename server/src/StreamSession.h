#pragma once

#include "SpeechEngine.h"
#include "StreamProtocol.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <QWebSocket>

#include <memory>

class AuthService;

struct StreamLimits {
    qint64 maxMessageBytes = 1024 * 1024;
    qint64 maxStreamSeconds = 300;
    int authTimeoutMs = 10'000;
    int idleTimeoutMs = 30'000;
    int maxStreams = 8;
};

// Counts the streams that hold a decoder right now, against the configured limit.
class StreamCounter
{
public:
    explicit StreamCounter(int limit)
        : m_limit(limit)
    { }
    bool tryAcquire()
    {
        if (m_active >= m_limit)
            return false;
        ++m_active;
        return true;
    }
    void release() { --m_active; }
    // Streams already admitted keep going; the new limit applies to the next ones.
    void setLimit(int limit) { m_limit = limit; }
    int active() const { return m_active; }
    int limit() const { return m_limit; }

private:
    int m_limit;
    int m_active = 0;
};

// One client's transcription stream: authenticate in-band, feed audio to the speech engine,
// pass partials and finals back, and close with 1000 after the last final of "stop".
// Any protocol failure sends one error message and closes; nothing here ever blocks.
class StreamSession final : public QObject, private SpeechSink
{
    Q_OBJECT
public:
    StreamSession(quint64 id, std::unique_ptr<QWebSocket> socket, AuthService& auth, SpeechEngine& engine,
        StreamCounter& counter, const StreamLimits& limits, QObject* parent = nullptr);
    ~StreamSession() override;

    // Refuses the connection at once (too many open connections).
    void refuseBusy();

Q_SIGNALS:
    // The socket is gone; the owner may delete the session.
    void closed();
    // The stream's token was accepted and it holds a decoding slot.
    void signedIn();

private:
    enum class State { AwaitingAuth, Streaming, Finishing, Closing };

    void onText(const QString& message);
    void onBinary(const QByteArray& message);
    void onMessage(const QByteArray& utf8);
    void handleAuth(const QString& token);
    void handleAudio(const QByteArray& base64);
    void handleStop();
    void fail(StreamProtocol::Error error, const QString& message, const QString& detail = {});
    void closeSocket(QWebSocketProtocol::CloseCode code, const QString& reason);
    void onDisconnected();
    void releaseEngine();

    void speechPartial(const QString& text) override;
    void speechFinal(const QString& text) override;
    void speechFinished() override;
    void speechFailed(const QString& reason) override;

    quint64 m_id;
    std::unique_ptr<QWebSocket> m_socket;
    AuthService& m_auth;
    SpeechEngine& m_engine;
    StreamCounter& m_counter;
    StreamLimits m_limits;
    State m_state = State::AwaitingAuth;
    bool m_holdsSlot = false;
    std::unique_ptr<SpeechStream> m_speech;
    QTimer m_authTimer;
    QTimer m_idleTimer;
    QTimer m_closeGuard;
    QString m_subject;
    QString m_peer;
    qint64 m_samples = 0;
    int m_finals = 0;
    int m_partials = 0;
    QElapsedTimer m_sinceStop;
    bool m_disconnected = false;
};
