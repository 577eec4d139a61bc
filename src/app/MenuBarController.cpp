#include "app/MenuBarController.h"

#include "services/AppConfig.h"
#include "services/KeychainHelper.h"
#include "services/Log.h"

#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QEvent>
#include <QIcon>
#include <QImage>
#include <QKeySequence>
#include <QMenu>
#include <QPainter>
#include <QPalette>
#include <QSystemTrayIcon>
#include <QUrl>

using namespace Qt::StringLiterals;

namespace {

// Our own microphone drawn in one colour, for desktops whose icon theme has none.
QIcon tintedMicrophone(const QColor& colour)
{
    QIcon icon;
    for (int size : { 16, 22, 24, 32, 48, 64 }) {
        QImage image = QImage(u":/quillet/icons/microphone.svg"_s)
                           .scaled(size, size, Qt::KeepAspectRatio, Qt::SmoothTransformation)
                           .convertToFormat(QImage::Format_ARGB32_Premultiplied);
        QPainter painter(&image);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(image.rect(), colour);
        painter.end();
        icon.addPixmap(QPixmap::fromImage(image));
    }
    return icon;
}

} // namespace

MenuBarController::MenuBarController(QObject* owner, MenuBarDelegate* delegate, QObject* parent)
    : QObject(parent)
    , m_statusItem(std::make_unique<QSystemTrayIcon>())
    , m_owner(owner)
    , m_delegate(delegate)
{ }

MenuBarController::~MenuBarController()
{
    if (qApp)
        qApp->removeEventFilter(this);
}

MenuBarDelegate* MenuBarController::delegate() const
{
    return m_owner ? m_delegate : nullptr;
}

void MenuBarController::configure()
{
    updateIcon();
    m_statusItem->setToolTip(u"Quillet"_s);
    // The panel's colours come from the application palette; follow them when they change.
    qApp->installEventFilter(this);
    rebuildMenu();
    m_statusItem->show();
    if (!QSystemTrayIcon::isSystemTrayAvailable() && !m_reportedNoTray) {
        // Qt puts the icon up by itself as soon as a tray appears.
        m_reportedNoTray = true;
        Log::write(Log::Symbol::Warning,
            u"no system tray on this desktop: the menu appears when a tray starts; dictation works without it"_s);
    }
}

bool MenuBarController::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == qApp && event->type() == QEvent::ApplicationPaletteChange)
        updateIcon();
    return QObject::eventFilter(watched, event);
}

void MenuBarController::updateIcon()
{
    // A symbolic theme icon is recoloured by the panel itself; ours follows the palette's text colour.
    const QIcon fallback = tintedMicrophone(QApplication::palette().color(QPalette::WindowText));
    m_statusItem->setIcon(QIcon::fromTheme(u"audio-input-microphone-symbolic"_s, fallback));
}

void MenuBarController::rebuildMenu()
{
    if (!m_menu)
        installMenu(m_credentials); // the tray never waits for the keyring to have a menu
    readCredentials(this, ++m_reads);
}

QCoro::Task<> MenuBarController::readCredentials(QPointer<MenuBarController> self, quint64 read)
{
    const KeychainHelper::Read token = co_await KeychainHelper::loadAsync(KeychainHelper::accessTokenKey);
    if (!self || read != self->m_reads)
        co_return;
    if (token.value)
        self->installMenu(Credentials::SignedIn);
    else if (token.status == SecretStore::Status::Locked)
        self->installMenu(Credentials::KeyringLocked);
    else
        self->installMenu(Credentials::SignedOut);
}

void MenuBarController::installMenu(Credentials credentials)
{
    m_credentials = credentials;
    const bool signedIn = credentials == Credentials::SignedIn;

    auto menu = std::make_unique<QMenu>();
    QString title = u"Quillet"_s;
    if (signedIn)
        title = u"Quillet — Active"_s;
    else if (credentials == Credentials::KeyringLocked)
        title = u"Quillet — Keyring Locked"_s;
    QAction* status = menu->addAction(title);
    status->setEnabled(false);
    menu->addSeparator();
    QAction* history = menu->addAction(u"History"_s, this, &MenuBarController::didSelectHistory);
    history->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_H));
    menu->addSeparator();
    if (signedIn) {
        // A lone "&" marks the next letter as the mnemonic and is not drawn: "&&" shows one.
        menu->addAction(u"Account && Billing…"_s, this, &MenuBarController::didSelectAccount);
        menu->addAction(u"Sign out"_s, this, &MenuBarController::didSelectSignOut);
    } else {
        menu->addAction(u"Sign in…"_s, this, &MenuBarController::didSelectSignIn);
    }
    menu->addSeparator();
    QAction* settings = menu->addAction(u"Settings…"_s, this, &MenuBarController::didSelectSettings);
    settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    menu->addSeparator();
    QAction* quit = menu->addAction(u"Quit Quillet"_s, qApp, &QCoreApplication::quit);
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    // Shortcuts are shown for reference; the menu is reached through the tray, not the keyboard focus.
    for (QAction* action : menu->actions())
        action->setShortcutVisibleInContextMenu(true);

    m_statusItem->setContextMenu(menu.get());
    // The old menu goes only now: the tray must never be left pointing at a deleted one. Nor
    // at once: after "Sign out" the old menu is still inside its own handling of that click.
    if (m_menu)
        m_menu.release()->deleteLater();
    m_menu = std::move(menu);
    Q_EMIT menuRebuilt();
}

void MenuBarController::didSelectHistory()
{
    // Deliberately inert: the history is kept for recovery (quillet --history), not shown here.
}

void MenuBarController::didSelectAccount()
{
    const QUrl url(AppConfig::siteURL() + u"/account"_s, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty()) {
        Log::write(Log::Symbol::Failure, u"the site address does not form a valid account page address"_s);
        return;
    }
    QDesktopServices::openUrl(url);
}

void MenuBarController::didSelectSignIn()
{
    if (MenuBarDelegate* target = delegate())
        target->menuBarDidSelectSignIn();
}

void MenuBarController::didSelectSignOut()
{
    if (!delegate())
        return;
    signOut(this);
}

QCoro::Task<> MenuBarController::signOut(QPointer<MenuBarController> self)
{
    co_await KeychainHelper::clearTokensAsync();
    if (self)
        self->rebuildMenu();
}

void MenuBarController::didSelectSettings()
{
    if (MenuBarDelegate* target = delegate())
        target->showSettings();
}

// The meta-object code goes into this object file, not the library's shared one, so linking
// the tray menu does not also pull in every other class of the application shell.
#include "moc_MenuBarController.cpp"
