#include "platform/linux/X11Focus.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace {

std::optional<qint64> windowPid(Display* display, Window window)
{
    const Atom pidAtom = XInternAtom(display, "_NET_WM_PID", False);
    Atom type = 0;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    const int status = XGetWindowProperty(
        display, window, pidAtom, 0, 1, False, XA_CARDINAL, &type, &format, &count, &remaining, &data);
    std::optional<qint64> pid;
    if (status == Success && type == XA_CARDINAL && format == 32 && count == 1 && data)
        pid = static_cast<qint64>(*reinterpret_cast<unsigned long*>(data));
    if (data)
        XFree(data);
    return pid;
}

bool readClass(Display* display, Window window, FocusedX11Window& out)
{
    XClassHint hint {};
    if (!XGetClassHint(display, window, &hint))
        return false;
    out.instanceName = QString::fromLocal8Bit(hint.res_name ? hint.res_name : "");
    out.className = QString::fromLocal8Bit(hint.res_class ? hint.res_class : "");
    if (hint.res_name)
        XFree(hint.res_name);
    if (hint.res_class)
        XFree(hint.res_class);
    return true;
}

} // namespace

Display* X11Focus::display()
{
    // Opened once: a dictation program lives for the whole session, and reopening
    // a connection per insertion would cost a round of authentication each time.
    static Display* const connection = XOpenDisplay(nullptr);
    return connection;
}

std::optional<FocusedX11Window> X11Focus::focusedWindow()
{
    Display* const dpy = display();
    if (!dpy)
        return std::nullopt;
    Window focus = 0;
    int revert = 0;
    XGetInputFocus(dpy, &focus, &revert);
    if (focus == None || focus == PointerRoot)
        return std::nullopt;

    // Toolkits may give the focus to a child window; the properties that name the
    // application sit on the top-level one, the last window below the root
    // (or below the window manager's frame).
    FocusedX11Window found;
    Window current = focus;
    for (int depth = 0; depth < 16 && current != None; ++depth) {
        if (const std::optional<qint64> pid = windowPid(dpy, current)) {
            found.window = current;
            found.pid = *pid;
            readClass(dpy, current, found);
            return found;
        }
        if (found.window == 0 && readClass(dpy, current, found))
            found.window = current;
        Window root = 0;
        Window parent = 0;
        Window* children = nullptr;
        unsigned int childCount = 0;
        if (!XQueryTree(dpy, current, &root, &parent, &children, &childCount))
            break;
        if (children)
            XFree(children);
        if (parent == root)
            break;
        current = parent;
    }
    if (found.window == 0)
        found.window = focus;
    return found;
}
