// Feeds arbitrary text to the sign-in link reader, as any web page (or anyone who can
// run `quillet LINK`) can. Beyond not crashing: tokens are only ever taken from a
// quillet://auth link, and tokens taken have the shapes the token store accepts and
// contain no character that could end a header line.
#include "app/SignInLink.h"
#include "services/TokenShape.h"

#include <QString>

#include <cstddef>
#include <cstdint>

namespace {

bool hasControl(const QString& text)
{
    for (const QChar c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString link = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const SignInLink::Result result = SignInLink::parse(link);
    if (!link.startsWith(QStringLiteral("quillet://auth")) && !std::holds_alternative<SignInLink::Foreign>(result))
        __builtin_trap();
    if (const auto* tokens = std::get_if<SignInLink::Tokens>(&result)) {
        if (link.size() > SignInLink::maxLength || hasControl(link))
            __builtin_trap();
        if (!TokenShape::isAccessToken(tokens->accessToken) || !TokenShape::isRefreshToken(tokens->refreshToken))
            __builtin_trap();
        if (hasControl(tokens->accessToken) || hasControl(tokens->refreshToken))
            __builtin_trap();
        // Nothing outside printable ASCII: a header value of our requests stays one line.
        for (const QString* token : { &tokens->accessToken, &tokens->refreshToken }) {
            for (const QChar c : *token) {
                if (c.unicode() <= 0x20 || c.unicode() >= 0x7f)
                    __builtin_trap();
            }
        }
    }
    if (const auto* refused = std::get_if<SignInLink::Refused>(&result)) {
        if (refused->reason.isEmpty())
            __builtin_trap();
    }
    return 0;
}
