// SPDX-License-Identifier: MIT
#pragma once

#include <QFutureWatcher>
#include <QObject>
#include <QPromise>
#include <QThreadPool>
#include <memory>

// Runs `work` on the global thread pool, then `then(result)` on `context`'s thread.
// If `context` is destroyed first, `then` never runs; `work` must not touch `context`.
template <typename Work, typename Then>
void runInBackground(QObject* context, Work work, Then then) {
    using Result = std::invoke_result_t<Work>;
    auto promise = std::make_shared<QPromise<Result>>();
    auto* watcher = new QFutureWatcher<Result>(context);
    QObject::connect(watcher, &QFutureWatcher<Result>::finished, context,
                     [watcher, then = std::move(then)]() mutable {
                         watcher->deleteLater();
                         then(watcher->result());
                     });
    watcher->setFuture(promise->future());
    QThreadPool::globalInstance()->start([promise, work = std::move(work)]() mutable {
        promise->start();
        promise->addResult(work());
        promise->finish();
    });
}
