#pragma once

#include <QObject>
#include <QString>
#include <QStringView>

#include <array>
#include <optional>

// The keys a user can hold to dictate. The raw value is the persisted form and the
// form written in log lines.
namespace HotkeyChoice {
Q_NAMESPACE

enum class Hotkey { fn, rightOption, rightCommand, capsLock };
Q_ENUM_NS(Hotkey)

} // namespace HotkeyChoice

using HotkeyChoice::Hotkey;

namespace Hotkeys {

// Every choice, in the order every picker lists them ("fn" first).
inline constexpr std::array<Hotkey, 4> allCases { Hotkey::fn, Hotkey::rightOption, Hotkey::rightCommand,
    Hotkey::capsLock };

// "fn", "rightOption", "rightCommand", "capsLock".
QString rawValue(Hotkey hotkey);
// The choice with this raw value; nothing for any other text.
std::optional<Hotkey> fromRawValue(QStringView raw);
// The label shown in the settings window and the onboarding ("fn" is deliberately bare).
QString displayName(Hotkey hotkey);
// The key code the key monitor watches; fn has none (-1) and is known by its flag alone.
qint64 keyCode(Hotkey hotkey);
// The modifier-flag bit that is set while the key is held.
quint64 modifierFlag(Hotkey hotkey);
// The key as a desktop's shortcut settings and compositor bindings name it (XDG
// shortcuts notation, X keysym names): "Menu" for fn (the key that stands in for it),
// "Alt_R", "Super_R", "Caps_Lock".
QString shortcutKeyName(Hotkey hotkey);

} // namespace Hotkeys
