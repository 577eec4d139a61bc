#include "platform/linux/XInput2KeyEventSource.h"

#include "platform/linux/SyntheticKeyEvents.h"

#include <QTimer>

#include <algorithm>
#include <cstring>
#include <string_view>

#include <X11/XF86keysym.h>
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>

namespace {

// XF86XK_Fn: the header spells it with a macro of its own that it undefines again.
constexpr KeySym kFnKeysym = 0x10081D0;

} // namespace

XInput2KeyEventSource::XInput2KeyEventSource(const char* displayName)
    : m_displayName(displayName)
    , m_useDefaultDisplay(displayName == nullptr)
{ }

XInput2KeyEventSource::~XInput2KeyEventSource()
{
    stop();
}

KeyEventSourceStatus XInput2KeyEventSource::start(Handler handler)
{
    if (m_display)
        return KeyEventSourceStatus::started;
    // Our own connection: the raw-event selection, the keymap and the detectable
    // auto-repeat setting belong to it and to nobody else in the process.
    Display* const display = XOpenDisplay(m_useDefaultDisplay ? nullptr : m_displayName.constData());
    if (!display)
        return KeyEventSourceStatus::noDisplay;

    int xiEvent = 0;
    int xiError = 0;
    int xiMajor = 2;
    // 2.2: raw events reach us even while another client holds a keyboard grab.
    int xiMinor = 2;
    if (!XQueryExtension(display, "XInputExtension", &m_xiOpcode, &xiEvent, &xiError)
        || XIQueryVersion(display, &xiMajor, &xiMinor) != Success || xiMajor < 2) {
        XCloseDisplay(display);
        return KeyEventSourceStatus::unsupported;
    }
    int xkbOpcode = 0;
    int xkbError = 0;
    int xkbMajor = XkbMajorVersion;
    int xkbMinor = XkbMinorVersion;
    if (!XkbQueryExtension(display, &xkbOpcode, &m_xkbEventBase, &xkbError, &xkbMajor, &xkbMinor)) {
        XCloseDisplay(display);
        return KeyEventSourceStatus::unsupported;
    }
    m_display = display;

    // Held keys then come as one press and one release on this connection. Raw
    // events repeat regardless, which handleRawKey() takes care of.
    Bool detectable = False;
    XkbSetDetectableAutoRepeat(display, True, &detectable);
    // A new layout (setxkbmap) or an edited keymap (xmodmap) may move the Fn key.
    XkbSelectEvents(display, XkbUseCoreKbd, XkbNewKeyboardNotifyMask | XkbMapNotifyMask,
        XkbNewKeyboardNotifyMask | XkbMapNotifyMask);

    unsigned char keyMask[XIMaskLen(XI_LASTEVENT)] = {};
    XISetMask(keyMask, XI_RawKeyPress);
    XISetMask(keyMask, XI_RawKeyRelease);
    unsigned char hierarchyMask[XIMaskLen(XI_LASTEVENT)] = {};
    XISetMask(hierarchyMask, XI_HierarchyChanged);
    XIEventMask masks[2] = {
        { XIAllMasterDevices, static_cast<int>(sizeof keyMask), keyMask },
        { XIAllDevices, static_cast<int>(sizeof hierarchyMask), hierarchyMask },
    };
    XISelectEvents(display, DefaultRootWindow(display), masks, 2);

    loadKeymap();
    findXTestDevices();
    XkbStateRec state {};
    if (XkbGetState(display, XkbUseCoreKbd, &state) == Success)
        m_keyboard.setCapsLocked((state.locked_mods & LockMask) != 0);
    // Keys already held when we start count as held, so the flags of the next
    // event say so and their release is not taken for a stray one.
    char keys[32] = {};
    XQueryKeymap(display, keys);
    m_keyboard.releaseAll();
    for (unsigned code = 0; code < KeyboardState::keyCount; ++code)
        m_keyboard.setHeld(code, (keys[code / 8] & (1 << (code % 8))) != 0);
    XSync(display, False);

    m_handler = std::move(handler);
    SyntheticKeyEvents::setListening(true);
    m_notifier = std::make_unique<QSocketNotifier>(ConnectionNumber(display), QSocketNotifier::Read);
    QObject::connect(m_notifier.get(), &QSocketNotifier::activated, m_notifier.get(), [this] { readPendingEvents(); });
    // The round trips above may have left events in Xlib's queue, where the socket
    // notifier cannot see them; read them once the caller has returned.
    QTimer::singleShot(0, m_notifier.get(), [this] { readPendingEvents(); });
    return KeyEventSourceStatus::started;
}

void XInput2KeyEventSource::stop()
{
    if (!m_display)
        return;
    // Inside a handler called by readPendingEvents() we are in the notifier's own
    // signal: let Qt delete it once the signal is done.
    m_notifier->setEnabled(false);
    if (m_reading)
        m_notifier.release()->deleteLater();
    else
        m_notifier.reset();
    XCloseDisplay(m_display);
    m_display = nullptr;
    m_keyboard.releaseAll();
    SyntheticKeyEvents::setListening(false);
}

void XInput2KeyEventSource::readPendingEvents()
{
    // Everything that is there, so that no event waits for the next wakeup: Xlib
    // may have read several from the socket at once.
    m_reading = true;
    while (m_display && XPending(m_display) > 0) {
        XEvent event;
        XNextEvent(m_display, &event);
        XGenericEventCookie* const cookie = &event.xcookie;
        if (cookie->type == GenericEvent && cookie->extension == m_xiOpcode) {
            if (!XGetEventData(m_display, cookie))
                continue;
            if (cookie->evtype == XI_RawKeyPress || cookie->evtype == XI_RawKeyRelease) {
                const auto* raw = static_cast<const XIRawEvent*>(cookie->data);
                const auto keycode = static_cast<unsigned>(raw->detail);
                const int source = raw->sourceid;
                const bool press = cookie->evtype == XI_RawKeyPress;
                XFreeEventData(m_display, cookie);
                handleRawKey(keycode, source, press);
            } else {
                if (cookie->evtype == XI_HierarchyChanged)
                    findXTestDevices();
                XFreeEventData(m_display, cookie);
            }
        } else if (event.type == KeyPress || event.type == KeyRelease) {
            // A key we hold a grab on: while the grab is active the server sends it to us
            // as a core event and the raw release may not come. Whichever of the two
            // arrives second is taken for a repeat or a stray release and dropped.
            const unsigned keycode = event.xkey.keycode;
            if (std::find(m_grabbedKeys.begin(), m_grabbedKeys.end(), keycode) != m_grabbedKeys.end())
                handleRawKey(keycode, -1, event.type == KeyPress);
        } else if (event.type == m_xkbEventBase) {
            const auto* xkb = reinterpret_cast<const XkbEvent*>(&event);
            if (xkb->any.xkb_type == XkbNewKeyboardNotify || xkb->any.xkb_type == XkbMapNotify)
                loadKeymap();
        }
    }
    m_reading = false;
}

void XInput2KeyEventSource::handleRawKey(unsigned keycode, int sourceDevice, bool press)
{
    // Our own paste keystroke's presses and releases: the user's hold goes on.
    const bool fromXTest
        = std::find(m_xtestDevices.begin(), m_xtestDevices.end(), sourceDevice) != m_xtestDevices.end();
    if (fromXTest && SyntheticKeyEvents::consume(keycode, press))
        return;
    // Raw events come again and again while a key is held, whatever the
    // detectable auto-repeat setting says; the keyboard state drops those.
    const std::optional<KeyEvent> event = m_keyboard.handle(keycode, press);
    // The X server has already given the event to the focused window: the
    // handler's answer cannot drop it here.
    if (event && m_handler)
        m_handler(*event);
}

void XInput2KeyEventSource::loadKeymap()
{
    XkbDescPtr desc = XkbGetMap(m_display, XkbKeySymsMask, XkbUseCoreKbd);
    if (!desc)
        return;
    if (XkbGetNames(m_display, XkbKeyNamesMask, desc) != Success || !desc->names || !desc->names->keys) {
        XkbFreeKeyboard(desc, 0, True);
        return;
    }
    // Names from the keycodes file (evdev and the older xfree86 set agree on
    // these), not symbols: on a German layout RALT carries ISO_Level3_Shift
    // (AltGr) and is still the right Alt key.
    static constexpr std::array<std::pair<std::string_view, PhysicalKey>, 9> named { {
        { "LALT", PhysicalKey::leftAlt },
        { "RALT", PhysicalKey::rightAlt },
        { "LWIN", PhysicalKey::leftSuper },
        { "RWIN", PhysicalKey::rightSuper },
        { "LFSH", PhysicalKey::leftShift },
        { "RTSH", PhysicalKey::rightShift },
        { "LCTL", PhysicalKey::leftControl },
        { "RCTL", PhysicalKey::rightControl },
        { "CAPS", PhysicalKey::capsLock },
    } };

    m_keyboard.clearRoles();
    std::vector<unsigned> menuKeys;
    for (unsigned code = desc->min_key_code; code <= desc->max_key_code && code < KeyboardState::keyCount; ++code) {
        const char* const rawName = desc->names->keys[code].name;
        const std::string_view name(rawName, strnlen(rawName, XkbKeyNameLength));
        for (const auto& [keyName, role] : named) {
            if (name == keyName)
                m_keyboard.setRole(code, role);
        }
        if (name == "MENU" || name == "COMP")
            menuKeys.push_back(code);
        if (XkbKeyNumSyms(desc, code) > 0) {
            const KeySym sym = XkbKeySymEntry(desc, code, 0, 0);
            if (sym == kFnKeysym || sym == XF86XK_WakeUp) {
                m_keyboard.setRole(code, PhysicalKey::fn);
            }
        }
    }
    // The Menu key, next to the right-hand modifiers and rarely used, is fn as well.
    // Almost every keymap lists a wake-up key, but most PC keyboards handle their Fn
    // key in their own firmware and never send it: without the stand-in, choosing fn
    // would leave most people with a hotkey they cannot press.
    for (unsigned code : menuKeys)
        m_keyboard.setRole(code, PhysicalKey::fn);
    m_menuKeys = std::move(menuKeys);
    XkbFreeKeyboard(desc, 0, True);
    updateFnGrab();
}

namespace {

int grabFailures = 0;

// A key another client has grabbed already answers BadAccess; Xlib's default handler would end the program.
int countGrabFailure(Display*, XErrorEvent*)
{
    ++grabFailures;
    return 0;
}

} // namespace

void XInput2KeyEventSource::setFnKeyReserved(bool reserved)
{
    m_fnReserved = reserved;
    updateFnGrab();
}

void XInput2KeyEventSource::updateFnGrab()
{
    if (!m_display)
        return;
    // Raw events keep coming while we hold a grab, so listening is unaffected; the
    // grab only keeps applications from acting on the key (the Menu key would open
    // a context menu in the very field the text is meant for).
    const Window root = DefaultRootWindow(m_display);
    const std::vector<unsigned> wanted = m_fnReserved ? m_menuKeys : std::vector<unsigned> {};
    if (wanted == m_grabbedKeys)
        return;
    grabFailures = 0;
    XErrorHandler previous = XSetErrorHandler(countGrabFailure);
    for (unsigned code : m_grabbedKeys)
        XUngrabKey(m_display, static_cast<int>(code), AnyModifier, root);
    for (unsigned code : wanted)
        XGrabKey(m_display, static_cast<int>(code), AnyModifier, root, False, GrabModeAsync, GrabModeAsync);
    XSync(m_display, False);
    XSetErrorHandler(previous);
    // Where another program holds the key, it keeps it: we still hear it, as before.
    m_grabbedKeys = wanted;
}

void XInput2KeyEventSource::findXTestDevices()
{
    m_xtestDevices.clear();
    int count = 0;
    XIDeviceInfo* const devices = XIQueryDevice(m_display, XIAllDevices, &count);
    if (!devices)
        return;
    // The server makes one per master: "Virtual core XTEST keyboard", "<master> XTEST keyboard".
    for (int i = 0; i < count; ++i) {
        if (devices[i].use == XISlaveKeyboard && devices[i].name && std::strstr(devices[i].name, "XTEST"))
            m_xtestDevices.push_back(devices[i].deviceid);
    }
    XIFreeDeviceInfo(devices);
}
