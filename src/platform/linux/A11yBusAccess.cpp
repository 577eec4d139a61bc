#include "platform/linux/A11yBusAccess.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QPromise>

using namespace Qt::StringLiterals;

namespace {

const QString kService = u"org.a11y.Bus"_s;
const QString kPath = u"/org/a11y/bus"_s;
const QString kStatus = u"org.a11y.Status"_s;
const QString kProperties = u"org.freedesktop.DBus.Properties"_s;

// Sends `message` without waiting and resolves the future with answer(reply) on
// the thread that made the call; an error reply, a missing bus or the timeout is false.
QFuture<bool> callAsync(const QDBusMessage& message, int timeoutMs, bool (*answer)(const QDBusMessage&))
{
    auto promise = std::make_shared<QPromise<bool>>();
    QFuture<bool> future = promise->future();
    promise->start();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        promise->addResult(false);
        promise->finish();
        return future;
    }
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(message, timeoutMs));
    QObject::connect(
        watcher, &QDBusPendingCallWatcher::finished, watcher, [promise, answer](QDBusPendingCallWatcher* call) {
            const QDBusMessage reply = call->reply();
            promise->addResult(reply.type() == QDBusMessage::ReplyMessage && answer(reply));
            promise->finish();
            call->deleteLater();
        });
    return future;
}

} // namespace

A11yBusAccess::A11yBusAccess(int timeoutMs)
    : m_timeoutMs(timeoutMs)
{ }

QFuture<bool> A11yBusAccess::isTrusted()
{
    QDBusMessage get = QDBusMessage::createMethodCall(kService, kPath, kProperties, u"Get"_s);
    get << kStatus << u"IsEnabled"_s;
    return callAsync(get, m_timeoutMs, [](const QDBusMessage& reply) {
        const QVariantList args = reply.arguments();
        return !args.isEmpty() && args.first().value<QDBusVariant>().variant().toBool();
    });
}

QFuture<bool> A11yBusAccess::enable()
{
    QDBusMessage set = QDBusMessage::createMethodCall(kService, kPath, kProperties, u"Set"_s);
    set << kStatus << u"IsEnabled"_s << QVariant::fromValue(QDBusVariant(true));
    return callAsync(set, m_timeoutMs, [](const QDBusMessage&) { return true; });
}

std::shared_ptr<AccessibilityAccess> makeSystemAccessibilityAccess()
{
    return std::make_shared<A11yBusAccess>();
}
