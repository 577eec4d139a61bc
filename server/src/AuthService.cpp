#include "AuthService.h"

#include "Jwt.h"

#include <QDateTime>
#include <QFile>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>
#include <QThread>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr qsizetype keyBytes = 32;
// Long enough to read the page and press its button; each token works once.
constexpr qint64 formTokenSeconds = 10 * 60;

} // namespace

qint64 nowSeconds()
{
    return QDateTime::currentSecsSinceEpoch();
}

AuthService::AuthService(TokenStore& store, QByteArray signingKey, Lifetimes lifetimes)
    : m_store(store)
    , m_key(std::move(signingKey))
    , m_lifetimes(lifetimes)
{ }

std::optional<QByteArray> AuthService::loadOrCreateSigningKey(const QString& path, QString* error)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly, QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        QByteArray key(keyBytes, Qt::Uninitialized);
        QRandomGenerator::system()->generate(key.begin(), key.end());
        if (file.write(key) != key.size() || !file.flush()) {
            *error = u"cannot write the signing key %1: %2"_s.arg(path, file.errorString());
            file.close();
            file.remove();
            return std::nullopt;
        }
        return key;
    }
    if (!file.exists()) {
        *error = u"cannot create the signing key %1: %2"_s.arg(path, file.errorString());
        return std::nullopt;
    }
    // Another process may have just created the file and not written it yet.
    for (int attempt = 0; attempt < 50; ++attempt) {
        QFile existing(path);
        if (!existing.open(QIODevice::ReadOnly)) {
            *error = u"cannot read the signing key %1: %2"_s.arg(path, existing.errorString());
            return std::nullopt;
        }
        const QByteArray key = existing.readAll();
        if (key.size() == keyBytes)
            return key;
        QThread::msleep(20); // start-up only, before the event loop runs
    }
    *error = u"the signing key %1 is not %2 bytes long; delete it to make a new one"_s.arg(path).arg(keyBytes);
    return std::nullopt;
}

QString AuthService::accessTokenFor(const TokenStore::Account& account, const QString& family, qint64 now) const
{
    Jwt::Claims claims;
    claims.family = family;
    claims.subject = account.name;
    claims.issuedAt = now;
    claims.expiresAt = now + m_lifetimes.accessSeconds;
    claims.generation = account.generation;
    return QString::fromLatin1(Jwt::sign(claims, m_key));
}

std::optional<AuthService::TokenPair> AuthService::signIn(const QString& accountName)
{
    const auto account = m_store.ensureAccount(accountName);
    if (!account)
        return std::nullopt;
    const qint64 now = nowSeconds();
    QString family;
    const auto refresh = m_store.startFamily(account->id, now, m_lifetimes.refreshSeconds, &family);
    if (!refresh)
        return std::nullopt;
    return TokenPair { accessTokenFor(*account, family, now), *refresh };
}

AuthService::RefreshResult AuthService::refresh(const QString& refreshToken)
{
    RefreshResult result;
    const qint64 now = nowSeconds();
    const TokenStore::Rotation rotation = m_store.rotate(refreshToken, now, m_lifetimes.refreshSeconds);
    result.reason = rotation.outcome;
    result.subject = rotation.account.name;
    switch (rotation.outcome) {
    case TokenStore::Outcome::Rotated:
        result.outcome = RefreshOutcome::Refreshed;
        result.tokens = TokenPair { accessTokenFor(rotation.account, rotation.family, now), rotation.refreshToken };
        return result;
    case TokenStore::Outcome::Unknown:
    case TokenStore::Outcome::Expired:
    case TokenStore::Outcome::Revoked:
    case TokenStore::Outcome::Reused:
        result.outcome = RefreshOutcome::Rejected;
        return result;
    case TokenStore::Outcome::Failed:
        break;
    }
    result.outcome = RefreshOutcome::Failed;
    return result;
}

AuthService::AccessResult AuthService::checkAccess(QByteArrayView token)
{
    AccessResult result;
    const Jwt::Verification verification = Jwt::verify(token, m_key, nowSeconds());
    switch (verification.verdict) {
    case Jwt::Verdict::Valid:
        break;
    case Jwt::Verdict::Malformed:
        result.check = AccessCheck::Malformed;
        return result;
    case Jwt::Verdict::UnsupportedAlgorithm:
    case Jwt::Verdict::BadSignature:
        result.check = AccessCheck::BadSignature;
        return result;
    case Jwt::Verdict::Expired:
        result.check = AccessCheck::Expired;
        return result;
    }
    result.subject = verification.claims.subject;
    // Sign-out everywhere bumps the account's generation; older tokens stop working at once.
    const auto account = m_store.accountByName(verification.claims.subject);
    if (!account || account->generation != verification.claims.generation) {
        result.check = AccessCheck::Revoked;
        return result;
    }
    // A replayed refresh token revokes its family; the family's access tokens go with it.
    if (!verification.claims.family.isEmpty()) {
        const auto revoked = m_store.familyRevoked(verification.claims.family);
        if (!revoked || *revoked) {
            result.check = AccessCheck::FamilyRevoked;
            return result;
        }
    }
    result.check = AccessCheck::Valid;
    return result;
}

int AuthService::signOutEverywhere(const QString& accountName)
{
    const auto account = m_store.accountByName(accountName);
    if (!account)
        return 0;
    return m_store.signOutEverywhere(account->id, nowSeconds());
}

int AuthService::activeSignIns(const QString& accountName)
{
    const auto account = m_store.accountByName(accountName);
    if (!account)
        return 0;
    return m_store.activeSignIns(account->id, nowSeconds());
}

QString AuthService::formToken(const QString& action) const
{
    // The random part tells apart two pages served in the same second: each token is
    // used once, so two pages must not share one.
    QByteArray nonce(12, Qt::Uninitialized);
    QRandomGenerator::system()->generate(nonce.begin(), nonce.end());
    const QByteArray signedPart = QByteArray::number(nowSeconds()) + '.' + Jwt::base64Url(nonce);
    const QByteArray mac = QMessageAuthenticationCode::hash(
        "form:" + action.toUtf8() + ':' + signedPart, m_key, QCryptographicHash::Sha256);
    return QString::fromLatin1(signedPart + '.' + Jwt::base64Url(mac));
}

bool AuthService::useFormToken(const QString& action, const QString& token)
{
    if (!checkFormToken(action, token))
        return false;
    // Remembered in the database until it would have expired anyway, so a replica that
    // shares it refuses the same token too.
    const qint64 stamp = token.first(token.indexOf(u'.')).toLongLong();
    return m_store.useOnce(u"form:"_s + token, nowSeconds(), stamp + formTokenSeconds + 1);
}

bool AuthService::checkFormToken(const QString& action, const QString& token) const
{
    // "<seconds>.<nonce>.<mac>"
    const qsizetype dot = token.indexOf(u'.');
    const qsizetype lastDot = token.lastIndexOf(u'.');
    if (dot <= 0 || lastDot <= dot + 1)
        return false;
    bool ok = false;
    const qint64 stamp = token.first(dot).toLongLong(&ok);
    if (!ok)
        return false;
    const qint64 age = nowSeconds() - stamp;
    if (age < 0 || age > formTokenSeconds)
        return false;
    const QByteArray mac = QMessageAuthenticationCode::hash(
        "form:" + action.toUtf8() + ':' + token.first(lastDot).toUtf8(), m_key, QCryptographicHash::Sha256);
    const QByteArray expected = Jwt::base64Url(mac);
    const QByteArray given = token.mid(lastDot + 1).toLatin1();
    if (given.size() != expected.size())
        return false;
    unsigned char diff = 0;
    for (qsizetype i = 0; i < given.size(); ++i)
        diff |= static_cast<unsigned char>(given.at(i) ^ expected.at(i));
    return diff == 0;
}
