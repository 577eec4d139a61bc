#include "ui/HotkeySelection.h"

#include <algorithm>

using namespace Qt::StringLiterals;

HotkeySelection::HotkeySelection(SettingsStore& store, QObject* parent)
    : QObject(parent)
    , m_store(store)
{
    connect(&m_store, &SettingsStore::hotkeyChanged, this, &HotkeySelection::currentIndexChanged);
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
