// A portal frontend (org.freedesktop.portal.Desktop) whose RemoteDesktop interface is
// version 2, the one that remembers the user's consent through restore tokens, which
// Debian 12's xdg-desktop-portal (1.16, version 1) cannot. It takes the name over from
// the running frontend and answers every request at once, with no dialog; it types
// nothing. Driven by a test over standard input:
//   close                  the desktop closes the session (Session.Closed)
//   refuse                 the user declines every request to start from now on
// It writes one line per event:
//   ready                  its bus name is taken
//   register <app id>      a client registered its app id (Registry, 1.20 and later)
//   create                 a client created a RemoteDesktop session
//   select <types> <persist mode> <restore token or ->
//   start <restore token it hands out> | start refused
//   key <keysym> <state>
#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <QVariantMap>

#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

// org.freedesktop.host.portal.Registry, as xdg-desktop-portal 1.20 and later have it.
class Registry : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.host.portal.Registry")
public:
    explicit Registry(QObject* parent)
        : QDBusAbstractAdaptor(parent)
    { }

public Q_SLOTS:
    void Register(const QString& appId, const QVariantMap& options)
    {
        static_cast<void>(options);
        std::printf("register %s\n", qPrintable(appId));
    }
};

class RemoteDesktopFrontend : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.RemoteDesktop")
    Q_PROPERTY(uint AvailableDeviceTypes READ availableDeviceTypes CONSTANT)
    Q_PROPERTY(uint version READ version CONSTANT)
public:
    uint availableDeviceTypes() const { return 1; } // the keyboard
    uint version() const { return 2; }

    QString session;
    bool refuse = false; // the user declines every Start from now on

    void closeSession()
    {
        QDBusMessage closed = QDBusMessage::createSignal(session, u"org.freedesktop.portal.Session"_s, u"Closed"_s);
        closed << QVariantMap();
        QDBusConnection::sessionBus().send(closed);
    }

public Q_SLOTS:
    QDBusObjectPath CreateSession(const QVariantMap& options)
    {
        std::printf("create\n");
        session = path(u"session"_s, options.value(u"session_handle_token"_s).toString());
        return respond(options, { { u"session_handle"_s, session } });
    }

    QDBusObjectPath SelectDevices(const QDBusObjectPath& sessionHandle, const QVariantMap& options)
    {
        static_cast<void>(sessionHandle);
        const QString restore = options.value(u"restore_token"_s).toString();
        std::printf("select %u %u %s\n", options.value(u"types"_s).toUInt(), options.value(u"persist_mode"_s).toUInt(),
            restore.isEmpty() ? "-" : qPrintable(restore));
        return respond(options, {});
    }

    QDBusObjectPath Start(const QDBusObjectPath& sessionHandle, const QString& parentWindow, const QVariantMap& options)
    {
        static_cast<void>(sessionHandle);
        static_cast<void>(parentWindow);
        if (refuse) {
            std::printf("start refused\n");
            return respond(options, {}, 1);
        }
        const QString token = u"token-%1"_s.arg(++m_starts);
        std::printf("start %s\n", qPrintable(token));
        return respond(options, { { u"devices"_s, 1U }, { u"restore_token"_s, token } });
    }

    void NotifyKeyboardKeysym(const QDBusObjectPath& sessionHandle, const QVariantMap& options, int keysym, uint state)
    {
        static_cast<void>(sessionHandle);
        static_cast<void>(options);
        std::printf("key %d %u\n", keysym, state);
    }

private:
    QString path(const QString& kind, const QString& token) const
    {
        QString sender = message().service();
        sender.remove(0, 1);
        sender.replace(u'.', u'_');
        return u"/org/freedesktop/portal/desktop/"_s + kind + u'/' + sender + u'/' + token;
    }

    // The request's handle now; its Response right after the reply, as a frontend sends it.
    QDBusObjectPath respond(const QVariantMap& options, const QVariantMap& results, uint code = 0)
    {
        const QString request = path(u"request"_s, options.value(u"handle_token"_s).toString());
        QTimer::singleShot(0, this, [request, results, code] {
            QDBusMessage response
                = QDBusMessage::createSignal(request, u"org.freedesktop.portal.Request"_s, u"Response"_s);
            response << code << results;
            QDBusConnection::sessionBus().send(response);
        });
        return QDBusObjectPath(request);
    }

    int m_starts = 0;
};

int main(int argc, char* argv[])
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    QCoreApplication app(argc, argv);
    RemoteDesktopFrontend frontend;
    new Registry(&frontend);
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(u"/org/freedesktop/portal/desktop"_s, &frontend,
            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties | QDBusConnection::ExportAdaptors)) {
        std::fprintf(stderr, "fake-remote-desktop-portal: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> taken
        = bus.interface()->registerService(u"org.freedesktop.portal.Desktop"_s,
            QDBusConnectionInterface::ReplaceExistingService, QDBusConnectionInterface::DontAllowReplacement);
    if (!taken.isValid() || taken.value() != QDBusConnectionInterface::ServiceRegistered) {
        std::fprintf(stderr, "fake-remote-desktop-portal: the portal's name was not handed over\n");
        return 1;
    }
    std::printf("ready\n");

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &frontend, [&] {
        char line[64] = {};
        const ssize_t got = read(STDIN_FILENO, line, sizeof line - 1);
        if (got <= 0) {
            QCoreApplication::quit();
            return;
        }
        for (const QByteArray& command : QByteArray(line, got).split('\n')) {
            if (command == "close")
                frontend.closeSession();
            else if (command == "refuse")
                frontend.refuse = true;
        }
    });
    return QCoreApplication::exec();
}

#include "fake-remote-desktop-portal.moc"
