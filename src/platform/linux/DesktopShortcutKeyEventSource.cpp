#include "platform/linux/DesktopShortcutKeyEventSource.h"

KeyEventSourceStatus DesktopShortcutKeyEventSource::start(Handler handler)
{
    m_handler = std::move(handler);
    return KeyEventSourceStatus::started;
}

void DesktopShortcutKeyEventSource::stop()
{
    m_handler = nullptr;
}

void DesktopShortcutKeyEventSource::setFnKeyReserved(bool reserved)
{
    // The desktop decides what its shortcut's key does elsewhere; there is nothing to hold back.
    static_cast<void>(reserved);
}
