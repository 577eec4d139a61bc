#pragma once

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QObject>
#include <QString>
#include <QVariantMap>

// The desktop's GlobalShortcuts portal (org.freedesktop.portal.GlobalShortcuts): one
// session with one shortcut, "dictate", whose Activated and Deactivated signals are
// the hotkey's press and release. The desktop decides the key, maybe asking the user;
// ours is only a preference. Every call is asynchronous; without a portal nothing
// happens beyond unavailable().
class GlobalShortcutsPortal : public QObject
{
    Q_OBJECT
public:
    explicit GlobalShortcutsPortal(QObject* parent = nullptr);

    // Creates the session and reuses the shortcut the desktop remembers for this app id,
    // or binds it with this preferred trigger (XDG shortcuts notation, "Menu"). The app
    // id itself is registered at the program's start, before the application object exists.
    void start(const QString& preferredTrigger);

    // The one shortcut's id and its description as the desktop shows it.
    static constexpr const char* shortcutId = "dictate";
    static constexpr const char* shortcutDescription = "Hold to dictate";

Q_SIGNALS:
    void pressed();
    void released();
    // The desktop bound the shortcut, or changed its key later (ShortcutsChanged);
    // trigger is how it describes the key (may be empty).
    void bound(const QString& trigger);
    // No portal, or it refused: why, in a sentence.
    void unavailable(const QString& why);

private Q_SLOTS:
    void onSessionResponse(uint response, const QVariantMap& results);
    void onListResponse(uint response, const QVariantMap& results);
    void onBindResponse(uint response, const QVariantMap& results);
    // ShortcutsChanged(o session_handle, a(sa{sv}) shortcuts), read from the message.
    void onShortcutsChanged(const QDBusMessage& message);
    void onActivated(
        const QDBusObjectPath& session, const QString& id, qulonglong timestamp, const QVariantMap& options);
    void onDeactivated(
        const QDBusObjectPath& session, const QString& id, qulonglong timestamp, const QVariantMap& options);

private:
    void createSession();
    void listShortcuts();
    void bindShortcuts();

    QString m_preferredTrigger;
    QString m_session;
    QString m_sessionRequest;
    QString m_listRequest;
    QString m_bindRequest;
};
