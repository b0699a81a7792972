// SPDX-License-Identifier: MIT
// settings.json: the store loads whatever is in the file and answers every typed read.
// The input goes through an in-memory file, so the store reads it exactly as from disk.
#include "catalog/settingsstore.h"

#include <QStringList>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("settings.json", 0);
    static const QString path = QStringLiteral("/proc/self/fd/%1").arg(fd);
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != ssize_t(size))
        std::abort();

    const SettingsStore store(path);
    QStringList keys = {QStringLiteral("cacheMB"),     QStringLiteral("restoreDelayMs"),
                        QStringLiteral("dragPayload"), QStringLiteral("hotKeyCode"),
                        QStringLiteral("hotKeyLabel"), QStringLiteral("installID")};
    const auto doc = nlohmann::json::parse(data, data + size, nullptr, false);
    if (doc.is_object())
        for (const auto& [key, value] : doc.items())
            keys.append(QString::fromStdString(key));
    for (const QString& key : keys) {
        (void)store.contains(key);
        (void)store.integer(key);
        (void)store.string(key);
        (void)store.boolean(key);
    }
    return 0;
}
