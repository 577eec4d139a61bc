#pragma once

#include "platform/PasteKeystroke.h"

#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <memory>

class AtspiTextAccessibility;
class QDBusServiceWatcher;

// Control+V (Control+Shift+V in a terminal emulator) sent through the desktop's
// RemoteDesktop portal (org.freedesktop.portal.RemoteDesktop), which KDE Plasma and
// GNOME offer where they offer no virtual keyboard: one session with the keyboard
// device only, opened when the program starts, so a desktop that asks the user's
// consent asks then and not in the middle of a dictation. Where the portal can
// remember the consent (version 2), the restore token it hands out is kept in a file
// of our own and given back at the next start, so it asks at most once. Until the
// session runs, and after the user refused it, canPost() is false: the text stays
// on the clipboard. A session the desktop closes is opened again with the token.
// Every call is asynchronous; nothing waits on the bus.
class RemoteDesktopPasteKeystroke final : public QObject, public PasteKeystroke
{
    Q_OBJECT
public:
    // tokenFile: where the restore token is kept (created with 0600 permissions).
    explicit RemoteDesktopPasteKeystroke(QString tokenFile);
    ~RemoteDesktopPasteKeystroke() override;

    void prepare() override;
    QCoro::Task<> post() override;
    bool canPost() const override { return m_state == State::started; }
    void setNoticeHandler(NoticeHandler handler) override { m_notice = std::move(handler); }

    // The file the restore token is kept in, under the user's XDG state folder.
    static QString defaultTokenFile();

private Q_SLOTS:
    void onCreateSessionResponse(uint response, const QVariantMap& results);
    void onSelectDevicesResponse(uint response, const QVariantMap& results);
    void onStartResponse(uint response, const QVariantMap& results);
    void onSessionClosed(const QDBusMessage& message);

private:
    enum class State {
        idle, // not opened yet
        opening, // between CreateSession and Start's answer
        started, // keys may be sent
        refused, // the user or the desktop said no: not asked again in this run
        closed, // the portal closed it or failed; opened again when another portal takes over
    };

    void open();
    // Calls a portal method whose answer comes as a Request's Response signal, listening first.
    void request(const QString& method, const QVariantList& arguments, const QString& token, const char* slot);
    void stopListening(const QString& token, const char* slot);
    // Stops listening for the current session's end, and drops it.
    void forgetSession();
    void fail(State state, const QString& why);
    // Passes a sentence on, once: the same one again says nothing new.
    void notice(const QString& text, bool problem);

    QString m_tokenFile;
    State m_state = State::idle;
    QString m_session;
    int m_requests = 0; // request tokens handed out, for unique ones
    QString m_pendingToken; // the request whose Response is awaited, and its slot
    const char* m_pendingSlot = nullptr;
    int m_reopened = 0;
    QString m_lastNotice;
    NoticeHandler m_notice;
    std::unique_ptr<AtspiTextAccessibility> m_accessibility;
    std::unique_ptr<QDBusServiceWatcher> m_portalWatcher;
};
