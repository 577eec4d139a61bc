// The one place that picks the platform services for the session the program runs in.
#include "platform/DesktopSession.h"
#include "platform/linux/AtspiTextAccessibility.h"
#include "platform/linux/DesktopShortcutKeyEventSource.h"
#include "platform/linux/QtClipboardPasteboard.h"
#include "platform/linux/RemoteDesktopPasteKeystroke.h"
#include "platform/linux/WlClipboardPasteboard.h"
#include "platform/linux/WtypePasteKeystroke.h"
#include "platform/linux/XInput2KeyEventSource.h"
#include "platform/linux/XTestPasteKeystroke.h"

namespace {

bool wayland()
{
    return DesktopSession::current() == DesktopSession::Type::wayland;
}

} // namespace

std::unique_ptr<KeyEventSource> makeSystemKeyEventSource()
{
    // Under Xwayland, XInput2 hears only the keys that go to X11 windows: half a hotkey is
    // worse than the desktop's own shortcut.
    if (wayland())
        return std::make_unique<DesktopShortcutKeyEventSource>();
    return std::make_unique<XInput2KeyEventSource>();
}

std::unique_ptr<TextAccessibility> makeSystemTextAccessibility()
{
    return std::make_unique<AtspiTextAccessibility>();
}

std::unique_ptr<Pasteboard> makeSystemPasteboard()
{
    // Qt's clipboard is refused on Wayland to a program without the focus, which
    // Quillet never has when it inserts.
    if (wayland())
        return std::make_unique<WlClipboardPasteboard>(DesktopSession::currentRoutes().waylandClipboard());
    return std::make_unique<QtClipboardPasteboard>();
}

std::unique_ptr<PasteKeystroke> makeSystemPasteKeystroke()
{
    // XTest reaches only X11 windows; a virtual keyboard reaches the native ones, and
    // where the compositor takes none, the desktop's RemoteDesktop portal does.
    if (wayland()) {
        const DesktopSession::Routes routes = DesktopSession::currentRoutes();
        if (routes.portalKeystroke())
            return std::make_unique<RemoteDesktopPasteKeystroke>(RemoteDesktopPasteKeystroke::defaultTokenFile());
        return std::make_unique<WtypePasteKeystroke>(routes.wtypeKeystroke());
    }
    return std::make_unique<XTestPasteKeystroke>();
}
