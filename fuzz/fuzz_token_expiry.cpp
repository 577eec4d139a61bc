// Feeds arbitrary text to the token expiry test: it must never crash, and a text
// without a dot can never be judged fresh.
#include "services/KeychainHelper.h"

#include <QString>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString token = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const bool expiring = KeychainHelper::isExpiringSoon(token, 1'800'000'000.0);
    if (!token.contains(u'.') && !expiring)
        __builtin_trap();
    return 0;
}
