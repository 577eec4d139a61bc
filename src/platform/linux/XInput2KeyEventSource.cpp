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
{
    m_roles.fill(Role::other);
}

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
        m_capsLocked = (state.locked_mods & LockMask) != 0;
    // Keys already held when we start count as held, so the flags of the next
    // event say so and their release is not taken for a stray one.
    char keys[32] = {};
    XQueryKeymap(display, keys);
    m_down.reset();
    for (unsigned code = 0; code < 256; ++code) {
        if (keys[code / 8] & (1 << (code % 8)))
            m_down.set(code);
    }
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
    m_down.reset();
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
    if (keycode >= m_roles.size())
        return;
    // Our own paste keystroke's presses and releases: the user's hold goes on.
    const bool fromXTest
        = std::find(m_xtestDevices.begin(), m_xtestDevices.end(), sourceDevice) != m_xtestDevices.end();
    if (fromXTest && SyntheticKeyEvents::consume(keycode, press))
        return;
    if (press) {
        // Auto-repeat: raw events come again and again while a key is held.
        if (m_down.test(keycode))
            return;
        m_down.set(keycode);
    } else {
        m_down.reset(keycode);
    }

    const Role role = m_roles[keycode];
    switch (role) {
    case Role::other:
        deliver({ press ? KeyEventType::keyDown : KeyEventType::keyUp, otherKeyCodeBase + static_cast<qint64>(keycode),
            currentFlags() });
        return;
    case Role::capsLock:
        // The lock changes on the press; the release changes nothing we report.
        if (!press)
            return;
        m_capsLocked = !m_capsLocked;
        deliver({ KeyEventType::flagsChanged, KeyCodes::capsLock, currentFlags() });
        return;
    default:
        break;
    }
    static constexpr std::array<qint64, 11> codes { 0, KeyCodes::leftOption, KeyCodes::rightOption,
        KeyCodes::leftCommand, KeyCodes::rightCommand, KeyCodes::leftShift, KeyCodes::rightShift, KeyCodes::leftControl,
        KeyCodes::rightControl, KeyCodes::capsLock, KeyCodes::function };
    deliver({ KeyEventType::flagsChanged, codes[static_cast<size_t>(role)], currentFlags() });
}

quint64 XInput2KeyEventSource::currentFlags() const
{
    static constexpr std::array<quint64, 11> flags { 0, KeyFlags::alternate, KeyFlags::alternate, KeyFlags::command,
        KeyFlags::command, KeyFlags::shift, KeyFlags::shift, KeyFlags::control, KeyFlags::control, 0,
        KeyFlags::secondaryFn };
    quint64 word = m_capsLocked ? KeyFlags::alphaShift : 0;
    if (m_down.none())
        return word;
    for (size_t code = 0; code < m_roles.size(); ++code) {
        if (m_down.test(code))
            word |= flags[static_cast<size_t>(m_roles[code])];
    }
    return word;
}

void XInput2KeyEventSource::deliver(const KeyEvent& event)
{
    // The X server has already given the event to the focused window: the
    // handler's answer cannot drop it here.
    if (m_handler)
        m_handler(event);
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
    static constexpr std::array<std::pair<std::string_view, Role>, 9> named { {
        { "LALT", Role::leftAlt },
        { "RALT", Role::rightAlt },
        { "LWIN", Role::leftSuper },
        { "RWIN", Role::rightSuper },
        { "LFSH", Role::leftShift },
        { "RTSH", Role::rightShift },
        { "LCTL", Role::leftControl },
        { "RCTL", Role::rightControl },
        { "CAPS", Role::capsLock },
    } };

    m_roles.fill(Role::other);
    std::vector<unsigned> menuKeys;
    bool haveFn = false;
    for (unsigned code = desc->min_key_code; code <= desc->max_key_code && code < m_roles.size(); ++code) {
        const char* const rawName = desc->names->keys[code].name;
        const std::string_view name(rawName, strnlen(rawName, XkbKeyNameLength));
        for (const auto& [keyName, role] : named) {
            if (name == keyName)
                m_roles[code] = role;
        }
        if (name == "MENU" || name == "COMP")
            menuKeys.push_back(code);
        if (XkbKeyNumSyms(desc, code) > 0) {
            const KeySym sym = XkbKeySymEntry(desc, code, 0, 0);
            if (sym == kFnKeysym || sym == XF86XK_WakeUp) {
                m_roles[code] = Role::fn;
                haveFn = true;
            }
        }
    }
    // No Fn key on this keyboard (the usual case: PC keyboards handle Fn in their
    // own firmware): the Menu key, next to the right-hand modifiers and rarely
    // used, stands in for it.
    if (!haveFn) {
        for (unsigned code : menuKeys)
            m_roles[code] = Role::fn;
    }
    XkbFreeKeyboard(desc, 0, True);
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

std::unique_ptr<KeyEventSource> makeSystemKeyEventSource()
{
    return std::make_unique<XInput2KeyEventSource>();
}
