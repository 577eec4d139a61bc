#include "platform/KeyboardState.h"

namespace {

struct RoleInfo {
    qint64 code;
    quint64 flag;
};

// Indexed by PhysicalKey.
constexpr std::array<RoleInfo, 11> kRoles { {
    { 0, 0 },
    { KeyCodes::leftOption, KeyFlags::alternate },
    { KeyCodes::rightOption, KeyFlags::alternate },
    { KeyCodes::leftCommand, KeyFlags::command },
    { KeyCodes::rightCommand, KeyFlags::command },
    { KeyCodes::leftShift, KeyFlags::shift },
    { KeyCodes::rightShift, KeyFlags::shift },
    { KeyCodes::leftControl, KeyFlags::control },
    { KeyCodes::rightControl, KeyFlags::control },
    { KeyCodes::capsLock, 0 }, // its flag is the lock state, not the key
    { KeyCodes::function, KeyFlags::secondaryFn },
} };

const RoleInfo& info(PhysicalKey role)
{
    return kRoles[static_cast<size_t>(role)];
}

} // namespace

void KeyboardState::setRole(unsigned key, PhysicalKey role)
{
    if (key < keyCount)
        m_roles[key] = role;
}

void KeyboardState::setHeld(unsigned key, bool held)
{
    if (key < keyCount)
        m_down.set(key, held);
}

std::optional<KeyEvent> KeyboardState::handle(unsigned key, bool press)
{
    if (key >= keyCount)
        return std::nullopt;
    if (press) {
        // Auto-repeat: some sources send the press again and again while a key is held.
        if (m_down.test(key))
            return std::nullopt;
        m_down.set(key);
    } else {
        // A release of a key held since before we started counts like any other.
        m_down.reset(key);
    }

    const PhysicalKey role = m_roles[key];
    if (role == PhysicalKey::other) {
        return KeyEvent { press ? KeyEventType::keyDown : KeyEventType::keyUp,
            otherKeyCodeBase + static_cast<qint64>(key), flags() };
    }
    if (role == PhysicalKey::capsLock) {
        // One press turns the lock on, the next turns it off; releases change nothing.
        if (!press)
            return std::nullopt;
        m_capsLocked = !m_capsLocked;
    }
    return KeyEvent { KeyEventType::flagsChanged, info(role).code, flags() };
}

quint64 KeyboardState::flags() const
{
    quint64 word = m_capsLocked ? KeyFlags::alphaShift : 0;
    if (m_down.none())
        return word;
    for (unsigned key = 0; key < keyCount; ++key) {
        if (m_down.test(key))
            word |= info(m_roles[key]).flag;
    }
    return word;
}
