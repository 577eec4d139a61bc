#pragma once

#include "platform/KeyEventSource.h"

// The keyboard as a Wayland session shows it to a program that does not have the
// focus: not at all. What such a session offers instead is the desktop's own shortcut
// for dictation; a compositor binding running `quillet --press` and `--release` reaches
// the key monitor through the running instance's local socket, so this source has no
// keys of its own to report. It never drops anything: the keys were never ours.
class DesktopShortcutKeyEventSource final : public KeyEventSource
{
public:
    KeyEventSourceStatus start(Handler handler) override;
    void stop() override;
    bool canDrop() const override { return false; }
    void setFnKeyReserved(bool reserved) override;

private:
    Handler m_handler;
};
