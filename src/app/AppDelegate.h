#pragma once

#include "app/MenuBarController.h"
#include "dictation/DictationSession.h"
#include "dictation/HotkeyManager.h"
#include "ui/OnboardingWindow.h"
#include "ui/SettingsWindow.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <QCoroTask>

#include <functional>
#include <memory>

class SingleInstance;

// The root of the running program: wires everything at launch, owns the tray menu,
// the key monitor, the dictation in progress and the two windows, turns key edges
// into dictations and takes the sign-in link from the browser.
class AppDelegate : public QObject, public MenuBarDelegate, public HotkeyManagerDelegate
{
    Q_OBJECT
public:
    // makeEnvironment: what each dictation reaches outside itself (the real one by default; tests record).
    explicit AppDelegate(std::function<DictationEnvironment()> makeEnvironment = &DictationEnvironment::system,
        QObject* parent = nullptr);
    ~AppDelegate() override;

    // The launch sequence; instance is the already-listening single-instance socket.
    void applicationDidFinishLaunching(SingleInstance* instance);

    // A quillet:// link, from the command line or from a later start.
    void handleDeepLink(const QString& link);

    // The dictation key went down (isToneMode: a double tap) or up.
    void hotkeyBegan(bool isToneMode) override;
    void hotkeyEnded() override;

    // Opens the first-run window.
    void showOnboarding();
    // Opens the settings window, or brings the open one forward.
    void showSettings() override;
    void menuBarDidSelectSignIn() override;

    MenuBarController* menuBarController() const { return m_menuBarController.get(); }
    bool hasDictationSession() const { return m_dictationSession != nullptr; }
    DictationSession* dictationSession() const { return m_dictationSession.get(); }
    OnboardingWindow* onboardingWindow() const { return m_onboardingWindow; }
    SettingsWindow* settingsWindow() const { return m_settingsWindow; }

    // One unauthenticated request to the backend's health address; the answer is ignored.
    static void pingBackend();

Q_SIGNALS:
    // The tokens of a sign-in link were saved (stored: both went into the token store).
    void signInHandled(bool stored);

private:
    void registerUrlScheme();
    QCoro::Task<> saveSignIn(QString accessToken, QString refreshToken);

    std::function<DictationEnvironment()> m_makeEnvironment;
    std::unique_ptr<MenuBarController> m_menuBarController;
    std::unique_ptr<HotkeyManager> m_hotkeyManager;
    std::shared_ptr<DictationSession> m_dictationSession;
    // Each lives while it is open; closing forgets it.
    QPointer<OnboardingWindow> m_onboardingWindow;
    QPointer<SettingsWindow> m_settingsWindow;
};
