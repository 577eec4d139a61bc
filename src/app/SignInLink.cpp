#include "app/SignInLink.h"

#include "services/TokenShape.h"

#include <QHash>
#include <QUrl>

using namespace Qt::StringLiterals;

SignInLink::Result SignInLink::parse(const QString& link)
{
    // QUrl folds the scheme and host to lower case, so they are checked on the text itself.
    static const QString prefix = u"quillet://auth"_s;
    if (!link.startsWith(prefix))
        return Foreign {};
    const QStringView rest = QStringView(link).mid(prefix.size());
    if (!rest.isEmpty() && !rest.startsWith(u'?') && !rest.startsWith(u'/') && !rest.startsWith(u'#'))
        return Foreign {}; // quillet://authority, quillet://auth:80 and the like
    if (link.size() > maxLength)
        return Refused { u"the link is too long (%1 characters, at most %2)"_s.arg(link.size()).arg(maxLength) };
    // A line break would make two links of one on the way to the running instance.
    for (const QChar c : link) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return Refused { u"the link contains control characters"_s };
    }
    const QUrl url(link, QUrl::StrictMode);
    if (!url.isValid())
        return Foreign {};

    QHash<QString, QString> items;
    const QString query = url.query(QUrl::FullyEncoded);
    for (const QStringView item : QStringView(query).split(u'&', Qt::SkipEmptyParts)) {
        const qsizetype equals = item.indexOf(u'=');
        if (equals < 0)
            continue; // a name without a value
        const QString name = QUrl::fromPercentEncoding(item.left(equals).toUtf8());
        const QString value = QUrl::fromPercentEncoding(item.mid(equals + 1).toUtf8());
        if (items.contains(name))
            return RepeatedName { name };
        items.insert(name, value);
    }
    if (!items.contains(u"token"_s) || !items.contains(u"refresh"_s))
        return Incomplete {};
    Tokens tokens { items.value(u"token"_s), items.value(u"refresh"_s) };
    // The tokens go into request headers later: a line break in one would add headers
    // of the link maker's choosing to every request.
    if (!TokenShape::isAccessToken(tokens.accessToken))
        return Refused { u"its access token is not a JSON Web Token"_s };
    if (!TokenShape::isRefreshToken(tokens.refreshToken))
        return Refused { u"its refresh token is not a token"_s };
    return tokens;
}
