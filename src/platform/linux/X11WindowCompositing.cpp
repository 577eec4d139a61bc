#include "platform/WindowCompositing.h"

#include "platform/linux/X11Focus.h"

#include <X11/Xlib.h>

#include <string>

bool WindowCompositing::isActive()
{
    Display* const dpy = X11Focus::display();
    if (!dpy)
        return false;
    // A compositing manager owns the _NET_WM_CM_S<screen> selection for as long
    // as it runs (EWMH, "Compositing Managers"). Asked every time: one may start
    // or stop while the program runs.
    const std::string name = "_NET_WM_CM_S" + std::to_string(DefaultScreen(dpy));
    const Atom selection = XInternAtom(dpy, name.c_str(), False);
    return selection != None && XGetSelectionOwner(dpy, selection) != None;
}
