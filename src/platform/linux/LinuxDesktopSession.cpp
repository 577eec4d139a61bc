#include "platform/DesktopSession.h"

#include "platform/linux/DesktopPortal.h"
#include "platform/linux/WaylandGlobals.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVariant>
#include <QGuiApplication>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace DesktopSession {

namespace {

// Set when prepareGuiPlatform() chose the plugin, so the choice is not inherited by
// the browser, xdg-mime or whatever else the program starts.
bool platformChosenHere = false;

bool onPath(const QString& tool)
{
    return !QStandardPaths::findExecutable(tool).isEmpty();
}

// Whether the desktop's portal has RemoteDesktop with a keyboard among its devices.
// Asked once at start and waited for, but briefly: a desktop whose portal does not
// answer within the time gets no keystroke route rather than a slow start.
bool remoteDesktopOffersKeyboard()
{
    const QString& service = DesktopPortal::service;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return false;
    // A portal that neither runs nor can be started by the bus is not asked at all.
    const QDBusReply<bool> running = bus.interface()->isServiceRegistered(service);
    if (!(running.isValid() && running.value())
        && !bus.interface()->activatableServiceNames().value().contains(service))
        return false;
    QDBusMessage get
        = QDBusMessage::createMethodCall(service, DesktopPortal::path, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    get << u"org.freedesktop.portal.RemoteDesktop"_s << u"AvailableDeviceTypes"_s;
    const QDBusMessage reply = bus.call(get, QDBus::Block, 2000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return false;
    const uint types = reply.arguments().constFirst().value<QDBusVariant>().variant().toUInt();
    return (types & 1U) != 0; // the keyboard
}

} // namespace

Type typeFrom(const QString& waylandDisplay, const QString& sessionType)
{
    if (!waylandDisplay.isEmpty() || sessionType.compare(u"wayland"_s, Qt::CaseInsensitive) == 0)
        return Type::wayland;
    return Type::x11;
}

QString guiPlatformFor(Type type, bool xDisplay, bool userChosePlatform)
{
    if (userChosePlatform || type != Type::wayland)
        return {};
    // Without Xwayland the windows are native Wayland ones where Qt's plugin for that is
    // installed, and else nowhere at all: dictation needs no window, only the capsule does.
    return xDisplay ? u"xcb"_s : u"wayland;offscreen"_s;
}

QString describe(const Routes& routes)
{
    if (routes.type == Type::x11)
        return u"desktop session x11: hotkey from XInput2 raw key events; text through AT-SPI, else the clipboard "
               "and an XTest paste keystroke; capsule as an override-redirect window"_s;
    QString text = u"desktop session wayland: hotkey from the GlobalShortcuts portal where the desktop has one, "
                   "and from compositor bindings (quillet --press, --release, --toggle); text through AT-SPI"_s;
    if (routes.waylandClipboard() && routes.wtypeKeystroke())
        text += u", else wl-copy and a wtype paste keystroke"_s;
    else if (routes.portalKeystroke())
        text += u", else wl-copy and a paste keystroke through the RemoteDesktop portal"_s;
    else if (routes.waylandClipboard())
        text += u", else left on the clipboard by wl-copy"_s;
    text += routes.xDisplay ? u"; capsule as an override-redirect window through Xwayland"_s : u"; no capsule"_s;
    return text;
}

QStringList missingRoutes(const Routes& routes)
{
    if (routes.type != Type::wayland)
        return {};
    QStringList missing;
    if (!routes.xDisplay)
        missing << u"no Xwayland (DISPLAY is not set): dictation runs without its capsule, since a native Wayland "
                   "window would take the keyboard focus from the application the text goes to, and without the "
                   "tray and windows where Qt's Wayland plugin (qt6-wayland) is not installed"_s;
    if (!routes.dataControl)
        missing << u"the compositor offers no data-control clipboard: text AT-SPI cannot insert is kept in the "
                   "history only (quillet --history)"_s;
    else if (!routes.clipboardTools)
        missing << u"wl-copy or wl-paste is missing (package wl-clipboard): text AT-SPI cannot insert is kept in "
                   "the history only (quillet --history)"_s;
    if (!routes.waylandClipboard() || routes.waylandKeystroke())
        return missing;
    if (!routes.virtualKeyboard)
        missing << u"the compositor accepts no virtual keyboard and the desktop offers no RemoteDesktop portal: "
                   "text AT-SPI cannot insert is left on the clipboard, to paste by hand"_s;
    else
        missing << u"wtype is missing (package wtype): text AT-SPI cannot insert is left on the clipboard, to "
                   "paste by hand"_s;
    return missing;
}

Type current()
{
    static const Type type
        = typeFrom(qEnvironmentVariable("WAYLAND_DISPLAY"), qEnvironmentVariable("XDG_SESSION_TYPE"));
    return type;
}

Routes currentRoutes()
{
    static const Routes routes = [] {
        Routes found;
        found.type = current();
        found.xDisplay = !qEnvironmentVariableIsEmpty("DISPLAY");
        if (found.type == Type::wayland) {
            const std::optional<WaylandGlobals> globals = probeWaylandGlobals();
            found.dataControl = globals && globals->dataControl;
            found.virtualKeyboard = globals && globals->virtualKeyboard;
            found.clipboardTools = onPath(u"wl-copy"_s) && onPath(u"wl-paste"_s);
            found.keystrokeTool = onPath(u"wtype"_s);
            // Asked only where it would be used: sway and Hyprland never start a portal for it.
            if (found.waylandClipboard() && !found.virtualKeyboard)
                found.remoteDesktopKeyboard = remoteDesktopOffersKeyboard();
        }
        return found;
    }();
    return routes;
}

void prepareGuiPlatform()
{
    const QString platform = guiPlatformFor(
        current(), !qEnvironmentVariableIsEmpty("DISPLAY"), qEnvironmentVariableIsSet("QT_QPA_PLATFORM"));
    if (platform.isEmpty())
        return;
    qputenv("QT_QPA_PLATFORM", platform.toUtf8());
    platformChosenHere = true;
}

void forgetGuiPlatformChoice()
{
    if (platformChosenHere)
        qunsetenv("QT_QPA_PLATFORM");
    platformChosenHere = false;
}

std::optional<QString> registerWithPortal(const QString& appId, int timeoutMs)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return u"no session bus"_s;
    QDBusMessage call = QDBusMessage::createMethodCall(
        DesktopPortal::service, DesktopPortal::path, u"org.freedesktop.host.portal.Registry"_s, u"Register"_s);
    call << appId << QVariantMap();
    const QDBusMessage reply = bus.call(call, QDBus::Block, timeoutMs);
    if (reply.type() != QDBusMessage::ErrorMessage)
        return std::nullopt;
    // No portal at all, or one from before registration: it knows us some other way or
    // not at all, and the routes that need it say so themselves.
    const QDBusError::ErrorType error = QDBusError(reply).type();
    if (error == QDBusError::ServiceUnknown || error == QDBusError::UnknownInterface
        || error == QDBusError::UnknownMethod || error == QDBusError::UnknownObject)
        return std::nullopt;
    return reply.errorName() + u": "_s + reply.errorMessage();
}

bool canShowUnfocusedWindows()
{
    // Native Wayland windows are focused by the compositor, and on a Wayland session the
    // offscreen platform is what is left without Xwayland and Qt's Wayland plugin: no
    // window shows there. xcb (X11 or Xwayland) and the test platforms elsewhere are fine.
    const QString platform = QGuiApplication::platformName();
    if (platform.startsWith(u"wayland"_s))
        return false;
    return !(platform == u"offscreen"_s && current() == Type::wayland);
}

} // namespace DesktopSession
