#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

// HS256 JSON Web Tokens, and nothing else: verification is pinned to HS256, so "none",
// RS256 and friends are refused before any key is involved.
namespace Jwt {

struct Claims {
    QString subject; // "sub"
    qint64 issuedAt = 0; // "iat", seconds since the epoch
    qint64 expiresAt = 0; // "exp", seconds since the epoch
    qint64 generation = 0; // "gen": bumped by "sign out everywhere" to retire live tokens
    QString family; // "fam": the refresh-token family of the sign-in; revoking it retires the token
};

enum class Verdict { Valid, Malformed, UnsupportedAlgorithm, BadSignature, Expired };

struct Verification {
    Verdict verdict = Verdict::Malformed;
    Claims claims;
};

QByteArray sign(const Claims& claims, const QByteArray& key);
// `now` in seconds since the epoch; a token is expired from its "exp" second on.
Verification verify(QByteArrayView token, const QByteArray& key, qint64 now);

QByteArray base64Url(const QByteArray& bytes);

} // namespace Jwt
