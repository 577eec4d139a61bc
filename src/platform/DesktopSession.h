#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// Which kind of desktop session this program runs in, and which routes it takes there
// for the hotkey, the text insertion and the capsule. Decided once, when the program
// starts, from the environment: one binary serves X11 and Wayland sessions alike. The
// layers above never ask which kind it is; they get the services the session offers.
namespace DesktopSession {

enum class Type {
    x11, // an X server owns the screen
    wayland, // a Wayland compositor owns the screen (perhaps with Xwayland beside it)
};

// What this session offers, as far as the program's routes go.
struct Routes {
    Type type = Type::x11;
    bool xDisplay = false; // an X server to show windows on (Xwayland on a Wayland session)
    bool dataControl = false; // the compositor lets a program without focus use the clipboard
    bool clipboardTools = false; // wl-copy and wl-paste, the clients of that protocol
    bool virtualKeyboard = false; // the compositor accepts virtual keyboards
    bool keystrokeTool = false; // wtype, the client that types through one
    bool remoteDesktopKeyboard = false; // the desktop's RemoteDesktop portal offers a keyboard (KDE, GNOME)

    // The clipboard and paste-keystroke routes of a Wayland session. The keystroke goes
    // through wtype where the compositor takes virtual keyboards (wtype missing there is
    // worth installing), else through the RemoteDesktop portal; either is of use only
    // with the clipboard to paste from.
    bool waylandClipboard() const { return dataControl && clipboardTools; }
    bool wtypeKeystroke() const { return virtualKeyboard && keystrokeTool; }
    bool portalKeystroke() const { return waylandClipboard() && !virtualKeyboard && remoteDesktopKeyboard; }
    bool waylandKeystroke() const { return wtypeKeystroke() || portalKeystroke(); }
};

// The session type from WAYLAND_DISPLAY and XDG_SESSION_TYPE: Wayland when either says so.
Type typeFrom(const QString& waylandDisplay, const QString& sessionType);

// The Qt platform plugin the program's windows should use, or empty to leave Qt's own
// choice. On a Wayland session with Xwayland that is xcb: an override-redirect X11 window
// floats above the native windows without taking the focus, which no native window can
// do without layer-shell. Without Xwayland: Qt's Wayland plugin, else offscreen (no
// windows at all, dictation still works). A platform the user chose (QT_QPA_PLATFORM)
// always wins.
QString guiPlatformFor(Type type, bool xDisplay, bool userChosePlatform);

// The start-up line naming the session and the routes taken.
QString describe(const Routes& routes);
// One warning per route the session lacks, with what it means for the user.
QStringList missingRoutes(const Routes& routes);

// This process's session, read from the environment once.
Type current();
// This process's routes: the session, its X display, what the compositor offers, the
// tools on the PATH and, where no virtual keyboard serves, whether the desktop's
// RemoteDesktop portal offers a keyboard (a bounded question on the session bus); found
// out once.
Routes currentRoutes();

// Call at the program's start, before the QGuiApplication exists: picks the Qt platform
// plugin as guiPlatformFor() says, without handing the choice down to the programs we start.
// Call forgetGuiPlatformChoice() once the application object exists.
void prepareGuiPlatform();
void forgetGuiPlatformChoice();

// Tells the desktop portal which app id this program is (xdg-desktop-portal 1.20 and
// later know an unsandboxed program only by what it registers, and only before any other
// portal call on its bus connection; it must name the installed desktop entry). Call at
// the program's start on a Wayland session, before the application object exists: creating one
// may already ask a portal for settings. Blocks for at most timeoutMs. Returns why it
// failed, or nothing when the portal took the id or predates registration.
std::optional<QString> registerWithPortal(const QString& appId, int timeoutMs);

// Whether a window can float above the others without ever taking the keyboard focus
// (the capsule). False where Qt draws native Wayland windows (the compositor focuses
// them) and where it draws none.
bool canShowUnfocusedWindows();

} // namespace DesktopSession
