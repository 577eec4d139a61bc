#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

// Unsigned JSON Web Tokens shaped like the backend's, for tests.
namespace TestTokens {

inline QByteArray base64Url(const QByteArray& bytes)
{
    return bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

inline QString withPayload(const QByteArray& payloadJson)
{
    return QString::fromLatin1(base64Url(R"({"alg":"HS256","typ":"JWT"})") + '.' + base64Url(payloadJson) + '.'
        + base64Url("signature-not-checked-by-the-client"));
}

inline double now()
{
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

// A token whose "exp" lies `seconds` from now.
inline QString expiringIn(double seconds)
{
    const QJsonObject payload { { QStringLiteral("sub"), QStringLiteral("user-1") },
        { QStringLiteral("exp"), static_cast<qint64>(now() + seconds) } };
    return withPayload(QJsonDocument(payload).toJson(QJsonDocument::Compact));
}

} // namespace TestTokens
