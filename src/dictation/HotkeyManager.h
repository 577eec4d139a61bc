#pragma once

#include "platform/KeyEventSource.h"
#include "services/Hotkey.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <optional>

// Receives the edges of the hold-to-talk key.
class HotkeyManagerDelegate
{
public:
    virtual ~HotkeyManagerDelegate() = default;
    // The hotkey went down; isToneMode when this press completed a double tap of fn.
    virtual void hotkeyBegan(bool isToneMode) = 0;
    // The hotkey was released.
    virtual void hotkeyEnded() = 0;
};

// Watches the whole session's keyboard for the hotkey chosen in the settings and
// reports when the user starts and stops holding it. It never starts or stops a
// dictation itself. The hotkey is read from SettingsStore::shared() on every key
// event, so a change in the settings applies from the next event on.
class HotkeyManager
{
public:
    // Where "now" comes from for the double tap of fn; a monotonic clock by default.
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // Two presses of fn whose down edges are closer than this ask for tone mode.
    static constexpr std::chrono::milliseconds doubleTapThreshold { 400 };

    explicit HotkeyManager(std::unique_ptr<KeyEventSource> source, Clock clock = {});
    ~HotkeyManager();
    HotkeyManager(const HotkeyManager&) = delete;
    HotkeyManager& operator=(const HotkeyManager&) = delete;

    // The delegate is held weakly: once `owner` is destroyed the calls are skipped.
    template <typename T>
    requires std::derived_from<T, QObject> && std::derived_from<T, HotkeyManagerDelegate>
    void setDelegate(T* delegate) { setDelegate(delegate, delegate); }
    void setDelegate(QObject* owner, HotkeyManagerDelegate* delegate);

    // Starts listening to the keyboard, once; logs whether that worked. A failure
    // leaves the manager inert for good: nothing retries.
    void registerTap();

    // The desktop's dictation shortcut, where the desktop hands us that instead of keys (a
    // Wayland portal, or a compositor binding running `quillet --press`): it stands for the
    // chosen hotkey. A press counts for the double tap of fn as a key press does; with Caps
    // Lock every press starts or stops, and releases mean nothing.
    void shortcutPressed();
    void shortcutReleased();
    // Starts when idle, stops when holding: for desktops whose shortcuts fire on press only.
    void shortcutToggled();

    // The hotkey as a desktop's shortcut settings name it (XDG shortcuts notation): the
    // preference given to a desktop that binds the key itself.
    static QString shortcutTrigger(Hotkey hotkey);

    // Whether a begin has been reported without its end yet.
    bool isHolding() const { return m_isHolding; }
    // Whether registerTap() got the key events going.
    bool isRegistered() const { return m_registered; }
    // 0.4, in seconds. Kept for whoever reads it; the double-tap test itself uses
    // doubleTapThreshold, deliberately.
    double doubleTapInterval() const { return m_doubleTapInterval; }

private:
    KeyEventDisposition handleEvent(KeyEventType type, const KeyEvent& event);
    KeyEventDisposition handleFnKey(KeyEventType type, const KeyEvent& event);
    KeyEventDisposition handleRegularKey(KeyEventType type, const KeyEvent& event, Hotkey hotkey);
    void begin(bool canDoubleTap);
    void end();
    void reportBegan(bool isToneMode);
    void reportEnded();

    std::unique_ptr<KeyEventSource> m_source;
    Clock m_clock;
    QPointer<QObject> m_delegateObject;
    HotkeyManagerDelegate* m_delegate = nullptr;
    bool m_registered = false;
    bool m_isHolding = false;
    std::optional<std::chrono::steady_clock::time_point> m_lastTapTime;
    double m_doubleTapInterval = 0.4;
    QObject m_settingsWatch; // ends the settings connection with the manager
};
