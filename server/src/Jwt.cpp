#include "Jwt.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageAuthenticationCode>

using namespace Qt::Literals::StringLiterals;

namespace Jwt {

namespace {

constexpr auto urlOptions = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;

QByteArray hmac(QByteArrayView data, const QByteArray& key)
{
    return QMessageAuthenticationCode::hash(data.toByteArray(), key, QCryptographicHash::Sha256);
}

// Compares without an early exit, so the time taken says nothing about where bytes differ.
bool sameBytes(const QByteArray& a, const QByteArray& b)
{
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (qsizetype i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a.at(i) ^ b.at(i));
    return diff == 0;
}

std::optional<QJsonObject> decodeSegment(QByteArrayView segment)
{
    const auto decoded
        = QByteArray::fromBase64Encoding(segment.toByteArray(), urlOptions | QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return std::nullopt;
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(*decoded, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    return doc.object();
}

bool isWholeNumber(const QJsonValue& value)
{
    return value.isDouble() && value.toDouble() == double(value.toInteger());
}

} // namespace

QByteArray base64Url(const QByteArray& bytes)
{
    return bytes.toBase64(urlOptions);
}

QByteArray sign(const Claims& claims, const QByteArray& key)
{
    const QJsonObject header { { u"alg"_s, u"HS256"_s }, { u"typ"_s, u"JWT"_s } };
    QJsonObject payload { { u"sub"_s, claims.subject }, { u"iat"_s, claims.issuedAt }, { u"exp"_s, claims.expiresAt },
        { u"gen"_s, claims.generation }, { u"iss"_s, u"quillet-server"_s } };
    if (!claims.family.isEmpty())
        payload.insert(u"fam"_s, claims.family);
    const QByteArray signingInput = base64Url(QJsonDocument(header).toJson(QJsonDocument::Compact)) + '.'
        + base64Url(QJsonDocument(payload).toJson(QJsonDocument::Compact));
    return signingInput + '.' + base64Url(hmac(signingInput, key));
}

Verification verify(QByteArrayView token, const QByteArray& key, qint64 now)
{
    Verification result;
    const qsizetype firstDot = token.indexOf('.');
    const qsizetype secondDot = firstDot < 0 ? -1 : token.indexOf('.', firstDot + 1);
    if (firstDot <= 0 || secondDot < 0 || token.indexOf('.', secondDot + 1) >= 0)
        return result;

    const auto header = decodeSegment(token.first(firstDot));
    if (!header)
        return result;
    // Pinned: the header may not choose the algorithm, least of all "none".
    if (header->value(u"alg"_s).toString() != u"HS256"_s) {
        result.verdict = Verdict::UnsupportedAlgorithm;
        return result;
    }

    // The signature text must be exactly what sign() writes: base64url without padding.
    // Decoding first would also accept "=" padding and other values of the last
    // character's spare bits, so one signature would have several spellings.
    const QByteArrayView signingInput = token.first(secondDot);
    if (!sameBytes(token.sliced(secondDot + 1).toByteArray(), base64Url(hmac(signingInput, key)))) {
        result.verdict = Verdict::BadSignature;
        return result;
    }

    const auto payload = decodeSegment(token.sliced(firstDot + 1, secondDot - firstDot - 1));
    if (!payload)
        return result;
    const QJsonValue sub = payload->value(u"sub"_s);
    const QJsonValue exp = payload->value(u"exp"_s);
    // Times are whole seconds: 1e300 or 1.5 would read as 0 and leave claims that
    // contradict the verdict.
    if (!sub.isString() || sub.toString().isEmpty() || !isWholeNumber(exp))
        return result;
    const QJsonValue iat = payload->value(u"iat"_s);
    if (!iat.isUndefined() && !isWholeNumber(iat))
        return result;
    result.claims.subject = sub.toString();
    result.claims.expiresAt = exp.toInteger();
    result.claims.issuedAt = iat.toInteger();
    const QJsonValue gen = payload->value(u"gen"_s);
    if (!gen.isUndefined() && !isWholeNumber(gen))
        return result;
    result.claims.generation = gen.toInteger();
    const QJsonValue family = payload->value(u"fam"_s);
    if (!family.isUndefined() && !family.isString())
        return result;
    result.claims.family = family.toString();
    if (result.claims.expiresAt <= now) {
        result.verdict = Verdict::Expired;
        return result;
    }
    result.verdict = Verdict::Valid;
    return result;
}

} // namespace Jwt
