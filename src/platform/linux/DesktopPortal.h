#pragma once

#include <QDBusConnection>
#include <QString>

// The names every call to the desktop's portal (xdg-desktop-portal) uses.
namespace DesktopPortal {

using namespace Qt::StringLiterals;

inline const QString service = u"org.freedesktop.portal.Desktop"_s;
inline const QString path = u"/org/freedesktop/portal/desktop"_s;
inline const QString requestInterface = u"org.freedesktop.portal.Request"_s;
inline const QString sessionInterface = u"org.freedesktop.portal.Session"_s;

// The object path the portal answers a request with this handle token on, for this
// program's session-bus connection: listen there before asking, so the answer cannot
// come first.
inline QString requestPath(const QString& token)
{
    QString sender = QDBusConnection::sessionBus().baseService();
    sender.remove(0, 1); // the leading ':'
    sender.replace(u'.', u'_');
    return path + u"/request/"_s + sender + u'/' + token;
}

} // namespace DesktopPortal
