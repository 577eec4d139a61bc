#include "platform/linux/XTestPasteKeystroke.h"

#include "platform/linux/SyntheticKeyEvents.h"
#include "platform/linux/X11Focus.h"

#include <QSet>

#include <vector>

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

using namespace Qt::StringLiterals;

namespace {

// Keys whose press toggles a state: pressing them again after the chord would
// flip the user's Caps Lock or Num Lock, so they are left alone.
bool isLockKey(Display* display, KeyCode code)
{
    const KeySym sym = XkbKeycodeToKeysym(display, code, 0, 0);
    return sym == XK_Caps_Lock || sym == XK_Shift_Lock || sym == XK_Num_Lock || sym == XK_Scroll_Lock;
}

// The modifier keys held down right now.
std::vector<KeyCode> heldModifierKeys(Display* display)
{
    std::vector<KeyCode> held;
    char keys[32] = {};
    XQueryKeymap(display, keys);
    XModifierKeymap* map = XGetModifierMapping(display);
    if (!map)
        return held;
    for (int modifier = 0; modifier < 8; ++modifier) {
        if (modifier == LockMapIndex)
            continue;
        for (int i = 0; i < map->max_keypermod; ++i) {
            const KeyCode code = map->modifiermap[modifier * map->max_keypermod + i];
            if (code == 0 || isLockKey(display, code))
                continue;
            const bool down = (keys[code / 8] & (1 << (code % 8))) != 0;
            bool listed = false;
            for (KeyCode seen : held)
                listed = listed || seen == code;
            if (down && !listed)
                held.push_back(code);
        }
    }
    XFreeModifiermap(map);
    return held;
}

} // namespace

bool XTestPasteKeystroke::isTerminal(const QString& instanceName, const QString& className)
{
    // WM_CLASS names of the terminal emulators people run; all of them paste the
    // clipboard with Control+Shift+V (xterm once given the usual translation).
    static const QSet<QString> terminals = {
        u"xterm"_s,
        u"uxterm"_s,
        u"gnome-terminal"_s,
        u"gnome-terminal-server"_s,
        u"konsole"_s,
        u"xfce4-terminal"_s,
        u"lxterminal"_s,
        u"mate-terminal"_s,
        u"tilix"_s,
        u"terminator"_s,
        u"kitty"_s,
        u"alacritty"_s,
        u"sakura"_s,
        u"terminology"_s,
        u"qterminal"_s,
        u"guake"_s,
        u"tilda"_s,
        u"org.wezfurlong.wezterm"_s,
        u"wezterm"_s,
        u"foot"_s,
        u"kgx"_s,
        u"org.gnome.console"_s,
        u"io.elementary.terminal"_s,
        u"deepin-terminal"_s,
        u"cool-retro-term"_s,
        u"urxvt"_s,
        u"rxvt"_s,
        u"st"_s,
        u"st-256color"_s,
        u"terminal"_s,
        u"x-terminal-emulator"_s,
        u"roxterm"_s,
        u"lilyterm"_s,
        u"evilvte"_s,
        u"stterm"_s,
        u"ptyxis"_s,
        u"blackbox"_s,
        u"com.raggesilver.blackbox"_s,
    };
    return terminals.contains(instanceName.toLower()) || terminals.contains(className.toLower());
}

QCoro::Task<> XTestPasteKeystroke::post()
{
    sendChord();
    co_return;
}

void XTestPasteKeystroke::sendChord()
{
    Display* const display = X11Focus::display();
    if (!display)
        return;
    int eventBase = 0;
    int errorBase = 0;
    int major = 0;
    int minor = 0;
    if (!XTestQueryExtension(display, &eventBase, &errorBase, &major, &minor))
        return;

    const KeyCode v = XKeysymToKeycode(display, XK_v);
    const KeyCode control = XKeysymToKeycode(display, XK_Control_L);
    const KeyCode shift = XKeysymToKeycode(display, XK_Shift_L);
    // Without a V or a Control key on the keyboard map there is no chord to send.
    if (v == 0 || control == 0)
        return;
    const std::optional<FocusedX11Window> focused = X11Focus::focusedWindow();
    const bool terminal = focused && shift != 0 && isTerminal(focused->instanceName, focused->className);

    std::vector<KeyCode> chord { control };
    if (terminal)
        chord.push_back(shift);

    // Each event is announced first, so the key monitor knows it for ours and the
    // user's hold of the hotkey is not taken as released and pressed again.
    const auto send = [display](KeyCode code, bool press) {
        SyntheticKeyEvents::expect(code, press);
        XTestFakeKeyEvent(display, code, press ? True : False, CurrentTime);
    };
    const std::vector<KeyCode> held = heldModifierKeys(display);
    for (KeyCode code : held)
        send(code, false);
    for (KeyCode code : chord)
        send(code, true);
    send(v, true);
    send(v, false);
    for (auto it = chord.rbegin(); it != chord.rend(); ++it)
        send(*it, false);
    for (KeyCode code : held)
        send(code, true);
    // Delivered before we return, so the clipboard restore counts from the keystroke.
    XSync(display, False);
}
