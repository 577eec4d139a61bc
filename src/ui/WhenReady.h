#pragma once

#include <QFuture>
#include <QFutureWatcher>
#include <QObject>

#include <utility>

// Calls onResult with the future's result on context's thread, or never once context
// is gone. QFuture::then(context, …) of Qt 6.4 asserts when the context dies before
// the future finishes, which a window closed during a query does.
template <typename T, typename F> void whenReady(QFuture<T> future, QObject* context, F onResult)
{
    auto* watcher = new QFutureWatcher<T>(context);
    QObject::connect(
        watcher, &QFutureWatcherBase::finished, context, [watcher, onResult = std::move(onResult)]() mutable {
            if (watcher->future().resultCount() > 0)
                onResult(watcher->result());
            watcher->deleteLater();
        });
    watcher->setFuture(std::move(future));
}
