// Parses what a client sends on the transcription stream. A message that parses must
// mean the same after a round trip through JSON, and the audio decoder must only ever
// give whole 16-bit samples. The server's own messages, built from the same text, must
// carry that text unchanged.
#include "StreamProtocol.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstddef>
#include <cstdint>

using namespace Qt::Literals::StringLiterals;

namespace {

QByteArray serialise(const StreamProtocol::ClientMessage& message)
{
    using Kind = StreamProtocol::ClientMessage::Kind;
    QJsonObject object;
    switch (message.kind) {
    case Kind::Auth:
        object = { { u"type"_s, u"auth"_s }, { u"token"_s, message.token } };
        break;
    case Kind::Audio:
        object = { { u"type"_s, u"audio"_s }, { u"data"_s, QString::fromLatin1(message.audioBase64) } };
        break;
    case Kind::Stop:
        object = { { u"type"_s, u"stop"_s } };
        break;
    }
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

void checkOutgoing(const QByteArray& message, const QString& type, const QString& field, const QString& text)
{
    const QJsonDocument doc = QJsonDocument::fromJson(message);
    if (!doc.isObject() || doc.object().value(u"type"_s).toString() != type
        || doc.object().value(field).toString() != text)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArrayView bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const StreamProtocol::Parsed parsed = StreamProtocol::parse(bytes);
    if (parsed.ok) {
        const StreamProtocol::Parsed again = StreamProtocol::parse(serialise(parsed.message));
        if (!again.ok || again.message.kind != parsed.message.kind || again.message.token != parsed.message.token
            || again.message.audioBase64 != parsed.message.audioBase64)
            __builtin_trap();
        if (parsed.message.kind == StreamProtocol::ClientMessage::Kind::Audio) {
            QByteArray pcm;
            if (StreamProtocol::decodeAudio(parsed.message.audioBase64, &pcm) && pcm.size() % 2 != 0)
                __builtin_trap();
        }
    } else if (parsed.detail.isEmpty() || StreamProtocol::code(parsed.error).isEmpty()) {
        __builtin_trap(); // every refusal says why, in the log and on the wire
    }

    // Whatever a recogniser or a chat engine produces, the client gets it as it was,
    // lone surrogates and all turned into what JSON can carry.
    const QString text = QString::fromUtf8(bytes);
    checkOutgoing(StreamProtocol::partialMessage(text), u"partial"_s, u"text"_s, text);
    checkOutgoing(StreamProtocol::finalMessage(text), u"final"_s, u"text"_s, text);
    checkOutgoing(
        StreamProtocol::errorMessage(StreamProtocol::Error::EngineError, text), u"error"_s, u"message"_s, text);
    return 0;
}
