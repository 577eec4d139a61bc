#pragma once

#include <QString>
#include <QtGlobal>

#include <functional>
#include <memory>

// What happened to a key. The values are the ones the hotkey code was written
// against (10, 11, 12); a source may report others, which callers pass on.
enum class KeyEventType : quint32 {
    keyDown = 10, // a key that is not a modifier went down
    keyUp = 11, // a key that is not a modifier went up
    flagsChanged = 12, // a modifier key went down or up, or a lock key toggled
    // The desktop's own shortcut for dictation (a Wayland compositor's or portal's, which
    // tell us nothing about the key behind it) went down or up; keyCode and flags are 0.
    shortcutPressed = 20,
    shortcutReleased = 21,
};

// Modifier bits of a key event's flag word, one per kind of modifier, whichever
// side's key set it.
namespace KeyFlags {
inline constexpr quint64 alphaShift = 0x10000; // Caps Lock is on (the lock state, not the key)
inline constexpr quint64 shift = 0x20000; // a Shift key is held
inline constexpr quint64 control = 0x40000; // a Control key is held
inline constexpr quint64 alternate = 0x80000; // an Alt (Option) key is held
inline constexpr quint64 command = 0x100000; // a Super (Command) key is held
inline constexpr quint64 secondaryFn = 0x800000; // the Fn key is held
} // namespace KeyFlags

// Key codes of the keys the hotkey table and the flags name. Every other key gets
// a code of its own from the source, never one of these.
namespace KeyCodes {
inline constexpr qint64 rightCommand = 54; // right Super
inline constexpr qint64 leftCommand = 55; // left Super
inline constexpr qint64 leftShift = 56;
inline constexpr qint64 capsLock = 57;
inline constexpr qint64 leftOption = 58; // left Alt
inline constexpr qint64 leftControl = 59;
inline constexpr qint64 rightShift = 60;
inline constexpr qint64 rightOption = 61; // right Alt, AltGr on layouts that have one
inline constexpr qint64 rightControl = 62;
inline constexpr qint64 function = 63; // Fn, or the key standing in for it
} // namespace KeyCodes

// One key event of the whole user session.
struct KeyEvent {
    KeyEventType type = KeyEventType::keyDown; // what happened
    qint64 keyCode = 0; // which key (KeyCodes for the modifiers and lock keys)
    quint64 flags = 0; // every modifier held (and Caps Lock's state) once this event has taken effect
};

// The handler's answer: let the event reach the focused application, or swallow it.
enum class KeyEventDisposition { pass, drop };

// Why a source could not start.
enum class KeyEventSourceStatus {
    started, // events are on their way
    noDisplay, // there is no display server to listen to
    unsupported, // the display server cannot report the keys of other applications
};

// The keyboard of the whole user session, whichever application has the focus:
// key down, key up and modifier changes, delivered on the thread that called start().
class KeyEventSource
{
public:
    // Called once per event; the answer drops the event only where canDrop() is true.
    using Handler = std::function<KeyEventDisposition(const KeyEvent&)>;

    virtual ~KeyEventSource() = default;

    // Starts listening and delivering events to handler; anything but started means no events will come.
    virtual KeyEventSourceStatus start(Handler handler) = 0;
    // Stops delivery; no handler call follows. Safe to call twice or before start().
    virtual void stop() = 0;
    // Whether a drop answer keeps the event from the focused application.
    virtual bool canDrop() const = 0;
    // Keeps presses of the fn key from the focused application (true) or lets them through
    // again (false). Matters where fn is an ordinary key that applications act on, such as
    // the Menu key standing in for it; a source without such a key ignores it.
    virtual void setFnKeyReserved(bool reserved) = 0;
    // The chosen key in the XDG shortcuts notation ("Menu", "Alt_R"), for a desktop that binds
    // the key itself and takes a preference; call before start(). Others ignore it.
    virtual void setPreferredTrigger(const QString& trigger) { static_cast<void>(trigger); }
    // Receives, on the same thread, one sentence each time the source's route changes later
    // on (a desktop shortcut bound or refused); call before start(). Others never call it.
    using NoticeHandler = std::function<void(const QString& notice)>;
    virtual void setNoticeHandler(NoticeHandler handler) { static_cast<void>(handler); }
};

// The desktop's global key events (on Linux: XInput2 raw key events of the X server).
std::unique_ptr<KeyEventSource> makeSystemKeyEventSource();
