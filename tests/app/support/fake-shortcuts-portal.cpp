// A GlobalShortcuts portal backend (org.freedesktop.impl.portal.GlobalShortcuts) that
// the real xdg-desktop-portal frontend talks to, driven by a test over standard input:
//   press | release        the bound shortcut goes down or up (Activated, Deactivated)
//   rebind <trigger>       the user gave the shortcut another key (ShortcutsChanged)
// It writes one line per event:
//   ready                  its bus name is taken
//   session <app id>       a client created a session (app id empty when unsandboxed)
//   bound <id> <preferred trigger>|<description>
// Every shortcut is bound to its preferred trigger, as a desktop without a dialog would.
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDateTime>
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
    QString boundId;
    QVariant boundDescription;

public Q_SLOTS:
    uint CreateSession(const QDBusObjectPath& handle, const QDBusObjectPath& sessionHandle, const QString& appId,
        const QVariantMap& options, QVariantMap& results)
    {
        static_cast<void>(handle);
        static_cast<void>(options);
        session = sessionHandle;
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
        results = { { u"shortcuts"_s, QVariant::fromValue(bound) } };
        return 0;
    }

    uint ListShortcuts(const QDBusObjectPath& handle, const QDBusObjectPath& sessionHandle, QVariantMap& results)
    {
        static_cast<void>(handle);
        static_cast<void>(sessionHandle);
        results = QVariantMap();
        return 0;
    }

Q_SIGNALS:
    void Activated(const QDBusObjectPath& session_handle, const QString& shortcut_id, qulonglong timestamp,
        const QVariantMap& options);
    void Deactivated(const QDBusObjectPath& session_handle, const QString& shortcut_id, qulonglong timestamp,
        const QVariantMap& options);
    void ShortcutsChanged(const QDBusObjectPath& session_handle, const ShortcutList& shortcuts);
};

int main(int argc, char* argv[])
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    QCoreApplication app(argc, argv);
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
            else if (command.startsWith("rebind "))
                Q_EMIT backend.ShortcutsChanged(backend.session,
                    { { backend.boundId,
                        { { u"description"_s, backend.boundDescription },
                            { u"trigger_description"_s, QString::fromUtf8(command.mid(7)) } } } });
        }
    });
    return QCoreApplication::exec();
}

#include "fake-shortcuts-portal.moc"
