#pragma once

#include <QObject>
#include <QPointer>

#include <QCoroTask>

#include <memory>

class QAction;
class QMenu;
class QSystemTrayIcon;

// What the tray menu asks of the application.
class MenuBarDelegate
{
public:
    virtual ~MenuBarDelegate() = default;
    // Opens the settings window, or brings it forward.
    virtual void showSettings() = 0;
    // Opens the sign-in page in the browser.
    virtual void menuBarDidSelectSignIn() = 0;
};

// The program's only permanent face: a microphone in the panel's tray with a small
// menu. The menu is built afresh whenever the sign-in state may have changed; the
// state is read from the token store each time (without waiting for it: until the
// store answers, the menu keeps its last form).
class MenuBarController : public QObject
{
    Q_OBJECT
public:
    // The delegate is held weakly through owner: once owner is gone, the actions that need it do nothing.
    MenuBarController(QObject* owner, MenuBarDelegate* delegate, QObject* parent = nullptr);
    ~MenuBarController() override;

    // Sets the icon and builds the menu; once, after creation.
    void configure();
    // Reads the sign-in state from the token store and installs a new menu for it once
    // the store has answered; menuRebuilt() follows.
    void rebuildMenu();

    QSystemTrayIcon* statusItem() const { return m_statusItem.get(); }
    QMenu* menu() const { return m_menu.get(); }

    // The actions of the menu's items.
    void didSelectHistory();
    void didSelectAccount();
    void didSelectSignIn();
    void didSelectSignOut();
    void didSelectSettings();

    // What the menu shows about the credentials.
    enum class Credentials { SignedOut, SignedIn, KeyringLocked };
    Credentials credentials() const { return m_credentials; }

Q_SIGNALS:
    // A new menu is installed.
    void menuRebuilt();

private:
    void installMenu(Credentials credentials);
    static QCoro::Task<> readCredentials(QPointer<MenuBarController> self, quint64 read);
    static QCoro::Task<> signOut(QPointer<MenuBarController> self);
    bool eventFilter(QObject* watched, QEvent* event) override;
    void updateIcon();
    MenuBarDelegate* delegate() const;

    std::unique_ptr<QSystemTrayIcon> m_statusItem;
    std::unique_ptr<QMenu> m_menu;
    QPointer<QObject> m_owner;
    MenuBarDelegate* m_delegate = nullptr;
    bool m_reportedNoTray = false;
    Credentials m_credentials = Credentials::SignedOut;
    quint64 m_reads = 0; // only the latest read decides
};
