#include "StreamProtocol.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::Literals::StringLiterals;

namespace StreamProtocol {

QString code(Error error)
{
    switch (error) {
    case Error::AuthTimeout:
        return u"AUTH_TIMEOUT"_s;
    case Error::AuthRequired:
        return u"AUTH_REQUIRED"_s;
    case Error::InvalidToken:
        return u"INVALID_TOKEN"_s;
    case Error::TokenExpired:
        return u"TOKEN_EXPIRED"_s;
    case Error::TokenRevoked:
        return u"TOKEN_REVOKED"_s;
    case Error::InvalidJson:
        return u"INVALID_JSON"_s;
    case Error::InvalidMessage:
        return u"INVALID_MESSAGE"_s;
    case Error::InvalidAudio:
        return u"INVALID_AUDIO"_s;
    case Error::MessageTooLarge:
        return u"MESSAGE_TOO_LARGE"_s;
    case Error::StreamTooLong:
        return u"STREAM_TOO_LONG"_s;
    case Error::IdleTimeout:
        return u"IDLE_TIMEOUT"_s;
    case Error::ServerBusy:
        return u"SERVER_BUSY"_s;
    case Error::EngineError:
        return u"ENGINE_ERROR"_s;
    }
    return u"UNKNOWN"_s;
}

Parsed parse(QByteArrayView utf8)
{
    Parsed result;
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(utf8.toByteArray(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        result.error = Error::InvalidJson;
        result.detail = parseError.errorString();
        return result;
    }
    if (!doc.isObject()) {
        result.error = Error::InvalidMessage;
        result.detail = u"not a JSON object"_s;
        return result;
    }
    const QJsonObject object = doc.object();
    const QJsonValue type = object.value(u"type"_s);
    if (!type.isString()) {
        result.error = Error::InvalidMessage;
        result.detail = u"no string \"type\""_s;
        return result;
    }
    const QString kind = type.toString();
    if (kind == u"auth"_s) {
        const QJsonValue token = object.value(u"token"_s);
        if (!token.isString()) {
            // A missing token is a sign-in problem, not a programming one, for the user.
            result.error = Error::InvalidToken;
            result.detail = u"auth without a string \"token\""_s;
            return result;
        }
        result.message.kind = ClientMessage::Kind::Auth;
        result.message.token = token.toString();
    } else if (kind == u"audio"_s) {
        const QJsonValue data = object.value(u"data"_s);
        if (!data.isString()) {
            result.error = Error::InvalidAudio;
            result.detail = u"audio without a string \"data\""_s;
            return result;
        }
        result.message.kind = ClientMessage::Kind::Audio;
        result.message.audioBase64 = data.toString().toLatin1();
    } else if (kind == u"stop"_s) {
        result.message.kind = ClientMessage::Kind::Stop;
    } else {
        result.error = Error::InvalidMessage;
        result.detail = u"unknown type"_s;
        return result;
    }
    result.ok = true;
    return result;
}

bool decodeAudio(const QByteArray& base64, QByteArray* pcm)
{
    auto decoded = QByteArray::fromBase64Encoding(base64, QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() % 2 != 0)
        return false;
    *pcm = std::move(*decoded);
    return true;
}

namespace {

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

QByteArray partialMessage(const QString& text)
{
    return compact({ { u"type"_s, u"partial"_s }, { u"text"_s, text } });
}

QByteArray finalMessage(const QString& text)
{
    return compact({ { u"type"_s, u"final"_s }, { u"text"_s, text } });
}

QByteArray errorMessage(Error error, const QString& message)
{
    return compact({ { u"type"_s, u"error"_s }, { u"code"_s, code(error) }, { u"message"_s, message } });
}

} // namespace StreamProtocol
