#pragma once

#include "platform/PasteKeystroke.h"

#include <memory>

class AtspiTextAccessibility;

// Control+V (Control+Shift+V in a terminal emulator) typed by wtype through the
// compositor's virtual-keyboard protocol, into whichever native Wayland window has
// the focus. A virtual keyboard carries its own modifier state, so keys the user
// still holds do not mix into the chord. Whether the focused application is a
// terminal is asked of the accessibility bus, as Wayland names no window classes.
class WtypePasteKeystroke final : public PasteKeystroke
{
public:
    // available: the compositor offers virtual keyboards and wtype is installed.
    explicit WtypePasteKeystroke(bool available);
    ~WtypePasteKeystroke() override;

    QCoro::Task<> post() override;
    bool canPost() const override { return m_available; }

    // wtype's arguments for the chord. A last key follows the chord on purpose: GTK 3
    // ignores a shortcut whose key is the highest keycode of a virtual keyboard's
    // keymap, and wtype's keymap holds only the keys it types, in order.
    static QStringList chordArguments(bool terminal);

private:
    bool m_available;
    std::unique_ptr<AtspiTextAccessibility> m_accessibility;
};
