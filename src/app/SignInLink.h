#pragma once

#include <QString>

#include <variant>

// What a quillet:// link from the sign-in page carries.
namespace SignInLink {

// The two tokens of a completed sign-in.
struct Tokens {
    QString accessToken;
    QString refreshToken;
};
// Not ours (another scheme or host, or not a link at all): ignored without a word.
struct Foreign {
};
// Ours, but without both tokens: nothing is saved.
struct Incomplete {
};
// A query name given twice: a link no page of ours makes, so it is refused whole.
struct RepeatedName {
    QString name;
};

// Ours, but not something our sign-in page makes: too long, with control characters,
// or tokens of the wrong shape. Nothing is saved; the reason is for the log and the
// terminal, and never quotes a token.
struct Refused {
    QString reason;
};

using Result = std::variant<Tokens, Foreign, Incomplete, RepeatedName, Refused>;

// The longest link taken; the sign-in page's are a few hundred characters.
constexpr qsizetype maxLength = 16 * 1024;

// Reads quillet://auth?token=…&refresh=…. Scheme and host are compared exactly (case
// matters); query items without "=" have no value and do not count. The access token
// must have the shape of a JSON Web Token and the refresh token be an opaque token of
// URL-safe characters (services/TokenShape.h), or the link is refused.
Result parse(const QString& link);

} // namespace SignInLink
