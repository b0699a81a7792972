// SPDX-License-Identifier: MIT
#include "base/memorytrim.h"

#include <QCoreApplication>
#include <QPointer>
#include <QThreadPool>
#include <QTimer>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

// Long enough for the work that asked (a load, a hide) to have freed its temporaries.
constexpr int quietMs = 1000;

} // namespace

void MemoryTrim::limitArenas() {
#ifdef __GLIBC__
    mallopt(M_ARENA_MAX, 2);
#endif
}

void MemoryTrim::now() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

void MemoryTrim::soon() {
    QCoreApplication* app = QCoreApplication::instance();
    if (!app)
        return;
    QMetaObject::invokeMethod(
        app,
        [app] {
            static QPointer<QTimer> timer;
            if (!timer) {
                timer = new QTimer(app);
                timer->setSingleShot(true);
                timer->setInterval(quietMs);
                QObject::connect(timer, &QTimer::timeout, app,
                                 [] { QThreadPool::globalInstance()->start(&MemoryTrim::now); });
            }
            timer->start();
        },
        Qt::QueuedConnection);
}
