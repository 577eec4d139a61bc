// The tray menu as a desktop shell sees it: over the session bus, through the
// StatusNotifierItem the panel would show and the com.canonical.dbusmenu object it
// would draw. The test process plays the shell's part itself: a watcher on a
// thread of its own (Qt asks it questions with blocking calls from the main
// thread while the icon is being set up) and a host that reads and clicks the menu.

#include "app/MenuBarController.h"
#include "services/KeychainHelper.h"

#include "MemorySecretStore.h"
#include "StdoutCapture.h"

#include <QAction>
#include <QApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QThread>
#include <QtTest>

#include <memory>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

const QString watcherService = u"org.kde.StatusNotifierWatcher"_s;
const QString watcherPath = u"/StatusNotifierWatcher"_s;
const QString itemInterface = u"org.kde.StatusNotifierItem"_s;
const QString menuInterface = u"com.canonical.dbusmenu"_s;

using Shortcut = QList<QStringList>;

} // namespace

// The panel side of the StatusNotifierItem protocol: items and hosts announce
// themselves here. It lives on its own thread, so it answers while the main
// thread is blocked inside Qt's tray set-up.
class StatusNotifierWatcher : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
public:
    QStringList registeredItems() const { return m_items; }
    bool isHostRegistered() const { return !m_hosts.isEmpty(); }
    int protocolVersion() const { return 0; }

public Q_SLOTS:
    // An item passes either its bus name (the object is then at /StatusNotifierItem)
    // or an object path on the caller's own connection.
    void RegisterStatusNotifierItem(const QString& serviceOrPath, const QDBusMessage& message)
    {
        const QString item = serviceOrPath.startsWith(u'/') ? message.service() + serviceOrPath
                                                            : serviceOrPath + u"/StatusNotifierItem"_s;
        if (m_items.contains(item))
            return;
        m_items.append(item);
        Q_EMIT StatusNotifierItemRegistered(item);
    }
    void RegisterStatusNotifierHost(const QString& service)
    {
        if (m_hosts.contains(service))
            return;
        m_hosts.append(service);
        Q_EMIT StatusNotifierHostRegistered();
    }

Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString& item);
    void StatusNotifierItemUnregistered(const QString& item);
    void StatusNotifierHostRegistered();
    void StatusNotifierHostUnregistered();

private:
    QStringList m_items;
    QStringList m_hosts;
};

class RecordingDelegate : public QObject, public MenuBarDelegate
{
    Q_OBJECT
public:
    void showSettings() override { ++settingsShown; }
    void menuBarDidSelectSignIn() override { ++signInSelected; }

    int settingsShown = 0;
    int signInSelected = 0;
};

// One node of a dbusmenu layout, as GetLayout returns it: (ia{sv}av).
struct LayoutItem {
    int id = -1;
    QVariantMap properties;
    QList<LayoutItem> children;
};

static void readLayoutItem(const QDBusArgument& argument, LayoutItem& item)
{
    argument.beginStructure();
    argument >> item.id;
    argument.beginMap();
    while (!argument.atEnd()) {
        QString key;
        QDBusVariant value;
        argument.beginMapEntry();
        argument >> key >> value;
        argument.endMapEntry();
        item.properties.insert(key, value.variant());
    }
    argument.endMap();
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        LayoutItem childItem;
        readLayoutItem(qvariant_cast<QDBusArgument>(child.variant()), childItem);
        item.children.append(childItem);
    }
    argument.endArray();
    argument.endStructure();
}

// A label as a dbusmenu host draws it: "_x" marks x as the mnemonic, "__" is one underscore.
static QString dbusmenuDisplayedLabel(const QString& label)
{
    QString shown;
    for (qsizetype i = 0; i < label.size(); ++i) {
        if (label.at(i) == u'_' && i + 1 < label.size())
            ++i;
        shown.append(label.at(i));
    }
    return shown;
}

// An action text as a QMenu draws it: "&x" marks x as the mnemonic, "&&" is one ampersand.
static QString qtDisplayedText(const QString& text)
{
    QString shown;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text.at(i) == u'&' && i + 1 < text.size())
            ++i;
        shown.append(text.at(i));
    }
    return shown;
}

// What a host reads off one menu entry: its drawn label ("-" for a separator), whether
// it can be chosen, and its key shortcut.
struct Entry {
    QString label;
    bool enabled = true;
    Shortcut shortcut;

    bool operator==(const Entry&) const = default;
};

namespace QTest {
template <> char* toString(const Entry& entry)
{
    QString text = entry.label + (entry.enabled ? u""_s : u" (disabled)"_s);
    for (const QStringList& chord : entry.shortcut)
        text += u" ["_s + chord.join(u'+') + u']';
    return qstrdup(text.toUtf8().constData());
}
} // namespace QTest

static const Entry separator { u"-"_s, true, {} };

static QList<Entry> signedInMenu()
{
    return {
        { u"Quillet — Active"_s, false, {} },
        separator,
        { u"History"_s, true, { { u"Control"_s, u"H"_s } } },
        separator,
        { u"Account & Billing…"_s, true, {} },
        { u"Sign out"_s, true, {} },
        separator,
        { u"Settings…"_s, true, { { u"Control"_s, u","_s } } },
        separator,
        { u"Quit Quillet"_s, true, { { u"Control"_s, u"Q"_s } } },
    };
}

static QList<Entry> signedOutMenu()
{
    return {
        { u"Quillet"_s, false, {} },
        separator,
        { u"History"_s, true, { { u"Control"_s, u"H"_s } } },
        separator,
        { u"Sign in…"_s, true, {} },
        separator,
        { u"Settings…"_s, true, { { u"Control"_s, u","_s } } },
        separator,
        { u"Quit Quillet"_s, true, { { u"Control"_s, u"Q"_s } } },
    };
}

static QList<Entry> menuEntries(const QMenu& menu)
{
    QList<Entry> entries;
    for (const QAction* action : menu.actions()) {
        if (action->isSeparator()) {
            entries.append(separator);
            continue;
        }
        Shortcut shortcut;
        // The same spelling dbusmenu uses, so both views compare against one table.
        for (int i = 0; i < action->shortcut().count(); ++i) {
            const QKeyCombination combination = action->shortcut()[i];
            QStringList chord;
            if (combination.keyboardModifiers() & Qt::ControlModifier)
                chord.append(u"Control"_s);
            chord.append(QKeySequence(combination.key()).toString(QKeySequence::PortableText));
            shortcut.append(chord);
        }
        entries.append({ qtDisplayedText(action->text()), action->isEnabled(), shortcut });
    }
    return entries;
}

class TestMenuBar : public QObject
{
    Q_OBJECT

    // The status item as the watcher recorded it: bus name and object path.
    QString m_itemService;
    QString m_itemPath;
    QString m_menuPath;

    static QDBusMessage call(const QDBusMessage& message)
    {
        // BlockWithGui: the menu's adaptor lives on this thread and must answer while we wait.
        return QDBusConnection::sessionBus().call(message, QDBus::BlockWithGui);
    }

    static std::optional<QVariant> property(
        const QString& service, const QString& path, const QString& interface, const QString& name)
    {
        QDBusMessage get
            = QDBusMessage::createMethodCall(service, path, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
        get << interface << name;
        const QDBusMessage reply = call(get);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 1) {
            qWarning() << "Get" << interface << name << "failed:" << reply.errorName() << reply.errorMessage();
            return std::nullopt;
        }
        return qvariant_cast<QDBusVariant>(reply.arguments().first()).variant();
    }

    static QStringList registeredItems()
    {
        const auto items = property(watcherService, watcherPath, watcherService, u"RegisteredStatusNotifierItems"_s);
        return items ? qdbus_cast<QStringList>(*items) : QStringList();
    }

    std::optional<LayoutItem> layout()
    {
        QDBusMessage getLayout
            = QDBusMessage::createMethodCall(m_itemService, m_menuPath, menuInterface, u"GetLayout"_s);
        getLayout << 0 << -1 << QStringList();
        const QDBusMessage reply = call(getLayout);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2) {
            qWarning() << "GetLayout failed:" << reply.errorName() << reply.errorMessage();
            return std::nullopt;
        }
        LayoutItem root;
        readLayoutItem(qvariant_cast<QDBusArgument>(reply.arguments().at(1)), root);
        return root;
    }

    static QList<Entry> layoutEntries(const LayoutItem& root)
    {
        QList<Entry> entries;
        for (const LayoutItem& child : root.children) {
            if (!child.properties.value(u"visible"_s, true).toBool())
                continue;
            if (child.properties.value(u"type"_s).toString() == u"separator"_s) {
                entries.append(separator);
                continue;
            }
            Shortcut shortcut;
            if (child.properties.contains(u"shortcut"_s))
                shortcut = qdbus_cast<Shortcut>(child.properties.value(u"shortcut"_s));
            entries.append({ dbusmenuDisplayedLabel(child.properties.value(u"label"_s).toString()),
                child.properties.value(u"enabled"_s, true).toBool(), shortcut });
        }
        return entries;
    }

    static int idOf(const LayoutItem& root, const QString& label)
    {
        for (const LayoutItem& child : root.children) {
            if (dbusmenuDisplayedLabel(child.properties.value(u"label"_s).toString()) == label)
                return child.id;
        }
        return -1;
    }

    // What a panel sends when the user picks an entry.
    bool click(int id)
    {
        QDBusMessage event = QDBusMessage::createMethodCall(m_itemService, m_menuPath, menuInterface, u"Event"_s);
        event << id << u"clicked"_s << QVariant::fromValue(QDBusVariant(QVariant(0))) << uint(0);
        const QDBusMessage reply = call(event);
        if (reply.type() != QDBusMessage::ReplyMessage) {
            qWarning() << "Event failed:" << reply.errorName() << reply.errorMessage();
            return false;
        }
        return true;
    }

    static QAction* actionNamed(const QMenu* menu, const QString& shown)
    {
        for (QAction* action : menu->actions()) {
            if (qtDisplayedText(action->text()) == shown)
                return action;
        }
        return nullptr;
    }

private Q_SLOTS:
    void initTestCase() { qDBusRegisterMetaType<Shortcut>(); }

    void trayMenuAsTheShellSeesIt()
    {
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.isConnected());
        QVERIFY2(!bus.interface()->isServiceRegistered(watcherService).value(),
            "another StatusNotifierWatcher is on the session bus");

        // The panel comes first: a watcher with a host registered on it. The watcher has a
        // connection of its own, as a panel would: calls to a name of this process's shared
        // connection would be short-cut inside the process instead of travelling over the bus.
        const QString watcherConnection = u"status-notifier-watcher"_s;
        QThread watcherThread;
        auto* watcher = new StatusNotifierWatcher;
        watcher->moveToThread(&watcherThread);
        connect(&watcherThread, &QThread::finished, watcher, &QObject::deleteLater);
        watcherThread.start();
        auto stopWatcher = qScopeGuard([&] {
            QDBusConnection::disconnectFromBus(watcherConnection);
            watcherThread.quit();
            watcherThread.wait();
        });
        // Exporting signals gives the object a helper child, which must be made on the object's own thread.
        bool exported = false;
        QMetaObject::invokeMethod(
            watcher,
            [watcher, &exported, &watcherConnection] {
                QDBusConnection own = QDBusConnection::connectToBus(QDBusConnection::SessionBus, watcherConnection);
                exported = own.isConnected()
                    && own.registerObject(watcherPath, watcher,
                        QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals
                            | QDBusConnection::ExportAllProperties)
                    && own.registerService(watcherService);
            },
            Qt::BlockingQueuedConnection);
        QVERIFY(exported);

        const QString hostService = u"org.kde.StatusNotifierHost-%1"_s.arg(QCoreApplication::applicationPid());
        QVERIFY(bus.registerService(hostService));
        QDBusMessage registerHost = QDBusMessage::createMethodCall(
            watcherService, watcherPath, watcherService, u"RegisterStatusNotifierHost"_s);
        registerHost << hostService;
        QCOMPARE(call(registerHost).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(property(watcherService, watcherPath, watcherService, u"IsStatusNotifierHostRegistered"_s)
                     .value_or(QVariant()),
            QVariant(true));
        QCOMPARE(registeredItems(), QStringList());

        auto storeOwner = std::make_unique<MemorySecretStore>();
        MemorySecretStore* store = storeOwner.get();
        KeychainHelper::setStore(std::move(storeOwner));
        auto restoreStore = qScopeGuard([] { KeychainHelper::setStore(nullptr); });
        KeychainHelper::save(KeychainHelper::accessTokenKey, u"access-token"_s);
        KeychainHelper::save(KeychainHelper::refreshTokenKey, u"refresh-token"_s);
        QVERIFY(store->items.contains(u"quillet.access_token"_s));
        QVERIFY(store->items.contains(u"quillet.refresh_token"_s));

        RecordingDelegate delegate;
        StdoutCapture output;
        MenuBarController controller(&delegate, &delegate);
        controller.configure();

        QVERIFY(QSystemTrayIcon::isSystemTrayAvailable());
        for (const QString& line : output.lines())
            QVERIFY2(!line.contains(u"no system tray"_s), qPrintable(line));

        // The item registers with the watcher under its own bus name.
        QTRY_COMPARE(registeredItems().size(), 1);
        const QString item = registeredItems().first();
        const qsizetype slash = item.indexOf(u'/');
        QVERIFY2(slash > 0, qPrintable(item));
        m_itemService = item.left(slash);
        m_itemPath = item.mid(slash);
        QCOMPARE(m_itemPath, u"/StatusNotifierItem"_s);

        const auto menuPath = property(m_itemService, m_itemPath, itemInterface, u"Menu"_s);
        QVERIFY(menuPath);
        m_menuPath = qvariant_cast<QDBusObjectPath>(*menuPath).path();
        QVERIFY2(m_menuPath.startsWith(u'/') && m_menuPath != u"/NO_DBUSMENU"_s, qPrintable(m_menuPath));

        // The tooltip is (icon name, icon pixmaps, title, text).
        const auto toolTip = property(m_itemService, m_itemPath, itemInterface, u"ToolTip"_s);
        QVERIFY(toolTip);
        {
            const QDBusArgument argument = qvariant_cast<QDBusArgument>(*toolTip);
            QString iconName, title, text;
            argument.beginStructure();
            argument >> iconName;
            argument.beginArray();
            while (!argument.atEnd()) {
                argument.beginStructure();
                int width = 0, height = 0;
                QByteArray data;
                argument >> width >> height >> data;
                argument.endStructure();
            }
            argument.endArray();
            argument >> title >> text;
            argument.endStructure();
            QCOMPARE(title, u"Quillet"_s);
        }
        QCOMPARE(property(m_itemService, m_itemPath, itemInterface, u"Status"_s).value_or(QVariant()),
            QVariant(u"Active"_s));

        // The microphone reaches the panel either by theme name or as pixels (ARGB32, network order).
        const auto iconName = property(m_itemService, m_itemPath, itemInterface, u"IconName"_s);
        const auto iconPixmap = property(m_itemService, m_itemPath, itemInterface, u"IconPixmap"_s);
        QVERIFY(iconName && iconPixmap);
        if (iconName->toString().isEmpty()) {
            const QDBusArgument argument = qvariant_cast<QDBusArgument>(*iconPixmap);
            int images = 0;
            bool anyOpaque = false;
            argument.beginArray();
            while (!argument.atEnd()) {
                int width = 0, height = 0;
                QByteArray data;
                argument.beginStructure();
                argument >> width >> height >> data;
                argument.endStructure();
                QVERIFY(width > 0 && height > 0);
                QCOMPARE(data.size(), qsizetype(width) * height * 4);
                for (qsizetype i = 0; i < data.size(); i += 4)
                    anyOpaque = anyOpaque || data.at(i) != 0;
                ++images;
            }
            argument.endArray();
            QVERIFY2(images > 0, "the item exports neither an icon name nor pixels");
            QVERIFY2(anyOpaque, "the exported icon is fully transparent");
        }

        // The token store answers on its own thread; the menu follows once it has.
        QTRY_COMPARE(controller.credentials(), MenuBarController::Credentials::SignedIn);
        auto signedIn = layout();
        QVERIFY(signedIn);
        QCOMPARE(signedIn->id, 0);
        QCOMPARE(layoutEntries(*signedIn), signedInMenu());

        // Settings…: the delegate is asked once.
        const int settingsId = idOf(*signedIn, u"Settings…"_s);
        QVERIFY(settingsId > 0);
        QVERIFY(click(settingsId));
        QTRY_COMPARE(delegate.settingsShown, 1);
        QCOMPARE(delegate.signInSelected, 0);

        // Sign out: both tokens go and the menu becomes the signed-out form.
        const int signOutId = idOf(*signedIn, u"Sign out"_s);
        QVERIFY(signOutId > 0);
        QVERIFY(click(signOutId));
        QTRY_COMPARE(controller.credentials(), MenuBarController::Credentials::SignedOut);
        QVERIFY(!store->items.contains(u"quillet.access_token"_s));
        QVERIFY(!store->items.contains(u"quillet.refresh_token"_s));
        QCOMPARE(property(m_itemService, m_itemPath, itemInterface, u"Menu"_s)
                     .value_or(QVariant())
                     .value<QDBusObjectPath>()
                     .path(),
            m_menuPath);
        auto signedOut = layout();
        QVERIFY(signedOut);
        QCOMPARE(layoutEntries(*signedOut), signedOutMenu());
        QCOMPARE(menuEntries(*controller.menu()), signedOutMenu());

        // History: the click reaches the action and nothing follows. The Settings… click
        // sent after it is handled after it, so once that one has arrived, History's is done.
        QAction* history = actionNamed(controller.menu(), u"History"_s);
        QVERIFY(history);
        QSignalSpy historyTriggered(history, &QAction::triggered);
        const int historyId = idOf(*signedOut, u"History"_s);
        QVERIFY(historyId > 0);
        QVERIFY(click(historyId));
        QVERIFY(click(idOf(*signedOut, u"Settings…"_s)));
        QTRY_COMPARE(delegate.settingsShown, 2);
        QCOMPARE(historyTriggered.size(), 1);
        QCOMPARE(delegate.signInSelected, 0);
        auto afterHistory = layout();
        QVERIFY(afterHistory);
        QCOMPARE(layoutEntries(*afterHistory), signedOutMenu());

        // Sign in…: the delegate opens the sign-in page.
        const int signInId = idOf(*signedOut, u"Sign in…"_s);
        QVERIFY(signInId > 0);
        QVERIFY(click(signInId));
        QTRY_COMPARE(delegate.signInSelected, 1);
        QCOMPARE(delegate.settingsShown, 2);
        QVERIFY(store->items.isEmpty());
    }

    // Run on its own (ctest does): Qt picks the kind of tray once per process.
    void withoutAnyTray()
    {
        if (!m_itemService.isEmpty())
            QSKIP("this process has already set up a D-Bus tray; run this function on its own");
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.isConnected());
        QVERIFY(!bus.interface()->isServiceRegistered(watcherService).value());
        QVERIFY(!QSystemTrayIcon::isSystemTrayAvailable());

        auto storeOwner = std::make_unique<MemorySecretStore>();
        MemorySecretStore* store = storeOwner.get();
        KeychainHelper::setStore(std::move(storeOwner));
        auto restoreStore = qScopeGuard([] { KeychainHelper::setStore(nullptr); });
        KeychainHelper::save(KeychainHelper::accessTokenKey, u"access-token"_s);

        RecordingDelegate delegate;
        StdoutCapture output;
        MenuBarController controller(&delegate, &delegate);
        controller.configure();
        QCOMPARE(output.lines(),
            QStringList { u"⚠️ [Quillet] no system tray on this desktop: the menu appears when a tray starts; "
                          "dictation works without it"_s });

        QVERIFY(controller.menu());
        QCOMPARE(controller.statusItem()->contextMenu(), controller.menu());
        // The token store answers on its own thread; the menu follows once it has.
        QTRY_COMPARE(menuEntries(*controller.menu()), signedInMenu());
        QCOMPARE(controller.statusItem()->contextMenu(), controller.menu());

        QAction* settings = actionNamed(controller.menu(), u"Settings…"_s);
        QVERIFY(settings);
        settings->trigger();
        QCOMPARE(delegate.settingsShown, 1);

        // Sign out chosen with the mouse in the open menu, the way a user of an XEmbed tray
        // does: the menu being clicked is replaced while it is still handling the click.
        QPointer<QMenu> openMenu = controller.menu();
        QAction* signOut = actionNamed(openMenu, u"Sign out"_s);
        QVERIFY(signOut);
        openMenu->popup(QPoint(100, 100));
        QVERIFY(QTest::qWaitForWindowExposed(openMenu));
        QTest::mouseClick(openMenu, Qt::LeftButton, {}, openMenu->actionGeometry(signOut).center());
        QTRY_VERIFY(openMenu.isNull());
        QTRY_COMPARE(menuEntries(*controller.menu()), signedOutMenu());
        QVERIFY(!KeychainHelper::load(KeychainHelper::accessTokenKey));
        QCOMPARE(controller.statusItem()->contextMenu(), controller.menu());

        // Rebuilding does not repeat the warning.
        controller.rebuildMenu();
        QTRY_COMPARE(controller.credentials(), MenuBarController::Credentials::SignedOut);
        QCOMPARE(output.lines().size(), 1);

        // Signed in again, then the keyring locks (as after a suspend): the menu says so
        // instead of offering a sign-in as if the user had signed out.
        // (The blocking save returns once the keychain thread is idle, so the flag is safe to set.)
        KeychainHelper::save(KeychainHelper::accessTokenKey, u"access-token"_s);
        store->locked = true;
        controller.rebuildMenu();
        QTRY_COMPARE(controller.credentials(), MenuBarController::Credentials::KeyringLocked);
        QList<Entry> locked = signedOutMenu();
        locked.first().label = u"Quillet — Keyring Locked"_s;
        QCOMPARE(menuEntries(*controller.menu()), locked);
    }
};

QTEST_MAIN(TestMenuBar)
#include "tst_menubar.moc"
