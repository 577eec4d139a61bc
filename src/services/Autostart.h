#pragma once

#include <QSettings>
#include <QString>

// The XDG autostart entry that starts Quillet when the user logs in:
// <configuration folder>/autostart/<application id>.desktop. Desktops that follow the
// freedesktop autostart rules (GNOME, KDE Plasma, Xfce, LXQt, sway with a session
// manager) start every entry there that is not hidden.
class Autostart
{
public:
    // configHome: the user's configuration folder ($XDG_CONFIG_HOME, or ~/.config);
    // executable: the program the entry starts.
    Autostart(QString configHome, QString executable);
    // This very program, in the user's configuration folder.
    static Autostart forThisProgram();

    QString entryPath() const;
    // An entry of ours is there and not hidden.
    bool isEnabled() const;
    // Writes or removes the entry; false, with a log line, when that fails.
    bool setEnabled(bool enabled) const;
    // The desktop entry written for `executable`.
    static QByteArray entryFor(const QString& executable);

    // The settings key that records that the first start has turned autostart on.
    static const QString offeredKey; // "autostart.offered"
    // On the first start ever, turns autostart on (a tray program is expected after
    // logging in); from then on the user's choice in the settings window stands.
    void enableOnFirstRun(QSettings& settings) const;

private:
    QString m_configHome;
    QString m_executable;
};
