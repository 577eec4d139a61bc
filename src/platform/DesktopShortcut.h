#pragma once

#include <QObject>
#include <QString>

// What the desktop did with the hotkey, for the windows that explain it. On an X11
// session the program hears the keys itself and this stays `keyboard`. On a Wayland
// session the desktop owns the keys: its GlobalShortcuts portal may bind our "dictate"
// shortcut to a key (`bound`, with the trigger the desktop describes), may still be
// asking (`asking`), or may bind nothing or be absent (`unbound`: the user binds a key
// in the compositor instead). The key event source of the session feeds the shared
// instance; tests feed their own.
class DesktopShortcut : public QObject
{
    Q_OBJECT
public:
    enum class Status {
        keyboard, // the program hears the hotkey itself (X11)
        asking, // Wayland: the portal has not answered yet
        bound, // Wayland: the portal bound the shortcut; trigger() says to what
        unbound, // Wayland: no portal, or it bound nothing
    };
    Q_ENUM(Status)

    explicit DesktopShortcut(QObject* parent = nullptr);

    static DesktopShortcut& shared();

    Status status() const { return m_status; }
    // How the desktop describes the bound key ("Menu", "Ctrl+Alt+D"); empty unless bound.
    QString trigger() const { return m_trigger; }

    // Announces a change only when something differs. An empty trigger is not a binding.
    void setKeyboard();
    void setAsking();
    void setBound(const QString& trigger);
    void setUnbound();

Q_SIGNALS:
    void changed();

private:
    void set(Status status, const QString& trigger);

    Status m_status = Status::keyboard;
    QString m_trigger;
};
