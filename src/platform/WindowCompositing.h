#pragma once

// Whether the desktop blends windows with what lies beneath them. Only then may a
// window draw translucent or shadowed edges; without a compositing manager the
// transparent pixels of a window show as black.
namespace WindowCompositing {

// True while a compositing manager runs on the display this program shows its
// windows on; false when none does or there is no display to ask.
bool isActive();

} // namespace WindowCompositing
