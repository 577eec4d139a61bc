#include "platform/linux/PortalRegistration.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QList>
#include <QPointer>
#include <QTimer>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

struct Waiting {
    QPointer<QObject> context;
    std::function<void()> then;
};

enum class Registration { notSent, sent, answered };

Registration registration = Registration::notSent;

QList<Waiting>& waiting()
{
    static QList<Waiting> list;
    return list;
}

void runWaiting()
{
    const QList<Waiting> ready = std::exchange(waiting(), {});
    for (const Waiting& next : ready) {
        if (next.context)
            next.then();
    }
}

} // namespace

void afterPortalRegistration(QObject* context, std::function<void()> then)
{
    if (registration == Registration::answered) {
        QTimer::singleShot(0, context, std::move(then));
        return;
    }
    waiting().append({ context, std::move(then) });
    if (registration == Registration::sent)
        return;
    registration = Registration::sent;
    // The name of the installed desktop entry, as the portal expects.
    QDBusMessage call = QDBusMessage::createMethodCall(u"org.freedesktop.portal.Desktop"_s,
        u"/org/freedesktop/portal/desktop"_s, u"org.freedesktop.host.portal.Registry"_s, u"Register"_s);
    call << QStringLiteral(QUILLET_APP_ID) << QVariantMap();
    auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call, 2000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [](QDBusPendingCallWatcher* answered) {
        answered->deleteLater();
        registration = Registration::answered;
        runWaiting();
    });
}
