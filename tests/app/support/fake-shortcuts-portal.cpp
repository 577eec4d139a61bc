// A GlobalShortcuts portal backend (org.freedesktop.impl.portal.GlobalShortcuts) that
// the real xdg-desktop-portal frontend talks to, driven by a test over standard input:
//   press | release        the bound shortcut goes down or up (Activated, Deactivated)
//   rebind <trigger>       the user gave the shortcut another key (ShortcutsChanged)
// It writes one line per event:
//   ready                  its bus name is taken
//   session <app id>       a client created a session (app id empty when unsandboxed)
//   bound <id> <preferred trigger>|<description>
//   listed <ids>           a client asked which shortcuts its app id has (ListShortcuts)
// Every shortcut is bound to its preferred trigger, as a desktop without a dialog would,
// and remembered under the app id for later sessions, as a desktop does.
//
// With --frontend it stands in for the portal frontend itself (org.freedesktop.portal.Desktop)
// instead, to see the order of a client's calls, and writes:
//   register <app id>      org.freedesktop.host.portal.Registry.Register, answered only
//                          when the test writes "answer"
//   call <interface>.<method>   any other call, answered with an error
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QSocketNotifier>
#include <QVariantMap>

#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

struct Shortcut {
    QString id;
    QVariantMap properties;
};
using ShortcutList = QList<Shortcut>;
Q_DECLARE_METATYPE(Shortcut)
Q_DECLARE_METATYPE(ShortcutList)

QDBusArgument& operator<<(QDBusArgument& argument, const Shortcut& shortcut)
{
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, Shortcut& shortcut)
{
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

class ShortcutsBackend : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.impl.portal.GlobalShortcuts")
    Q_PROPERTY(uint version READ version CONSTANT)
public:
    uint version() const { return 1; }

    QDBusObjectPath session;
    QString sessionAppId;
    QString boundId;
    QVariant boundDescription;
    // What each app id has bound, with the keys as the desktop describes them.
    QHash<QString, ShortcutList> remembered;

public Q_SLOTS:
    uint CreateSession(const QDBusObjectPath& handle, const QDBusObjectPath& sessionHandle, const QString& appId,
        const QVariantMap& options, QVariantMap& results)
    {
        static_cast<void>(handle);
        static_cast<void>(options);
        session = sessionHandle;
        sessionAppId = appId;
        results = QVariantMap();
        std::printf("session %s\n", qPrintable(appId));
        return 0;
    }

    uint BindShortcuts(const QDBusObjectPath& handle, const QDBusObjectPath& sessionHandle,
        const ShortcutList& shortcuts, const QString& parentWindow, const QVariantMap& options, QVariantMap& results)
    {
        static_cast<void>(handle);
        static_cast<void>(sessionHandle);
        static_cast<void>(parentWindow);
        static_cast<void>(options);
        ShortcutList bound;
        for (const Shortcut& shortcut : shortcuts) {
            const QString trigger = shortcut.properties.value(u"preferred_trigger"_s).toString();
            std::printf("bound %s %s|%s\n", qPrintable(shortcut.id), qPrintable(trigger),
                qPrintable(shortcut.properties.value(u"description"_s).toString()));
            boundId = shortcut.id;
            boundDescription = shortcut.properties.value(u"description"_s);
            bound.append({ shortcut.id,
                { { u"description"_s, shortcut.properties.value(u"description"_s) },
                    { u"trigger_description"_s, trigger } } });
        }
        remembered.insert(sessionAppId, bound);
        results = { { u"shortcuts"_s, QVariant::fromValue(bound) } };
        return 0;
    }

    uint ListShortcuts(const QDBusObjectPath& handle, const QDBusObjectPath& sessionHandle, QVariantMap& results)
    {
        static_cast<void>(handle);
        static_cast<void>(sessionHandle);
        const ShortcutList listed = remembered.value(sessionAppId);
        QStringList ids;
        for (const Shortcut& shortcut : listed)
            ids << shortcut.id;
        std::printf("listed %s\n", qPrintable(ids.join(u',')));
        results = { { u"shortcuts"_s, QVariant::fromValue(listed) } };
        return 0;
    }

Q_SIGNALS:
    void Activated(const QDBusObjectPath& session_handle, const QString& shortcut_id, qulonglong timestamp,
        const QVariantMap& options);
    void Deactivated(const QDBusObjectPath& session_handle, const QString& shortcut_id, qulonglong timestamp,
        const QVariantMap& options);
    void ShortcutsChanged(const QDBusObjectPath& session_handle, const ShortcutList& shortcuts);
};

// The frontend's stand-in: every call to org.freedesktop.portal.Desktop, in the order it came.
class RecordingFrontend : public QDBusVirtualObject
{
public:
    QList<QDBusMessage> heldRegistrations;

    QString introspect(const QString& path) const override
    {
        static_cast<void>(path);
        return QString();
    }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        if (message.type() != QDBusMessage::MethodCallMessage)
            return false;
        if (message.interface() == u"org.freedesktop.host.portal.Registry"_s && message.member() == u"Register"_s) {
            std::printf("register %s\n", qPrintable(message.arguments().value(0).toString()));
            message.setDelayedReply(true);
            heldRegistrations.append(message);
            return true;
        }
        std::printf("call %s.%s\n", qPrintable(message.interface()), qPrintable(message.member()));
        connection.send(message.createErrorReply(QDBusError::NotSupported, u"not in this test"_s));
        return true;
    }
};

int runFrontend()
{
    RecordingFrontend frontend;
    QDBusConnection bus = QDBusConnection::sessionBus();
    // The real frontend may have been started by the bus already; it lets itself be replaced.
    if (!bus.registerVirtualObject(u"/org/freedesktop/portal/desktop"_s, &frontend)
        || bus.interface()->registerService(u"org.freedesktop.portal.Desktop"_s,
               QDBusConnectionInterface::ReplaceExistingService, QDBusConnectionInterface::AllowReplacement)
            != QDBusConnectionInterface::ServiceRegistered) {
        std::fprintf(stderr, "fake-shortcuts-portal: %s\n", qPrintable(bus.lastError().message()));
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
        if (QByteArray(line, got).contains("answer")) {
            for (const QDBusMessage& held : std::as_const(frontend.heldRegistrations))
                QDBusConnection::sessionBus().send(held.createReply());
            frontend.heldRegistrations.clear();
        }
    });
    return QCoreApplication::exec();
}

int main(int argc, char* argv[])
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    QCoreApplication app(argc, argv);
    if (app.arguments().contains(u"--frontend"_s))
        return runFrontend();
    qDBusRegisterMetaType<Shortcut>();
    qDBusRegisterMetaType<ShortcutList>();
    ShortcutsBackend backend;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(u"/org/freedesktop/portal/desktop"_s, &backend,
            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals | QDBusConnection::ExportAllProperties)
        || !bus.registerService(u"org.freedesktop.impl.portal.desktop.quillettest"_s)) {
        std::fprintf(stderr, "fake-shortcuts-portal: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    std::printf("ready\n");

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &backend, [&] {
        char line[64] = {};
        const ssize_t got = read(STDIN_FILENO, line, sizeof line - 1);
        if (got <= 0) {
            QCoreApplication::quit();
            return;
        }
        const QByteArray commands(line, got);
        for (const QByteArray& command : commands.split('\n')) {
            const qulonglong now = qulonglong(QDateTime::currentMSecsSinceEpoch());
            if (command == "press")
                Q_EMIT backend.Activated(backend.session, backend.boundId, now, {});
            else if (command == "release")
                Q_EMIT backend.Deactivated(backend.session, backend.boundId, now, {});
            else if (command.startsWith("rebind ")) {
                const ShortcutList rebound { { backend.boundId,
                    { { u"description"_s, backend.boundDescription },
                        { u"trigger_description"_s, QString::fromUtf8(command.mid(7)) } } } };
                backend.remembered.insert(backend.sessionAppId, rebound);
                Q_EMIT backend.ShortcutsChanged(backend.session, rebound);
            }
        }
    });
    return QCoreApplication::exec();
}

#include "fake-shortcuts-portal.moc"
