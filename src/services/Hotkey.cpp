#include "services/Hotkey.h"

using namespace Qt::StringLiterals;

namespace {

struct HotkeyInfo {
    Hotkey hotkey;
    QStringView raw;
    QStringView display;
    qint64 keyCode;
    quint64 flag;
};

constexpr std::array<HotkeyInfo, 4> kTable { {
    { Hotkey::fn, u"fn", u"fn", -1, 0x800000 },
    { Hotkey::rightOption, u"rightOption", u"Right Option (\u2325)", 61, 0x80000 },
    { Hotkey::rightCommand, u"rightCommand", u"Right Command (\u2318)", 54, 0x100000 },
    { Hotkey::capsLock, u"capsLock", u"Caps Lock", 57, 0x10000 },
} };

const HotkeyInfo& info(Hotkey hotkey)
{
    return kTable[static_cast<size_t>(hotkey)];
}

} // namespace

QString Hotkeys::rawValue(Hotkey hotkey)
{
    return info(hotkey).raw.toString();
}

std::optional<Hotkey> Hotkeys::fromRawValue(QStringView raw)
{
    for (const HotkeyInfo& entry : kTable) {
        if (entry.raw == raw)
            return entry.hotkey;
    }
    return std::nullopt;
}

QString Hotkeys::displayName(Hotkey hotkey)
{
    return info(hotkey).display.toString();
}

qint64 Hotkeys::keyCode(Hotkey hotkey)
{
    return info(hotkey).keyCode;
}

quint64 Hotkeys::modifierFlag(Hotkey hotkey)
{
    return info(hotkey).flag;
}

QString Hotkeys::shortcutKeyName(Hotkey hotkey)
{
    switch (hotkey) {
    case Hotkey::fn:
        return u"Menu"_s; // the key that stands in for fn
    case Hotkey::rightOption:
        return u"Alt_R"_s;
    case Hotkey::rightCommand:
        return u"Super_R"_s;
    case Hotkey::capsLock:
        return u"Caps_Lock"_s;
    }
    return {};
}
