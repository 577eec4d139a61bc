#include "platform/linux/DesktopShortcutKeyEventSource.h"

#include "platform/DesktopShortcut.h"
#include "platform/linux/GlobalShortcutsPortal.h"

using namespace Qt::StringLiterals;

DesktopShortcutKeyEventSource::DesktopShortcutKeyEventSource() = default;

DesktopShortcutKeyEventSource::~DesktopShortcutKeyEventSource() = default;

KeyEventSourceStatus DesktopShortcutKeyEventSource::start(Handler handler)
{
    m_handler = std::move(handler);
    // Bindings need nothing from us; the portal is asked on the side and may never answer.
    m_portal = std::make_unique<GlobalShortcutsPortal>();
    QObject::connect(m_portal.get(), &GlobalShortcutsPortal::pressed, m_portal.get(),
        [this] { deliver(KeyEventType::shortcutPressed); });
    QObject::connect(m_portal.get(), &GlobalShortcutsPortal::released, m_portal.get(),
        [this] { deliver(KeyEventType::shortcutReleased); });
    // The windows that explain the hotkey show what the desktop did with it.
    DesktopShortcut::shared().setAsking();
    QObject::connect(m_portal.get(), &GlobalShortcutsPortal::bound, m_portal.get(), [this](const QString& trigger) {
        DesktopShortcut::shared().setBound(trigger);
        notice(trigger.isEmpty()
                ? u"GlobalShortcuts portal: \"Hold to dictate\" is registered; the desktop names no key for it yet "
                  "(choose one in its shortcut settings)"_s
                : u"GlobalShortcuts portal: \"Hold to dictate\" is bound to %1"_s.arg(trigger));
    });
    QObject::connect(m_portal.get(), &GlobalShortcutsPortal::unavailable, m_portal.get(), [this](const QString& why) {
        DesktopShortcut::shared().setUnbound();
        notice(u"GlobalShortcuts portal: %1; compositor bindings (quillet --press, --release) still work"_s.arg(why));
    });
    m_portal->start(m_preferredTrigger);
    return KeyEventSourceStatus::started;
}

void DesktopShortcutKeyEventSource::stop()
{
    m_handler = nullptr;
    m_portal.reset();
}

void DesktopShortcutKeyEventSource::setFnKeyReserved(bool reserved)
{
    // The desktop decides what its shortcut's key does elsewhere; there is nothing to hold back.
    static_cast<void>(reserved);
}

void DesktopShortcutKeyEventSource::deliver(KeyEventType type)
{
    if (m_handler)
        m_handler(KeyEvent { type, 0, 0 });
}

void DesktopShortcutKeyEventSource::notice(const QString& text)
{
    if (m_notice)
        m_notice(text);
}
