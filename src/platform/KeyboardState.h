#pragma once

#include "platform/KeyEventSource.h"

#include <array>
#include <bitset>
#include <optional>

// What a physical key is to the hotkey codes, whatever symbol the layout gives it.
enum class PhysicalKey : quint8 {
    other,
    leftAlt,
    rightAlt,
    leftSuper,
    rightSuper,
    leftShift,
    rightShift,
    leftControl,
    rightControl,
    capsLock,
    fn,
};

// The keyboard as a key event source sees it: which physical key each key number
// (0..255, the X keycodes on X11) is, which keys are down, whether Caps Lock is on.
// Turns the raw presses and releases of a platform into KeyEventSource events:
// modifiers as flagsChanged with the full flag word, Caps Lock as flagsChanged on
// the press that toggles it, other keys as keyDown/keyUp with code
// otherKeyCodeBase + their key number. A press of a key already down is a repeat
// and makes no event.
class KeyboardState
{
public:
    static constexpr unsigned keyCount = 256;
    // Keys without a code of their own are reported as this plus their key number.
    static constexpr qint64 otherKeyCodeBase = 1000;

    // Forgets every key's role (all become PhysicalKey::other); the held keys stay held.
    void clearRoles() { m_roles.fill(PhysicalKey::other); }
    // Says which physical key a key number is; numbers out of range are ignored.
    void setRole(unsigned key, PhysicalKey role);
    PhysicalKey role(unsigned key) const { return key < keyCount ? m_roles[key] : PhysicalKey::other; }

    // Marks a key held or not without an event (the state found at start).
    void setHeld(unsigned key, bool held);
    // Forgets every held key.
    void releaseAll() { m_down.reset(); }
    // Sets Caps Lock's state without an event (the state found at start).
    void setCapsLocked(bool locked) { m_capsLocked = locked; }
    bool capsLocked() const { return m_capsLocked; }

    // The event a press (or release) of the key makes, nothing for a repeated press,
    // a release of Caps Lock or a key number out of range.
    std::optional<KeyEvent> handle(unsigned key, bool press);

    // Every held modifier's bit, and alphaShift while Caps Lock is on.
    quint64 flags() const;

private:
    std::array<PhysicalKey, keyCount> m_roles {};
    std::bitset<keyCount> m_down;
    bool m_capsLocked = false;
};
