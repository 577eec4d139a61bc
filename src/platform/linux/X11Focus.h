#pragma once

#include <QString>

#include <optional>

struct _XDisplay; // Xlib's Display, kept out of this header with the rest of Xlib's macros

// The X11 top-level window that holds the keyboard focus, with what identifies
// its application. Absent without an X server or when nothing has the focus.
struct FocusedX11Window {
    unsigned long window = 0;
    qint64 pid = 0; // 0 when the window does not say (_NET_WM_PID)
    QString instanceName; // WM_CLASS, first part ("xterm")
    QString className; // WM_CLASS, second part ("XTerm")
};

namespace X11Focus {

// This process's own connection to the X server, opened on first use and kept;
// null when there is no X server (a Wayland-only session, say).
_XDisplay* display();

// The top-level window holding the keyboard focus right now.
std::optional<FocusedX11Window> focusedWindow();

} // namespace X11Focus
