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

using Result = std::variant<Tokens, Foreign, Incomplete, RepeatedName>;

// Reads quillet://auth?token=…&refresh=…. Scheme and host are compared exactly (case
// matters); query items without "=" have no value and do not count.
Result parse(const QString& link);

} // namespace SignInLink
