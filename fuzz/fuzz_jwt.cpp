// Verifies tokens built from arbitrary bytes, two ways: the input as a whole token (what a
// stranger sends), and the input as a header and a payload that this target signs with the
// right key, so that the claims parsing behind a good signature is reached too.
// A token that verifies must carry exactly the signature sign() would write for it, stop
// verifying when any character of that signature changes, and survive a round trip
// through sign() with the same claims.
#include "Jwt.h"

#include <QCryptographicHash>
#include <QMessageAuthenticationCode>

#include <cstddef>
#include <cstdint>

namespace {

const QByteArray key = QByteArrayLiteral("fuzzing key of thirty-two bytes!");
constexpr qint64 now = 1'800'000'000;

QByteArray signature(QByteArrayView signingInput)
{
    return Jwt::base64Url(
        QMessageAuthenticationCode::hash(signingInput.toByteArray(), key, QCryptographicHash::Sha256));
}

void check(const QByteArray& token)
{
    const Jwt::Verification result = Jwt::verify(token, key, now);
    if (result.verdict != Jwt::Verdict::Valid) {
        if (result.verdict == Jwt::Verdict::Expired && result.claims.expiresAt > now)
            __builtin_trap();
        return;
    }
    const qsizetype lastDot = token.lastIndexOf('.');
    if (lastDot < 0 || token.sliced(lastDot + 1) != signature(token.first(lastDot)))
        __builtin_trap();
    if (result.claims.subject.isEmpty() || result.claims.expiresAt <= now)
        __builtin_trap();

    // One changed character of the signature, anywhere, and it no longer verifies.
    for (qsizetype i = lastDot + 1; i < token.size(); ++i) {
        QByteArray forged = token;
        forged[i] = forged[i] == 'A' ? 'B' : 'A';
        if (Jwt::verify(forged, key, now).verdict == Jwt::Verdict::Valid)
            __builtin_trap();
    }
    // Nor with another key.
    if (Jwt::verify(token, key + 'x', now).verdict == Jwt::Verdict::Valid)
        __builtin_trap();

    const QByteArray again = Jwt::sign(result.claims, key);
    const Jwt::Verification second = Jwt::verify(again, key, now);
    if (second.verdict != Jwt::Verdict::Valid || second.claims.subject != result.claims.subject
        || second.claims.expiresAt != result.claims.expiresAt || second.claims.issuedAt != result.claims.issuedAt
        || second.claims.generation != result.claims.generation || second.claims.family != result.claims.family)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    check(input);

    // "header JSON" NUL "payload JSON": signed here, so only the claims decide.
    const qsizetype nul = input.indexOf('\0');
    if (nul >= 0) {
        const QByteArray signingInput = Jwt::base64Url(input.first(nul)) + '.' + Jwt::base64Url(input.sliced(nul + 1));
        check(signingInput + '.' + signature(signingInput));
    }
    return 0;
}
