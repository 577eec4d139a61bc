#include "app/AppDelegate.h"

#include "app/SignInLink.h"
#include "app/SingleInstance.h"
#include "dictation/DictationSession.h"
#include "services/AppConfig.h"
#include "services/AuthNotifier.h"
#include "services/Autostart.h"
#include "services/KeychainHelper.h"
#include "services/Log.h"
#include "ui/HUDWindowController.h"
#include "ui/OnboardingState.h"
#include "ui/OnboardingWindow.h"
#include "ui/SettingsWindow.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>
#include <QTimer>
#include <QUrl>

using namespace Qt::StringLiterals;

AppDelegate::AppDelegate(std::function<DictationEnvironment()> makeEnvironment, QObject* parent)
    : QObject(parent)
    , m_makeEnvironment(std::move(makeEnvironment))
{ }

AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching(SingleInstance* instance)
{
    // Standard output is unbuffered and the program keeps no window of its own: main() did both.
    registerUrlScheme();
    // A tray program is expected after logging in: the first start ever turns that on.
    QSettings settings(u"Quillet"_s, u"Quillet"_s);
    Autostart::forThisProgram().enableOnFirstRun(settings);
    connect(instance, &SingleInstance::linkReceived, this, &AppDelegate::handleDeepLink);
    // Started again from a launcher: the user wants to see Quillet, and it has no other window.
    connect(instance, &SingleInstance::activated, this, &AppDelegate::showSettings);
    // A desktop binding's `quillet --press`/`--release`/`--toggle`: the chosen hotkey, as
    // the desktop saw it. Handled like the key itself, double tap included.
    connect(instance, &SingleInstance::shortcutEdgeReceived, this, [this](ShortcutEdge edge) {
        if (!m_hotkeyManager)
            return;
        switch (edge) {
        case ShortcutEdge::press:
            m_hotkeyManager->shortcutPressed();
            break;
        case ShortcutEdge::release:
            m_hotkeyManager->shortcutReleased();
            break;
        case ShortcutEdge::toggle:
            m_hotkeyManager->shortcutToggled();
            break;
        }
    });
    // The migration runs on the keychain thread before anything else asks the store,
    // so the menu's first read already sees its result.
    KeychainHelper::migrateIfNeededAsync();

    m_menuBarController = std::make_unique<MenuBarController>(this, this);
    m_menuBarController->configure();

    m_hotkeyManager = std::make_unique<HotkeyManager>(makeSystemKeyEventSource());
    m_hotkeyManager->setDelegate(this);

    connect(
        &AuthNotifier::instance(), &AuthNotifier::quilletAuthInvalidated, this,
        [this] {
            if (m_menuBarController)
                m_menuBarController->rebuildMenu();
        },
        Qt::QueuedConnection);

    m_hotkeyManager->registerTap();
    if (!OnboardingState::isComplete())
        showOnboarding();
    pingBackend();
    // Compiling the capsule's views now keeps the first key press quick.
    QTimer::singleShot(0, this, [] { HUDWindowController::preload(); });
}

void AppDelegate::registerUrlScheme()
{
    // An installed Quillet finds its own desktop entry beside its executable's prefix
    // (/usr/bin/quillet, /usr/share/applications/…): that entry already declares the
    // scheme, so it only has to be made the default handler.
    const QString appId = QStringLiteral(QUILLET_APP_ID);
    const QString installed
        = QCoreApplication::applicationDirPath() + u"/../share/applications/"_s + appId + u".desktop"_s;
    QString entryName = appId + u".desktop"_s;
    if (!QFile::exists(installed)) {
        // A build run from its tree writes an entry of its own that names this very
        // executable, so it answers the browser's link as an installed one does. It has
        // another name than the installed entry, which it would otherwise hide.
        entryName = u"quillet.desktop"_s;
        const QString dir = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + u"/applications"_s;
        const QString path = dir + u'/' + entryName;
        const QByteArray entry = "[Desktop Entry]\n"
                                 "Type=Application\n"
                                 "Name=Quillet\n"
                                 "Comment=Hold a key, speak, let go: the words appear at the cursor\n"
                                 "Exec="
            + QCoreApplication::applicationFilePath().toUtf8()
            + " %u\n"
              "Icon=audio-input-microphone\n"
              "Terminal=false\n"
              "NoDisplay=true\n"
              "MimeType=x-scheme-handler/quillet;\n";
        QFile existing(path);
        const bool current = existing.open(QIODevice::ReadOnly) && existing.readAll() == entry;
        if (!current) {
            QDir().mkpath(dir);
            QSaveFile file(path);
            if (!file.open(QIODevice::WriteOnly) || file.write(entry) != entry.size() || !file.commit()) {
                Log::write(
                    Log::Symbol::Warning, u"could not write "_s + path + u": sign-in links will not reach Quillet"_s);
                return;
            }
        }
    }
    // Detached: launch never waits for the desktop's database.
    if (!QProcess::startDetached(u"xdg-mime"_s, { u"default"_s, entryName, u"x-scheme-handler/quillet"_s }))
        Log::write(Log::Symbol::Warning, u"xdg-mime is not installed: sign-in links will not reach Quillet"_s);
}

void AppDelegate::handleDeepLink(const QString& link)
{
    const SignInLink::Result result = SignInLink::parse(link);
    if (const auto* repeated = std::get_if<SignInLink::RepeatedName>(&result)) {
        Log::write(Log::Symbol::Warning, u"ignored a sign-in link that repeats \"%1\""_s.arg(repeated->name.left(40)));
        return;
    }
    if (const auto* refused = std::get_if<SignInLink::Refused>(&result)) {
        Log::write(Log::Symbol::Failure, u"refused a sign-in link: "_s + refused->reason);
        return;
    }
    const auto* tokens = std::get_if<SignInLink::Tokens>(&result);
    if (!tokens)
        return;
    saveSignIn(tokens->accessToken, tokens->refreshToken);
}

QCoro::Task<> AppDelegate::saveSignIn(QString accessToken, QString refreshToken)
{
    // Saved away from the event loop: a keyring that asks to be unlocked must not freeze
    // the program meanwhile. A failed save is logged by the token store, and the menu
    // rebuilt from what the store really holds shows it.
    const QPointer<AppDelegate> self(this);
    const SecretStore::Status access = co_await KeychainHelper::saveAsync(KeychainHelper::accessTokenKey, accessToken);
    const SecretStore::Status refresh
        = co_await KeychainHelper::saveAsync(KeychainHelper::refreshTokenKey, refreshToken);
    if (!self)
        co_return;
    if (access != SecretStore::Status::Success || refresh != SecretStore::Status::Success)
        Log::write(Log::Symbol::Failure, u"the sign-in could not be kept: sign in again once the keyring answers"_s);
    if (m_menuBarController)
        m_menuBarController->rebuildMenu();
    Q_EMIT signInHandled(access == SecretStore::Status::Success && refresh == SecretStore::Status::Success);
    pingBackend();
}

void AppDelegate::hotkeyBegan(bool isToneMode)
{
    // The first-run window's hotkey step shows the key working.
    OnboardingState::shared().setHotkeyHeld(true);
    Log::write(Log::Symbol::Microphone, u"hotkeyBegan toneMode=%1"_s.arg(isToneMode ? u"true"_s : u"false"_s));
    QMetaObject::invokeMethod(
        this,
        [this, isToneMode] {
            if (m_dictationSession) {
                // A tone picker nobody answers must not hold the key hostage: the press
                // takes the cleaned-up text instead.
                if (m_dictationSession->awaitingTone()) {
                    m_dictationSession->skipTone();
                    return;
                }
                // The second press of a double tap asks for tone mode; the dictation its first
                // tap started has heard nothing and gives way. Any other press while a
                // dictation is finishing is refused, and says so.
                const bool firstTapOfThisDoubleTap = isToneMode && !m_dictationSession->toneMode()
                    && m_dictationSession->stopped() && m_dictationSession->accumulated().trimmed().isEmpty();
                if (!firstTapOfThisDoubleTap) {
                    Log::write(Log::Symbol::Warning, u"key press ignored: the previous dictation is still finishing"_s);
                    return;
                }
                m_dictationSession->abandon();
                m_dictationSession.reset();
            }
            const QPointer<AppDelegate> self(this);
            m_dictationSession = DictationSession::create(
                isToneMode,
                [self] {
                    // Released on the next turn: the session is inside its own timer right now.
                    if (self)
                        QTimer::singleShot(0, self, [self] { self->m_dictationSession.reset(); });
                },
                m_makeEnvironment());
            m_dictationSession->start();
        },
        Qt::QueuedConnection);
}

void AppDelegate::hotkeyEnded()
{
    OnboardingState::shared().setHotkeyHeld(false);
    Log::write(Log::Symbol::Stop, u"hotkeyEnded"_s);
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (m_dictationSession)
                m_dictationSession->stop();
        },
        Qt::QueuedConnection);
}

void AppDelegate::showOnboarding()
{
    if (m_onboardingWindow) {
        m_onboardingWindow->showAndRaise();
        return;
    }
    const QPointer<AppDelegate> self(this);
    m_onboardingWindow = new OnboardingWindow(
        [self] {
            if (self && self->m_onboardingWindow)
                self->m_onboardingWindow->close();
        },
        OnboardingServices::system(), this);
    // However it closes (finished, close button, window manager), the first run is over.
    connect(m_onboardingWindow, &FormWindow::closed, this, [this] {
        OnboardingState::markComplete();
        if (m_onboardingWindow)
            m_onboardingWindow->deleteLater();
        m_onboardingWindow = nullptr;
    });
    m_onboardingWindow->showAndRaise();
}

void AppDelegate::showSettings()
{
    if (!m_settingsWindow) {
        m_settingsWindow = new SettingsWindow(this);
        connect(m_settingsWindow, &FormWindow::closed, m_settingsWindow, &QObject::deleteLater);
    }
    m_settingsWindow->showAndRaise();
}

void AppDelegate::menuBarDidSelectSignIn()
{
    const QUrl url(AppConfig::siteURL() + u"/signin?source=mac-app"_s, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty()) {
        Log::write(Log::Symbol::Failure, u"the site address does not form a valid sign-in page address"_s);
        return;
    }
    QDesktopServices::openUrl(url);
}

void AppDelegate::pingBackend()
{
    const QUrl url(AppConfig::apiBaseURL() + u"/health"_s, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty())
        return;
    static QNetworkAccessManager* network = new QNetworkAccessManager(QCoreApplication::instance());
    QNetworkReply* reply = network->get(QNetworkRequest(url));
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}
