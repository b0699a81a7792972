// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/hotkeycombo.h"
#include "catalog/payloadkinds.h"
#include "catalog/settingsstore.h"

#include <QHash>
#include <QObject>
#include <QUrl>
#include <memory>
#include <optional>

// Where configuration comes from. Captured once per process; tests install their own.
struct ConfigSources {
    QHash<QString, QString> environment;
    // Build-time keys (MemeCDNBase, …); empty values are left out.
    QHash<QString, QString> infoKeys;
    std::shared_ptr<SettingsStore> settings;

    // The process environment as it is now, the compiled-in keys and
    // $XDG_CONFIG_HOME/Glimmet/settings.json.
    static ConfigSources fromProcess();
};

// Posts didChange() after every settings write, on the writing thread.
class DebugFlagsNotifier : public QObject {
    Q_OBJECT
signals:
    void didChange();
};

// The configuration: endpoints, identity and every user setting. Each read goes to the
// sources afresh, so a changed setting counts from the next read. Reads are safe from any
// thread. A malformed endpoint URL or an out-of-range hotkey integer is fatal by design:
// one line on stderr naming the source and value, then exit code 2.
class DebugFlags {
public:
    static QUrl serverURL();
    static QUrl apiURL();
    // True when an API base was configured explicitly (MEME_API or MemeAPIBase).
    static bool hasCloudAPI();
    static std::optional<QString> appKey();
    static QString installID();
    static bool showDebug();

    static std::int64_t cacheMB();
    static std::int64_t restoreDelayMs();
    static DragPayload dragPayload();
    static std::optional<PastePayload> pastePayload();
    static HotKeyCombo hotKey();

    static void setHotKey(const HotKeyCombo& combo);
    static void setDragPayload(DragPayload payload);
    static void setPastePayload(PastePayload payload);
    static void setCacheMB(std::int64_t megabytes);
    static void setRestoreDelayMs(std::int64_t milliseconds);
    // Writes (or removes) any other preference key, then posts didChange().
    static void setValue(const QString& key, const nlohmann::json& value);
    static void removeValue(const QString& key);

    // The shared preference store, for the keys other modules own.
    static SettingsStore& settings();
    static DebugFlagsNotifier* notifier();
    static void postDidChange();

    // Replaces the sources; call before any read (start-up, tests).
    static void installSources(ConfigSources sources);

    static constexpr std::int64_t defaultCacheMB = 500;
    static constexpr std::int64_t defaultRestoreDelayMs = 600;
    static constexpr std::uint16_t defaultServerPort = 8787;
};
