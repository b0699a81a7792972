// SPDX-License-Identifier: MIT
#include "app/singleinstance.h"

#include "base/logcategories.h"

#include <QDBusConnection>
#include <QDBusMessage>

namespace {
// Long enough for a busy first instance, short enough that a hung one does not leave the
// launcher waiting.
constexpr int showCallTimeoutMs = 5000;
} // namespace

SingleInstance::Claim SingleInstance::claim() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        qCWarning(lcApp).noquote()
            << "No session bus, so a second Orvane is not detected:" << bus.lastError().message();
        return Claim::noBus;
    }
    // The object first: a launch racing this one may call Show as soon as the name is ours.
    const QString path = QLatin1String(objectPath);
    bus.registerObject(path, this, QDBusConnection::ExportScriptableSlots);
    if (bus.registerService(QLatin1String(serviceName)))
        return Claim::owned;
    bus.unregisterObject(path);

    const QDBusMessage reply =
        bus.call(QDBusMessage::createMethodCall(QLatin1String(serviceName), path,
                                                QLatin1String(serviceName), QStringLiteral("Show")),
                 QDBus::Block, showCallTimeoutMs);
    if (reply.type() == QDBusMessage::ReplyMessage)
        return Claim::forwarded;
    qCWarning(lcApp).noquote() << "Orvane is already running but did not answer:"
                               << reply.errorMessage();
    return Claim::failed;
}

void SingleInstance::Show() {
    emit showRequested();
}
