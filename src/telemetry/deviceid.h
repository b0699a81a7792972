// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <optional>

class SettingsStore;

// A stable, anonymous id of this machine: 32 lower-case hex digits. The raw machine id
// never leaves the process.
class DeviceID {
public:
    // Computed once per run from the machine id, else the stored fallback.
    static QString value();

    // The rule behind value(), with its inputs passed in.
    static QString compute(const std::optional<QString>& machineSerial, SettingsStore& settings);
    // First 16 bytes of SHA-256 over the UTF-8 of `text`, as lower-case hex.
    static QString hash(const QString& text);
    // /etc/machine-id, else /var/lib/dbus/machine-id; absent when neither has content.
    static std::optional<QString> readMachineSerial();
};
