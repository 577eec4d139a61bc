#pragma once

#include <optional>

// The protocols the Wayland compositor offers that the program's routes rely on.
struct WaylandGlobals {
    bool dataControl = false; // a clipboard manager protocol (wlr or ext data-control): wl-copy, wl-paste
    bool virtualKeyboard = false; // zwp_virtual_keyboard_manager_v1: wtype
};

// Asks the compositor named by WAYLAND_DISPLAY which globals it has, with one short
// connection of our own; absent when no compositor answers.
std::optional<WaylandGlobals> probeWaylandGlobals();
