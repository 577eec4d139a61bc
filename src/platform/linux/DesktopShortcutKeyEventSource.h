#pragma once

#include "platform/KeyEventSource.h"

#include <QString>

#include <memory>

class GlobalShortcutsPortal;

// The keyboard as a Wayland session shows it to a program that does not have the
// focus: not at all. What such a session offers instead is the desktop's own shortcut
// for dictation: the GlobalShortcuts portal's "dictate" shortcut, reported here as
// shortcut presses and releases, and compositor bindings running `quillet --press` and
// `--release`, which reach the key monitor through the running instance's local socket.
// It never drops anything: the keys were never ours.
class DesktopShortcutKeyEventSource final : public KeyEventSource
{
public:
    DesktopShortcutKeyEventSource();
    ~DesktopShortcutKeyEventSource() override;

    KeyEventSourceStatus start(Handler handler) override;
    void stop() override;
    bool canDrop() const override { return false; }
    void setFnKeyReserved(bool reserved) override;
    void setPreferredTrigger(const QString& trigger) override { m_preferredTrigger = trigger; }
    void setNoticeHandler(NoticeHandler handler) override { m_notice = std::move(handler); }

private:
    void deliver(KeyEventType type);
    void notice(const QString& text);

    Handler m_handler;
    NoticeHandler m_notice;
    QString m_preferredTrigger;
    std::unique_ptr<GlobalShortcutsPortal> m_portal;
};
