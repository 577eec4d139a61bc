#include "services/TokenShape.h"

namespace {

bool isBase64UrlCharacter(QChar c)
{
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'-' || c == u'_';
}

constexpr qsizetype minRefreshLength = 8;

} // namespace

bool TokenShape::isAccessToken(QStringView token)
{
    if (token.isEmpty() || token.size() > maxLength)
        return false;
    int segments = 1;
    qsizetype segmentLength = 0;
    for (const QChar c : token) {
        if (c == u'.') {
            if (segmentLength == 0)
                return false;
            ++segments;
            segmentLength = 0;
            continue;
        }
        if (!isBase64UrlCharacter(c))
            return false;
        ++segmentLength;
    }
    return segments == 3 && segmentLength > 0;
}

bool TokenShape::isRefreshToken(QStringView token)
{
    if (token.size() < minRefreshLength || token.size() > maxLength)
        return false;
    for (const QChar c : token) {
        if (!isBase64UrlCharacter(c) && c != u'.' && c != u'~' && c != u'+' && c != u'/' && c != u'=')
            return false;
    }
    return true;
}
