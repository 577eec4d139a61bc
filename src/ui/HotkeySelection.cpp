#include "ui/HotkeySelection.h"

#include <algorithm>

using namespace Qt::StringLiterals;

HotkeySelection::HotkeySelection(SettingsStore& store, QObject* parent, DesktopShortcut& desktop)
    : QObject(parent)
    , m_store(store)
    , m_desktop(desktop)
{
    connect(&m_store, &SettingsStore::hotkeyChanged, this, &HotkeySelection::currentIndexChanged);
    connect(&m_desktop, &DesktopShortcut::changed, this, &HotkeySelection::desktopNoteChanged);
    // The bindings name the key of the chosen hotkey.
    connect(&m_store, &SettingsStore::hotkeyChanged, this, &HotkeySelection::desktopNoteChanged);
}

QStringList HotkeySelection::names() const
{
    QStringList names;
    for (Hotkey hotkey : Hotkeys::allCases)
        names.append(Hotkeys::displayName(hotkey));
    return names;
}

int HotkeySelection::currentIndex() const
{
    const auto found = std::find(Hotkeys::allCases.begin(), Hotkeys::allCases.end(), m_store.hotkey());
    return int(found - Hotkeys::allCases.begin());
}

void HotkeySelection::setCurrentIndex(int index)
{
    if (index < 0 || index >= int(Hotkeys::allCases.size()))
        return;
    m_store.setHotkey(Hotkeys::allCases[std::size_t(index)]);
}

QString HotkeySelection::currentName() const
{
    return Hotkeys::displayName(m_store.hotkey());
}

QString HotkeySelection::keyboardNote()
{
    // The names are the ones the choices are known by everywhere; on a PC keyboard
    // the key monitor listens to these keys instead.
    return u"On this keyboard Right Option is the right Alt key and Right Command the right Super key; "
           "fn is the Fn key (Menu key on keyboards without Fn)."_s;
}

QString HotkeySelection::desktopNote() const
{
    switch (m_desktop.status()) {
    case DesktopShortcut::Status::keyboard:
        return {};
    case DesktopShortcut::Status::asking:
        return u"On Wayland the desktop binds the key: asking it for \u201CHold to dictate\u201D\u2026"_s;
    case DesktopShortcut::Status::bound:
        return u"On Wayland the desktop binds the key: hold %1 to dictate. The choice above sets the "
               "double tap."_s.arg(m_desktop.trigger());
    case DesktopShortcut::Status::unbound:
        return u"On Wayland the desktop bound no key. In its shortcut settings run quillet --toggle, or hold "
               "to talk with sway bindings:"_s;
    }
    return {};
}

QString HotkeySelection::bindingSnippet() const
{
    if (m_desktop.status() != DesktopShortcut::Status::unbound)
        return {};
    const QString key = Hotkeys::shortcutKeyName(m_store.hotkey());
    return u"bindsym --no-repeat %1 exec quillet --press\nbindsym --release %1 exec quillet --release"_s.arg(key);
}
