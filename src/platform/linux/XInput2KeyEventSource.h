#pragma once

#include "platform/KeyEventSource.h"
#include "platform/KeyboardState.h"

#include <QByteArray>
#include <QSocketNotifier>

#include <memory>
#include <vector>

struct _XDisplay; // Xlib's Display, kept out of this header with the rest of Xlib's macros

// The X server's keyboard, whichever window has the focus: XInput2 raw key events
// selected on the root window for every master device. Listen-only: no grab, no
// focus, no window of our own, so nothing is taken from the application the user
// types into; for the same reason nothing can be dropped (canDrop() is false).
//
// Keys are recognised by their place on the keyboard (the XKB key names RALT,
// LALT, RWIN, CAPS, ...), whatever symbols the layout puts on them, and reported
// with the key codes and flag bits of KeyEventSource.h: modifiers as flagsChanged
// with the full flag word, everything else as keyDown/keyUp with the code
// KeyboardState::otherKeyCodeBase + the X keycode. The Fn key is the
// key whose symbol is XF86Fn or XF86WakeUp; most PC keyboards never send their Fn
// key to the system at all, so where the keymap has neither, the Menu key (MENU,
// COMP) stands in for it.
//
// The connection is its own, read on the thread that called start() whenever its
// socket has data; there is no timer.
class XInput2KeyEventSource final : public KeyEventSource
{
public:
    // displayName: the X display to open; null means $DISPLAY.
    explicit XInput2KeyEventSource(const char* displayName = nullptr);
    ~XInput2KeyEventSource() override;
    XInput2KeyEventSource(const XInput2KeyEventSource&) = delete;
    XInput2KeyEventSource& operator=(const XInput2KeyEventSource&) = delete;

    KeyEventSourceStatus start(Handler handler) override;
    void stop() override;
    bool canDrop() const override { return false; }
    void setFnKeyReserved(bool reserved) override;

private:
    void readPendingEvents();
    void handleRawKey(unsigned keycode, int sourceDevice, bool press);
    void loadKeymap();
    void findXTestDevices();
    void updateFnGrab();

    QByteArray m_displayName;
    bool m_useDefaultDisplay = true;
    _XDisplay* m_display = nullptr;
    int m_xiOpcode = 0;
    int m_xkbEventBase = 0;
    std::unique_ptr<QSocketNotifier> m_notifier;
    Handler m_handler;
    KeyboardState m_keyboard; // keycode roles, held keys, Caps Lock
    bool m_reading = false; // inside readPendingEvents()
    std::vector<int> m_xtestDevices; // slave devices that carry XTest's synthetic events
    std::vector<unsigned> m_menuKeys; // the Menu keys, which stand in for fn
    std::vector<unsigned> m_grabbedKeys; // keys whose presses go to us alone
    bool m_fnReserved = false;
};
