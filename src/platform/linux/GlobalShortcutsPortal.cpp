#include "platform/linux/GlobalShortcutsPortal.h"

#include "platform/linux/DesktopPortal.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

using DesktopPortal::requestInterface;
using DesktopPortal::requestPath;
const QString& portalService = DesktopPortal::service;
const QString& portalPath = DesktopPortal::path;
const QString shortcutsInterface = u"org.freedesktop.portal.GlobalShortcuts"_s;

// One entry of BindShortcuts' a(sa{sv}).
struct PortalShortcut {
    QString id;
    QVariantMap properties;
};
using PortalShortcutList = QList<PortalShortcut>;

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut)
{
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut)
{
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

} // namespace

Q_DECLARE_METATYPE(PortalShortcut)
Q_DECLARE_METATYPE(PortalShortcutList)

namespace {

// The trigger description of our shortcut in an a(sa{sv}) list, or empty.
QString triggerIn(const QVariant& listed)
{
    QString trigger;
    if (!listed.canConvert<QDBusArgument>())
        return trigger;
    PortalShortcutList shortcuts;
    listed.value<QDBusArgument>() >> shortcuts;
    for (const PortalShortcut& shortcut : std::as_const(shortcuts)) {
        if (shortcut.id == QLatin1StringView(GlobalShortcutsPortal::shortcutId))
            trigger = shortcut.properties.value(u"trigger_description"_s).toString();
    }
    return trigger;
}

// Whether an a(sa{sv}) list holds our shortcut.
bool listsOurShortcut(const QVariant& listed)
{
    if (!listed.canConvert<QDBusArgument>())
        return false;
    PortalShortcutList shortcuts;
    listed.value<QDBusArgument>() >> shortcuts;
    return std::any_of(shortcuts.cbegin(), shortcuts.cend(), [](const PortalShortcut& shortcut) {
        return shortcut.id == QLatin1StringView(GlobalShortcutsPortal::shortcutId);
    });
}

} // namespace

GlobalShortcutsPortal::GlobalShortcutsPortal(QObject* parent)
    : QObject(parent)
{
    qDBusRegisterMetaType<PortalShortcut>();
    qDBusRegisterMetaType<PortalShortcutList>();
}

void GlobalShortcutsPortal::start(const QString& preferredTrigger)
{
    m_preferredTrigger = preferredTrigger;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        Q_EMIT unavailable(u"no session bus"_s);
        return;
    }
    // The app id was registered at the program's start, before any other portal call.
    createSession();
}

// QtDBus subscribes to another process's signals only through a slot's signature
// (QDBusConnection::connect has no overload for a member function), hence the SLOT()s.
void GlobalShortcutsPortal::createSession()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    // Listen for the answer before asking, so it cannot come first.
    const QString token = u"quillet_session"_s;
    m_sessionRequest = requestPath(token);
    bus.connect(portalService, m_sessionRequest, requestInterface, u"Response"_s, this,
        SLOT(onSessionResponse(uint, QVariantMap)));
    QDBusMessage call
        = QDBusMessage::createMethodCall(portalService, portalPath, shortcutsInterface, u"CreateSession"_s);
    call << QVariantMap { { u"handle_token"_s, token }, { u"session_handle_token"_s, u"quillet"_s } };
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* pending) {
        pending->deleteLater();
        const QDBusPendingReply<QDBusObjectPath> reply = *pending;
        if (reply.isError()) {
            Q_EMIT unavailable(u"the desktop has no GlobalShortcuts portal (%1)"_s.arg(reply.error().name()));
            return;
        }
    });
}

void GlobalShortcutsPortal::onSessionResponse(uint response, const QVariantMap& results)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.disconnect(portalService, m_sessionRequest, requestInterface, u"Response"_s, this,
        SLOT(onSessionResponse(uint, QVariantMap)));
    if (response != 0) {
        Q_EMIT unavailable(u"the GlobalShortcuts portal refused a session"_s);
        return;
    }
    const QVariant handle = results.value(u"session_handle"_s);
    m_session = handle.canConvert<QDBusObjectPath>() ? handle.value<QDBusObjectPath>().path() : handle.toString();
    if (m_session.isEmpty()) {
        Q_EMIT unavailable(u"the GlobalShortcuts portal gave no session"_s);
        return;
    }
    bus.connect(portalService, portalPath, shortcutsInterface, u"Activated"_s, this,
        SLOT(onActivated(QDBusObjectPath, QString, qulonglong, QVariantMap)));
    bus.connect(portalService, portalPath, shortcutsInterface, u"Deactivated"_s, this,
        SLOT(onDeactivated(QDBusObjectPath, QString, qulonglong, QVariantMap)));
    // The user may give the shortcut another key in the desktop's settings later.
    bus.connect(portalService, portalPath, shortcutsInterface, u"ShortcutsChanged"_s, this,
        SLOT(onShortcutsChanged(QDBusMessage)));

    listShortcuts();
}

void GlobalShortcutsPortal::listShortcuts()
{
    // A desktop that has seen Quillet before remembers the shortcut and its key under the
    // app id: reuse that, so a desktop that asks the user in a dialog asks only once.
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString token = u"quillet_list"_s;
    m_listRequest = requestPath(token);
    bus.connect(
        portalService, m_listRequest, requestInterface, u"Response"_s, this, SLOT(onListResponse(uint, QVariantMap)));
    QDBusMessage call
        = QDBusMessage::createMethodCall(portalService, portalPath, shortcutsInterface, u"ListShortcuts"_s);
    call << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariantMap { { u"handle_token"_s, token } };
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* pending) {
        pending->deleteLater();
        if (!pending->isError())
            return;
        // Nothing to reuse: bind as a first start would.
        QDBusConnection::sessionBus().disconnect(portalService, m_listRequest, requestInterface, u"Response"_s, this,
            SLOT(onListResponse(uint, QVariantMap)));
        bindShortcuts();
    });
}

void GlobalShortcutsPortal::onListResponse(uint response, const QVariantMap& results)
{
    QDBusConnection::sessionBus().disconnect(
        portalService, m_listRequest, requestInterface, u"Response"_s, this, SLOT(onListResponse(uint, QVariantMap)));
    const QVariant listed = results.value(u"shortcuts"_s);
    if (response == 0 && listsOurShortcut(listed)) {
        Q_EMIT bound(triggerIn(listed));
        return;
    }
    bindShortcuts();
}

void GlobalShortcutsPortal::bindShortcuts()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString token = u"quillet_bind"_s;
    m_bindRequest = requestPath(token);
    bus.connect(
        portalService, m_bindRequest, requestInterface, u"Response"_s, this, SLOT(onBindResponse(uint, QVariantMap)));
    QVariantMap properties { { u"description"_s, QString::fromLatin1(shortcutDescription) } };
    if (!m_preferredTrigger.isEmpty())
        properties.insert(u"preferred_trigger"_s, m_preferredTrigger);
    const PortalShortcutList shortcuts { { QString::fromLatin1(shortcutId), properties } };
    QDBusMessage call
        = QDBusMessage::createMethodCall(portalService, portalPath, shortcutsInterface, u"BindShortcuts"_s);
    call << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariant::fromValue(shortcuts) << QString()
         << QVariantMap { { u"handle_token"_s, token } };
    // BindShortcuts may wait for the user to choose a key in a dialog: no short timeout.
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 120000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* pending) {
        pending->deleteLater();
        if (pending->isError())
            Q_EMIT unavailable(
                u"the GlobalShortcuts portal could not bind the shortcut (%1)"_s.arg(pending->error().name()));
    });
}

void GlobalShortcutsPortal::onBindResponse(uint response, const QVariantMap& results)
{
    QDBusConnection::sessionBus().disconnect(
        portalService, m_bindRequest, requestInterface, u"Response"_s, this, SLOT(onBindResponse(uint, QVariantMap)));
    if (response != 0) {
        Q_EMIT unavailable(u"the shortcut was not bound (cancelled in the desktop's dialog)"_s);
        return;
    }
    Q_EMIT bound(triggerIn(results.value(u"shortcuts"_s)));
}

void GlobalShortcutsPortal::onShortcutsChanged(const QDBusMessage& message)
{
    const QVariantList arguments = message.arguments();
    if (arguments.size() < 2 || arguments.at(0).value<QDBusObjectPath>().path() != m_session)
        return;
    Q_EMIT bound(triggerIn(arguments.at(1)));
}

void GlobalShortcutsPortal::onActivated(
    const QDBusObjectPath& session, const QString& id, qulonglong timestamp, const QVariantMap& options)
{
    static_cast<void>(timestamp);
    static_cast<void>(options);
    if (session.path() == m_session && id == QLatin1StringView(shortcutId))
        Q_EMIT pressed();
}

void GlobalShortcutsPortal::onDeactivated(
    const QDBusObjectPath& session, const QString& id, qulonglong timestamp, const QVariantMap& options)
{
    static_cast<void>(timestamp);
    static_cast<void>(options);
    if (session.path() == m_session && id == QLatin1StringView(shortcutId))
        Q_EMIT released();
}
