#include "platform/linux/RemoteDesktopPasteKeystroke.h"

#include "platform/linux/AtspiTextAccessibility.h"
#include "platform/linux/DesktopPortal.h"
#include "platform/linux/FocusedTerminal.h"

#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QSaveFile>

#include <optional>

#include <QCoroDBusPendingCall>

#include <X11/keysym.h>

using namespace Qt::StringLiterals;

namespace {

using DesktopPortal::requestInterface;
using DesktopPortal::requestPath;
using DesktopPortal::sessionInterface;
const QString& portalService = DesktopPortal::service;
const QString& portalPath = DesktopPortal::path;
const QString remoteDesktopInterface = u"org.freedesktop.portal.RemoteDesktop"_s;

// SelectDevices' device types and persist modes.
constexpr uint keyboardDevice = 1;
constexpr uint persistUntilRevoked = 2;

// How often a session the desktop closed is opened again in one run, so a desktop
// that keeps closing it is not asked forever.
constexpr int reopenLimit = 3;

// The token kept in the file, if any.
std::optional<QString> readToken(const QString& file)
{
    QFile token(file);
    if (!token.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QString text = QString::fromUtf8(token.read(4096)).trimmed();
    if (text.isEmpty())
        return std::nullopt;
    return text;
}

// Keeps the token in the file. It lets whoever holds it type into the user's session
// without asking: readable by the user alone, before a byte of it is written.
bool writeToken(const QString& file, const QString& token)
{
    if (!QDir().mkpath(QFileInfo(file).absolutePath()))
        return false;
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly))
        return false;
    out.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    out.write(token.toUtf8());
    out.write("\n");
    return out.commit();
}

} // namespace

// No key follows the chord, unlike wtype's: that one makes up for the keymap wtype uploads
// of its own, and GTK 3 on KWin pastes the portal's chord without it (tst_program_kwin).
QList<PasteKeyEdge> pasteChordKeysyms(bool terminal)
{
    QList<PasteKeyEdge> keys { { XK_Control_L, true } };
    if (terminal)
        keys.append({ XK_Shift_L, true });
    keys.append({ XK_v, true });
    keys.append({ XK_v, false });
    if (terminal)
        keys.append({ XK_Shift_L, false });
    keys.append({ XK_Control_L, false });
    return keys;
}

RemoteDesktopPasteKeystroke::RemoteDesktopPasteKeystroke(QString tokenFile)
    : m_tokenFile(std::move(tokenFile))
    , m_accessibility(std::make_unique<AtspiTextAccessibility>())
{ }

RemoteDesktopPasteKeystroke::~RemoteDesktopPasteKeystroke() = default;

QString RemoteDesktopPasteKeystroke::defaultTokenFile()
{
    // The XDG state folder: it outlives a restart, and is no setting the user edits.
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty() || !QDir::isAbsolutePath(state))
        state = QDir::homePath() + u"/.local/state"_s;
    return state + u"/quillet/remote-desktop-token"_s;
}

void RemoteDesktopPasteKeystroke::notice(const QString& text, bool problem)
{
    if (text == m_lastNotice)
        return;
    m_lastNotice = text;
    if (m_notice)
        m_notice(text, problem);
}

void RemoteDesktopPasteKeystroke::forgetSession()
{
    if (m_session.isEmpty())
        return;
    QDBusConnection::sessionBus().disconnect(
        portalService, m_session, sessionInterface, u"Closed"_s, this, SLOT(onSessionClosed(QDBusMessage)));
    m_session.clear();
}

void RemoteDesktopPasteKeystroke::fail(State state, const QString& why)
{
    m_state = state;
    forgetSession();
    notice(u"RemoteDesktop portal: %1; text AT-SPI cannot insert is left on the clipboard, to paste by hand"_s.arg(why),
        true);
}

void RemoteDesktopPasteKeystroke::prepare()
{
    if (m_state != State::idle)
        return;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        fail(State::refused, u"no session bus"_s);
        return;
    }
    // The portal's sessions die with the portal: when another one takes its place
    // (restarted, replaced, or started again by the bus), the session is opened anew.
    m_portalWatcher
        = std::make_unique<QDBusServiceWatcher>(portalService, bus, QDBusServiceWatcher::WatchForOwnerChange);
    connect(m_portalWatcher.get(), &QDBusServiceWatcher::serviceOwnerChanged, this,
        [this](const QString& service, const QString& oldOwner, const QString& newOwner) {
            static_cast<void>(service);
            if (m_state == State::refused || m_state == State::idle)
                return;
            if (!oldOwner.isEmpty() && m_state != State::closed)
                fail(State::closed, u"the portal went away"_s);
            if (!newOwner.isEmpty())
                open();
        });
    open();
}

void RemoteDesktopPasteKeystroke::open()
{
    m_state = State::opening;
    forgetSession();
    // An answer still awaited belongs to the session given up on.
    if (!m_pendingToken.isEmpty())
        stopListening(m_pendingToken, m_pendingSlot);
    // The app id went to the portal at the program's start, before any portal call: the desktop's
    // consent, and its memory of it, are for Quillet by name.
    const QString token = u"quillet_rd%1"_s.arg(++m_requests);
    request(u"CreateSession"_s, { QVariantMap { { u"handle_token"_s, token }, { u"session_handle_token"_s, token } } },
        token, SLOT(onCreateSessionResponse(uint, QVariantMap)));
}

// QtDBus subscribes to another process's signals only through a slot's signature
// (QDBusConnection::connect has no overload for a member function), hence the SLOT()s.
void RemoteDesktopPasteKeystroke::request(
    const QString& method, const QVariantList& arguments, const QString& token, const char* slot)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    // An answer still awaited belongs to a session given up on: it is not listened to any more.
    if (!m_pendingToken.isEmpty())
        stopListening(m_pendingToken, m_pendingSlot);
    m_pendingToken = token;
    m_pendingSlot = slot;
    // Listen for the answer before asking, so it cannot come first.
    bus.connect(portalService, requestPath(token), requestInterface, u"Response"_s, this, slot);
    QDBusMessage call = QDBusMessage::createMethodCall(portalService, portalPath, remoteDesktopInterface, method);
    call.setArguments(arguments);
    // The call returns the request at once; the answer, after any dialog, is the Response.
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 10000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, method, token](QDBusPendingCallWatcher* pending) {
        pending->deleteLater();
        if (!pending->isError() || token != m_pendingToken)
            return;
        stopListening(m_pendingToken, m_pendingSlot);
        m_pendingToken.clear();
        const QString name = pending->error().name();
        // Not asked again until another portal takes the name.
        fail(State::closed,
            name == u"org.freedesktop.DBus.Error.UnknownMethod"_s
                    || name == u"org.freedesktop.DBus.Error.UnknownInterface"_s
                    || name == u"org.freedesktop.DBus.Error.UnknownObject"_s
                    || name == u"org.freedesktop.DBus.Error.ServiceUnknown"_s
                ? u"the desktop has none"_s
                : u"%1 failed (%2)"_s.arg(method, name));
    });
}

void RemoteDesktopPasteKeystroke::stopListening(const QString& token, const char* slot)
{
    if (token == m_pendingToken)
        m_pendingToken.clear();
    QDBusConnection::sessionBus().disconnect(
        portalService, requestPath(token), requestInterface, u"Response"_s, this, slot);
}

void RemoteDesktopPasteKeystroke::onCreateSessionResponse(uint response, const QVariantMap& results)
{
    stopListening(m_pendingToken, SLOT(onCreateSessionResponse(uint, QVariantMap)));
    if (m_state != State::opening)
        return;
    if (response != 0) {
        fail(State::refused, u"the desktop refused a session"_s);
        return;
    }
    const QVariant handle = results.value(u"session_handle"_s);
    m_session = handle.canConvert<QDBusObjectPath>() ? handle.value<QDBusObjectPath>().path() : handle.toString();
    if (m_session.isEmpty()) {
        fail(State::refused, u"the desktop gave no session"_s);
        return;
    }
    QDBusConnection::sessionBus().connect(
        portalService, m_session, sessionInterface, u"Closed"_s, this, SLOT(onSessionClosed(QDBusMessage)));

    // The keyboard alone: a paste needs no pointer, and the desktop's dialog asks for less.
    // A token from an earlier start lets the desktop skip its dialog; a portal that
    // cannot remember (before version 2) ignores both options.
    const QString token = u"quillet_rd%1"_s.arg(++m_requests);
    QVariantMap options { { u"handle_token"_s, token }, { u"types"_s, keyboardDevice },
        { u"persist_mode"_s, persistUntilRevoked } };
    if (const std::optional<QString> restore = readToken(m_tokenFile))
        options.insert(u"restore_token"_s, *restore);
    request(u"SelectDevices"_s, { QVariant::fromValue(QDBusObjectPath(m_session)), options }, token,
        SLOT(onSelectDevicesResponse(uint, QVariantMap)));
}

void RemoteDesktopPasteKeystroke::onSelectDevicesResponse(uint response, const QVariantMap& results)
{
    static_cast<void>(results);
    stopListening(m_pendingToken, SLOT(onSelectDevicesResponse(uint, QVariantMap)));
    if (m_state != State::opening)
        return;
    if (response != 0) {
        fail(State::refused, u"the desktop offers no keyboard"_s);
        return;
    }
    // No window of ours asks: the desktop shows its dialog, if any, on its own.
    const QString token = u"quillet_rd%1"_s.arg(++m_requests);
    request(u"Start"_s,
        { QVariant::fromValue(QDBusObjectPath(m_session)), QString(), QVariantMap { { u"handle_token"_s, token } } },
        token, SLOT(onStartResponse(uint, QVariantMap)));
}

void RemoteDesktopPasteKeystroke::onStartResponse(uint response, const QVariantMap& results)
{
    stopListening(m_pendingToken, SLOT(onStartResponse(uint, QVariantMap)));
    if (m_state != State::opening)
        return;
    if (response == 1) {
        fail(State::refused, u"you declined the desktop's request to send keys"_s);
        return;
    }
    if (response != 0) {
        fail(State::refused, u"the desktop did not start the session"_s);
        return;
    }
    if ((results.value(u"devices"_s).toUInt() & keyboardDevice) == 0) {
        fail(State::refused, u"the desktop granted no keyboard"_s);
        return;
    }
    m_state = State::started;
    const QString restore = results.value(u"restore_token"_s).toString();
    if (restore.isEmpty()) {
        notice(u"RemoteDesktop portal: the paste keystroke is ready; this portal keeps no permission between starts "
               "(it gave no restore token), so a desktop that asks will ask again at the next start"_s,
            false);
        return;
    }
    // Each token is good for one restore: the new one replaces the one just used.
    if (!writeToken(m_tokenFile, restore)) {
        notice(u"RemoteDesktop portal: the paste keystroke is ready, but its permission could not be kept in %1: "
               "a desktop that asks will ask again at the next start"_s.arg(m_tokenFile),
            false);
        return;
    }
    notice(
        u"RemoteDesktop portal: the paste keystroke is ready; its permission is kept in %1"_s.arg(m_tokenFile), false);
}

void RemoteDesktopPasteKeystroke::onSessionClosed(const QDBusMessage& message)
{
    if (message.path() != m_session || m_session.isEmpty())
        return;
    if (m_reopened >= reopenLimit) {
        fail(State::refused, u"the desktop closed the session again"_s);
        return;
    }
    ++m_reopened;
    m_state = State::closed;
    forgetSession();
    notice(u"RemoteDesktop portal: the desktop closed the session; asking for a new one (meanwhile text AT-SPI "
           "cannot insert is left on the clipboard)"_s,
        true);
    open();
}

QCoro::Task<> RemoteDesktopPasteKeystroke::post()
{
    if (m_state != State::started)
        co_return;
    const QPointer<RemoteDesktopPasteKeystroke> self(this);
    const bool terminal = focusedApplicationIsTerminal(*m_accessibility);
    // One call per key edge, each sent once the previous one is answered: xdg-desktop-portal
    // handles each call on a thread of its own, so calls sent together may reach the
    // desktop out of order (seen on KWin: a v without Control, repeated by the application
    // until its release came).
    QDBusConnection bus = QDBusConnection::sessionBus();
    for (const PasteKeyEdge& key : pasteChordKeysyms(terminal)) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            portalService, portalPath, remoteDesktopInterface, u"NotifyKeyboardKeysym"_s);
        call << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariantMap() << int(key.keysym)
             << uint(key.pressed ? 1 : 0);
        const QDBusMessage reply = co_await bus.asyncCall(call, 2000);
        if (!self)
            co_return;
        // A key left down would repeat: the remaining edges are sent even after a refusal.
        if (reply.type() == QDBusMessage::ErrorMessage)
            notice(u"RemoteDesktop portal: a paste keystroke was refused (%1)"_s.arg(reply.errorName()), true);
    }
}
