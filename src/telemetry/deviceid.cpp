// SPDX-License-Identifier: MIT
#include "telemetry/deviceid.h"

#include "catalog/debugflags.h"
#include "catalog/settingsstore.h"

#include <QCryptographicHash>
#include <QFile>
#include <QUuid>

QString DeviceID::value() {
    static const QString id = compute(readMachineSerial(), DebugFlags::settings());
    return id;
}

QString DeviceID::compute(const std::optional<QString>& serial, SettingsStore& settings) {
    if (serial && !serial->isEmpty())
        return hash(QStringLiteral("glimmet.device.v1:") + *serial);
    return settings.stringOrInsert(QStringLiteral("deviceIDFallback"), [] {
        return hash(QUuid::createUuid().toString(QUuid::WithoutBraces));
    });
}

QString DeviceID::hash(const QString& text) {
    const QByteArray digest = QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256);
    return QString::fromLatin1(digest.left(16).toHex());
}

std::optional<QString> DeviceID::readMachineSerial() {
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        QFile file{QString::fromLatin1(path)};
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QString id = QString::fromUtf8(file.readAll()).trimmed();
        if (!id.isEmpty())
            return id;
    }
    return std::nullopt;
}
