#pragma once

class AtspiTextAccessibility;

// Whether the application that has the keyboard focus is a terminal emulator, which
// pastes with Control+Shift+V, as the accessibility bus names it: Wayland names no
// window classes, and terminals name themselves there as they do in WM_CLASS. False
// where the bus cannot say.
bool focusedApplicationIsTerminal(AtspiTextAccessibility& accessibility);
