#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

// The JSON messages of the transcription stream, as pure functions.
namespace StreamProtocol {

// Every way a stream can fail, each with its own code on the wire.
enum class Error {
    AuthTimeout,
    AuthRequired,
    InvalidToken,
    TokenExpired,
    TokenRevoked,
    InvalidJson,
    InvalidMessage,
    InvalidAudio,
    MessageTooLarge,
    StreamTooLong,
    IdleTimeout,
    ServerBusy,
    EngineError,
};

QString code(Error error);

struct ClientMessage {
    enum class Kind { Auth, Audio, Stop };
    Kind kind = Kind::Stop;
    QString token; // auth
    QByteArray audioBase64; // audio
};

struct Parsed {
    bool ok = false;
    ClientMessage message;
    Error error = Error::InvalidMessage; // when !ok
    QString detail; // for the log, never shown to users
};

Parsed parse(QByteArrayView utf8);

// Decodes standard base64 into PCM bytes; fails on bad characters or an odd byte count.
bool decodeAudio(const QByteArray& base64, QByteArray* pcm);

QByteArray partialMessage(const QString& text);
QByteArray finalMessage(const QString& text);
QByteArray errorMessage(Error error, const QString& message);

} // namespace StreamProtocol
