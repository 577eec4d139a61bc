#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <QCoroTask>

#include <concepts>
#include <optional>
#include <span>

#include <QWebSocket>

// What the stream reports to its owner, on the main thread.
class TranscriptionDelegate
{
public:
    virtual ~TranscriptionDelegate() = default;
    virtual void transcriptionDidReceivePartial(const QString& text) = 0;
    virtual void transcriptionDidReceiveFinal(const QString& text) = 0;
    virtual void transcriptionDidEnd() = 0;
    virtual void transcriptionDidFail(const QString& message, const QString& code) = 0;
};

// The failures a dictation shows the user, each with its fixed sentence.
class TranscriptionError
{
public:
    enum Case { notSignedIn, connectionTimeout };

    explicit TranscriptionError(Case value)
        : m_case(value)
    { }
    Case value() const { return m_case; }
    QString errorDescription() const;
    friend bool operator==(TranscriptionError, TranscriptionError) = default;

private:
    Case m_case;
};

// Why connect() failed: one of the known errors, or the socket's own failure in words.
struct StreamConnectFailure {
    std::optional<TranscriptionError> error;
    QString description;
};

// What a dictation asks of its stream to the backend; TranscriptionService is the real one.
class TranscriptionStream
{
public:
    virtual ~TranscriptionStream() = default;
    // The delegate is held weakly through owner (usually the delegate itself): once
    // owner is destroyed, no call reaches the delegate.
    virtual void setDelegate(QObject* owner, TranscriptionDelegate* delegate) = 0;
    // Opens the stream and authenticates; nothing on success.
    virtual QCoro::Task<std::optional<StreamConnectFailure>> connect() = 0;
    // Sends one buffer of 16 kHz mono signed 16-bit samples.
    virtual void sendAudio(std::span<const qint16> samples) = 0;
    // Asks the backend to finish the transcript.
    virtual void stop() = 0;
    // Closes the stream from this side with code 1000 and forgets it.
    virtual void cancel() = 0;
};

// One dictation's stream to the backend: in-band authentication, base64 audio
// messages, a stop message, and the server's partial/final/error messages turned
// into delegate calls. The server closing the socket ends the transcript.
// Lives on the main thread; one instance per dictation, never reused.
class TranscriptionService : public QObject, public TranscriptionStream
{
    Q_OBJECT
public:
    explicit TranscriptionService(QObject* parent = nullptr);
    ~TranscriptionService() override;

    // The delegate is held weakly: once it is destroyed, no call reaches it.
    template <typename T>
    requires std::derived_from<T, QObject> && std::derived_from<T, TranscriptionDelegate>
    void setDelegate(T* delegate) { setDelegate(delegate, delegate); }
    void setDelegate(QObject* owner, TranscriptionDelegate* delegate) override
    {
        m_delegateObject = owner;
        m_delegate = delegate;
    }

    // Opens the socket and sends the authentication message; returns once that send
    // went out, without waiting for any answer. Nothing on success.
    QCoro::Task<std::optional<StreamConnectFailure>> connect() override;
    // Queues one audio message for a buffer of 16 kHz mono signed 16-bit samples.
    void sendAudio(std::span<const qint16> samples) override;
    // Queues the stop message; nothing is sent while no socket exists.
    void stop() override;
    // Closes the stream from this side with code 1000 and forgets the socket. During the
    // opening handshake the connection is dropped at once, and connect() returns.
    void cancel() override;

    // True while a socket exists (connect() made one and cancel() has not dropped it).
    bool hasSocket() const { return m_socket != nullptr; }
    bool gotAnyResponse() const { return m_gotAnyResponse; }
    bool sawError() const { return m_sawError; }

    // What connect() reports for a missing token when the keyring holding it is locked.
    static const QString keyringLockedMessage;
    // "http://" -> "ws://", "https://" -> "wss://", then "/ws/transcribe" appended.
    static QString streamAddress(const QString& apiBaseURL);
    // The audio message for these samples (little-endian PCM in standard base64).
    static QByteArray audioMessage(std::span<const qint16> samples);
    // Handles one server message (a text frame's bytes or a binary frame).
    void handleMessage(const QByteArray& data);

Q_SIGNALS:
    // The opening handshake under way succeeded, failed or was given up.
    void handshakeSettled();

private:
    static QUrl streamURL();
    // Opens a socket to url and waits for the handshake; the failure in words, or nothing.
    QCoro::Task<std::optional<QString>> open(const QUrl& url);
    bool sendAuth(const QString& token);
    bool sendJSON(const QByteArray& json);
    // Sends a message that belongs to the utterance (audio, stop): kept for a reconnection
    // until the backend has shown that it accepted the token.
    void sendStreamMessage(const QByteArray& json);
    void startReceiving();
    void endStream(bool closedNormally);
    // The backend refused the token as expired: renew it once and open the stream again,
    // replaying what was sent. The original failure is reported when that is not possible.
    QCoro::Task<> reconnectWithFreshToken(QString message, QString code);
    TranscriptionDelegate* delegate() const;

    QPointer<QWebSocket> m_socket;
    QPointer<QObject> m_delegateObject;
    TranscriptionDelegate* m_delegate = nullptr;
    bool m_gotAnyResponse = false;
    bool m_sawError = false;
    bool m_ended = false;
    bool m_cancelled = false;
    bool m_handshaking = false;
    bool m_stopSent = false;
    bool m_retriedToken = false;
    bool m_reconnecting = false;
    // Audio and stop messages sent since the authentication, until the first transcript
    // message shows that the backend took the token; replayed after a reconnection.
    QList<QByteArray> m_replay;
    bool m_keepingReplay = true;
};
