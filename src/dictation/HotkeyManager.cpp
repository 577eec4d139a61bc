#include "dictation/HotkeyManager.h"

#include "services/Log.h"
#include "services/SettingsStore.h"

using namespace Qt::StringLiterals;

HotkeyManager::HotkeyManager(std::unique_ptr<KeyEventSource> source, Clock clock)
    : m_source(std::move(source))
    , m_clock(clock ? std::move(clock) : Clock([] { return std::chrono::steady_clock::now(); }))
{ }

HotkeyManager::~HotkeyManager()
{
    if (m_source)
        m_source->stop();
}

void HotkeyManager::setDelegate(QObject* owner, HotkeyManagerDelegate* delegate)
{
    m_delegateObject = owner;
    m_delegate = delegate;
}

QString HotkeyManager::shortcutTrigger(Hotkey hotkey)
{
    // Key names of the XDG shortcuts notation, for desktops that bind the key themselves.
    return Hotkeys::shortcutKeyName(hotkey);
}

void HotkeyManager::registerTap()
{
    if (m_registered)
        return;
    if (m_source) {
        m_source->setPreferredTrigger(shortcutTrigger(SettingsStore::shared().hotkey()));
        m_source->setNoticeHandler([](const QString& notice) { Log::write(Log::Symbol::Key, notice); });
    }
    const KeyEventSourceStatus status = m_source
        ? m_source->start([this](const KeyEvent& event) { return handleEvent(event.type, event); })
        : KeyEventSourceStatus::unsupported;
    if (status != KeyEventSourceStatus::started) {
        // No display to listen to, or one that will not tell us about other
        // applications' keys: the same outcome as a tap the system refused.
        Log::write(Log::Symbol::Warning, u"Event tap FAILED \u2014 Accessibility permission missing or revoked");
        Log::writeContinuation(u"System Settings \u2192 Privacy & Security \u2192 Accessibility \u2192 enable Quillet");
        return;
    }
    m_registered = true;
    Log::write(Log::Symbol::Success, u"Event tap created (defaultTap) \u2014 hotkey monitoring active");
    // The fn stand-in is an ordinary key on most keyboards: keep it from the applications
    // only while it is the hotkey.
    const auto reserveFnKey = [this] { m_source->setFnKeyReserved(SettingsStore::shared().hotkey() == Hotkey::fn); };
    reserveFnKey();
    QObject::connect(&SettingsStore::shared(), &SettingsStore::hotkeyChanged, &m_settingsWatch, reserveFnKey);
}

KeyEventDisposition HotkeyManager::handleEvent(KeyEventType type, const KeyEvent& event)
{
    if (type == KeyEventType::shortcutPressed) {
        shortcutPressed();
        return KeyEventDisposition::pass;
    }
    if (type == KeyEventType::shortcutReleased) {
        shortcutReleased();
        return KeyEventDisposition::pass;
    }
    const Hotkey hotkey = SettingsStore::shared().hotkey();
    if (type == KeyEventType::flagsChanged) {
        Log::write(Log::Symbol::Key,
            u"flagsChanged keyCode=%1 flags=%2 hotkey=%3"_s.arg(event.keyCode)
                .arg(event.flags)
                .arg(Hotkeys::rawValue(hotkey)));
    }
    if (hotkey == Hotkey::fn)
        return handleFnKey(type, event);
    return handleRegularKey(type, event, hotkey);
}

KeyEventDisposition HotkeyManager::handleFnKey(KeyEventType type, const KeyEvent& event)
{
    if (type != KeyEventType::flagsChanged)
        return KeyEventDisposition::pass;
    if ((event.flags & Hotkeys::modifierFlag(Hotkey::fn)) == 0) {
        if (m_isHolding)
            end();
        return KeyEventDisposition::pass;
    }
    // Further flag changes while fn is held (another modifier, say) are not new presses.
    if (m_isHolding)
        return KeyEventDisposition::pass;
    begin(true);
    return KeyEventDisposition::pass;
}

void HotkeyManager::shortcutPressed()
{
    const Hotkey hotkey = SettingsStore::shared().hotkey();
    Log::write(Log::Symbol::Key, u"shortcut pressed hotkey=%1"_s.arg(Hotkeys::rawValue(hotkey)));
    if (hotkey == Hotkey::capsLock) {
        shortcutToggled();
        return;
    }
    if (!m_isHolding) // a binding that repeats while the key is held
        begin(hotkey == Hotkey::fn);
}

void HotkeyManager::shortcutReleased()
{
    const Hotkey hotkey = SettingsStore::shared().hotkey();
    Log::write(Log::Symbol::Key, u"shortcut released hotkey=%1"_s.arg(Hotkeys::rawValue(hotkey)));
    if (hotkey != Hotkey::capsLock && m_isHolding)
        end();
}

void HotkeyManager::shortcutToggled()
{
    if (m_isHolding)
        end();
    else
        begin(SettingsStore::shared().hotkey() == Hotkey::fn);
}

void HotkeyManager::begin(bool canDoubleTap)
{
    m_isHolding = true;
    bool isToneMode = false;
    if (canDoubleTap) {
        const auto now = m_clock();
        if (m_lastTapTime && now - *m_lastTapTime < doubleTapThreshold) {
            // The pair is used up: a third quick tap starts a new one.
            m_lastTapTime.reset();
            isToneMode = true;
        } else {
            m_lastTapTime = now;
        }
    }
    reportBegan(isToneMode);
}

void HotkeyManager::end()
{
    m_isHolding = false;
    reportEnded();
}

KeyEventDisposition HotkeyManager::handleRegularKey(KeyEventType type, const KeyEvent& event, Hotkey hotkey)
{
    // Other keys never change anything, even when they set the same flag (left Alt).
    if (event.keyCode != Hotkeys::keyCode(hotkey))
        return KeyEventDisposition::pass;
    switch (type) {
    case KeyEventType::keyDown:
        if (m_isHolding)
            return KeyEventDisposition::pass; // auto-repeat
        begin(false);
        return KeyEventDisposition::drop;
    case KeyEventType::keyUp:
        if (!m_isHolding)
            return KeyEventDisposition::pass;
        end();
        return KeyEventDisposition::drop;
    case KeyEventType::flagsChanged: {
        // Modifier events always go on to the application, held or not.
        const bool flagSet = (event.flags & Hotkeys::modifierFlag(hotkey)) != 0;
        if (flagSet && !m_isHolding)
            begin(false);
        else if (!flagSet && m_isHolding)
            end();
        return KeyEventDisposition::pass;
    }
    case KeyEventType::shortcutPressed:
    case KeyEventType::shortcutReleased:
        break; // handled before the hotkey's own keys
    }
    return KeyEventDisposition::pass;
}

void HotkeyManager::reportBegan(bool isToneMode)
{
    if (m_delegateObject && m_delegate)
        m_delegate->hotkeyBegan(isToneMode);
}

void HotkeyManager::reportEnded()
{
    if (m_delegateObject && m_delegate)
        m_delegate->hotkeyEnded();
}
