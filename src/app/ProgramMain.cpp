#include "app/AppDelegate.h"
#include "app/HistoryText.h"
#include "app/SignInLink.h"
#include "app/SingleInstance.h"
#include "dictation/TextInserter.h"
#include "platform/DesktopSession.h"
#include "services/HistoryManager.h"
#include "services/Log.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QQuickWindow>
#include <QSGRendererInterface>

#include <cstdio>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

int printHistory()
{
    const QList<HistoryEntry> entries = HistoryManager::shared().entries();
    if (entries.isEmpty()) {
        std::puts("No dictations recorded yet.");
        return 0;
    }
    // Written as bytes with their length: a NUL in a text must not end the output there.
    const QByteArray out = HistoryText::forTerminal(entries);
    std::fwrite(out.constData(), 1, static_cast<size_t>(out.size()), stdout);
    std::fflush(stdout);
    return 0;
}

// --help, --version and --history answer on the terminal, without a display.
bool answersOnTheTerminal(int argc, char* argv[])
{
    for (int i = 1; i < argc; ++i) {
        const QByteArray arg(argv[i]);
        if (arg == "--history" || arg == "--help" || arg == "-h" || arg == "--help-all" || arg == "--version"
            || arg == "-v")
            return true;
    }
    return false;
}

struct Options {
    bool history = false;
    QStringList links;
};

Options parseOptions(const QCoreApplication& app)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(u"Push-to-talk dictation: hold the hotkey anywhere, speak, let go, and the "
                                     "words appear at the cursor."_s);
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption historyOption(u"history"_s,
        u"Print the texts Quillet inserted, newest first, and exit (to recover text that landed nowhere)."_s);
    parser.addOption(historyOption);
    // Answered by the launcher before the program is loaded; listed here for --help.
    parser.addOption(QCommandLineOption(u"press"_s,
        u"Tell the running Quillet that the dictation shortcut went down (for a desktop's key binding)."_s));
    parser.addOption(QCommandLineOption(
        u"release"_s, u"Tell the running Quillet that the dictation shortcut went up (for a key binding)."_s));
    parser.addOption(QCommandLineOption(
        u"toggle"_s, u"Start dictating, or stop when dictating (for desktops whose shortcuts report no release)."_s));
    parser.addPositionalArgument(u"link"_s, u"A quillet:// sign-in link to hand to Quillet."_s, u"[link]"_s);
    parser.process(app);
    return { parser.isSet(historyOption), parser.positionalArguments() };
}

void nameApplication()
{
    QCoreApplication::setApplicationName(u"Quillet"_s);
    QCoreApplication::setOrganizationName(u"Quillet"_s);
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLET_VERSION));
}

} // namespace

// The program, loaded and run by the quillet launcher (main.cpp).
extern "C" Q_DECL_EXPORT int quilletProgramMain(int argc, char* argv[])
{
    Log::makeStdoutUnbuffered();

    if (answersOnTheTerminal(argc, argv)) {
        QCoreApplication app(argc, argv);
        nameApplication();
        if (parseOptions(app).history)
            return printHistory();
        return 0;
    }

    // The capsule and the two forms are small: the software scene graph draws them at
    // once, shows the first capsule about ten times sooner and spares the ~100 MB an
    // OpenGL stack takes (Mesa's llvmpipe where there is no GPU). QT_QUICK_BACKEND
    // still decides when it is set.
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);

    // The desktop portal takes an app id only before any other call on the connection, and
    // creating the application object may already make one (a theme reading the desktop's
    // settings). Only a Wayland session has portal routes to speak of.
    if (DesktopSession::current() == DesktopSession::Type::wayland) {
        if (const std::optional<QString> failed
            = DesktopSession::registerWithPortal(QStringLiteral(QUILLET_APP_ID), 2000))
            Log::write(Log::Symbol::Warning,
                u"the desktop portal did not take the app id " QUILLET_APP_ID " ("_s + *failed
                    + u"): it may not find Quillet's shortcut or its permissions"_s);
    }

    // On a Wayland session the windows go through Xwayland where it runs: only there can
    // the capsule float without taking the focus.
    DesktopSession::prepareGuiPlatform();
    QApplication app(argc, argv);
    DesktopSession::forgetGuiPlatformChoice();
    nameApplication();
    QApplication::setDesktopFileName(QStringLiteral(QUILLET_APP_ID));
    // A tray program: closing the settings or welcome window must not end it.
    QApplication::setQuitOnLastWindowClosed(false);
    const QStringList links = parseOptions(app).links;
    // A link that would be dropped on the way (too long, a line break, tokens of the
    // wrong shape) is refused here, where the one who passed it can still be told.
    for (const QString& link : links) {
        const SignInLink::Result result = SignInLink::parse(link);
        QString problem;
        if (const auto* refused = std::get_if<SignInLink::Refused>(&result))
            problem = refused->reason;
        else if (std::holds_alternative<SignInLink::Foreign>(result))
            problem = u"it is not a quillet://auth link"_s;
        else if (std::holds_alternative<SignInLink::Incomplete>(result))
            problem = u"it lacks the token or the refresh token"_s;
        else if (const auto* repeated = std::get_if<SignInLink::RepeatedName>(&result))
            problem = u"it repeats \"%1\""_s.arg(repeated->name.left(40));
        if (!problem.isEmpty()) {
            std::fprintf(stderr, "quillet: refused the sign-in link: %s\n", problem.toUtf8().constData());
            return 2;
        }
    }

    if (SingleInstance::handOver(links, 500)) {
        if (links.isEmpty())
            std::puts("Quillet is already running: its settings window is open, its menu is in the panel's tray.");
        return 0;
    }

    SingleInstance instance;
    if (!instance.listen())
        Log::write(Log::Symbol::Warning,
            u"could not open "_s + SingleInstance::socketPath() + u": a second start will not find this one"_s);

    const DesktopSession::Routes routes = DesktopSession::currentRoutes();
    Log::write(Log::Symbol::Start, DesktopSession::describe(routes));
    for (const QString& missing : DesktopSession::missingRoutes(routes))
        Log::write(Log::Symbol::Warning, missing);
    // Where the keystroke goes through the desktop's portal, its consent is asked for now.
    if (routes.type == DesktopSession::Type::wayland)
        TextInserter::shared().prepare();

    AppDelegate delegate;
    delegate.applicationDidFinishLaunching(&instance);
    for (const QString& link : links)
        delegate.handleDeepLink(link);
    return app.exec();
}
