// SPDX-License-Identifier: MIT
#include "catalog/debugflags.h"

#include "base/apppaths.h"
#include "buildinfo.h"

#include <QCoreApplication>
#include <QProcessEnvironment>
#include <QUuid>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

std::mutex sourcesMutex;
std::shared_ptr<const ConfigSources> currentSources;

std::shared_ptr<const ConfigSources> sources() {
    std::lock_guard lock(sourcesMutex);
    if (!currentSources)
        currentSources = std::make_shared<const ConfigSources>(ConfigSources::fromProcess());
    return currentSources;
}

std::optional<QString> env(const char* name) {
    const auto s = sources();
    const auto it = s->environment.constFind(QLatin1String(name));
    return it == s->environment.constEnd() ? std::nullopt : std::optional(*it);
}

std::optional<QString> info(const char* key) {
    const auto s = sources();
    const auto it = s->infoKeys.constFind(QLatin1String(key));
    return it == s->infoKeys.constEnd() || it->isEmpty() ? std::nullopt : std::optional(*it);
}

[[noreturn]] void fatal(const QString& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "orvane: configuration error: %s\n", qPrintable(message));
    std::fflush(stderr);
    std::_Exit(2);
}

QUrl parseURL(const QString& text, const char* source) {
    const QUrl url(text, QUrl::StrictMode);
    const bool isWeb =
        url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
    if (text.isEmpty() || !url.isValid() || url.scheme().isEmpty() ||
        (isWeb && url.host().isEmpty()))
        fatal(QStringLiteral("%1 is not a valid URL: \"%2\"").arg(QLatin1String(source), text));
    return url;
}

std::uint32_t hotKeyInteger(const char* key) {
    const auto value = DebugFlags::settings().value(QLatin1String(key));
    if (!value || !value->is_number_integer())
        return 0;
    const bool fits = value->is_number_unsigned() ? value->get<std::uint64_t>() <= UINT32_MAX
                                                  : value->get<std::int64_t>() >= 0 &&
                                                        value->get<std::int64_t>() <= UINT32_MAX;
    if (!fits)
        fatal(QStringLiteral("setting %1 is out of range: %2")
                  .arg(QLatin1String(key), QString::fromStdString(value->dump())));
    return std::uint32_t(value->get<std::uint64_t>());
}

} // namespace

ConfigSources ConfigSources::fromProcess() {
    ConfigSources s;
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& name : environment.keys())
        s.environment.insert(name, environment.value(name));
    const std::pair<const char*, const char*> keys[] = {{"MemeCDNBase", BuildInfo::MemeCDNBase},
                                                        {"MemeAPIBase", BuildInfo::MemeAPIBase},
                                                        {"MemeAppKey", BuildInfo::MemeAppKey},
                                                        {"MemeDebug", BuildInfo::MemeDebug}};
    for (const auto& [key, value] : keys)
        if (*value)
            s.infoKeys.insert(QLatin1String(key), QString::fromUtf8(value));
    s.settings =
        std::make_shared<SettingsStore>(AppPaths::configDir() + QStringLiteral("/settings.json"));
    return s;
}

void DebugFlags::installSources(ConfigSources s) {
    std::lock_guard lock(sourcesMutex);
    currentSources = std::make_shared<const ConfigSources>(std::move(s));
}

SettingsStore& DebugFlags::settings() {
    return *sources()->settings;
}

QUrl DebugFlags::serverURL() {
    if (const auto v = env("MEME_SERVER"))
        return parseURL(*v, "MEME_SERVER");
    if (const auto v = info("MemeCDNBase"))
        return parseURL(*v, "MemeCDNBase");
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(defaultServerPort));
}

QUrl DebugFlags::apiURL() {
    if (const auto v = env("MEME_API"))
        return parseURL(*v, "MEME_API");
    if (const auto v = info("MemeAPIBase"))
        return parseURL(*v, "MemeAPIBase");
    return QUrl(serverURL().toString(QUrl::FullyEncoded));
}

bool DebugFlags::hasCloudAPI() {
    return env("MEME_API") || info("MemeAPIBase");
}

std::optional<QString> DebugFlags::appKey() {
    if (const auto v = env("MEME_APP_KEY"))
        return v;
    return info("MemeAppKey");
}

QString DebugFlags::installID() {
    return settings().stringOrInsert(QStringLiteral("installID"), [] {
        return QUuid::createUuid().toString(QUuid::WithoutBraces).toLower();
    });
}

bool DebugFlags::showDebug() {
    return env("MEME_DEBUG") == QLatin1String("1") || info("MemeDebug") == QLatin1String("1");
}

std::int64_t DebugFlags::cacheMB() {
    return settings().integer(QStringLiteral("cacheMB")).value_or(defaultCacheMB);
}

std::int64_t DebugFlags::restoreDelayMs() {
    return settings().integer(QStringLiteral("restoreDelayMs")).value_or(defaultRestoreDelayMs);
}

DragPayload DebugFlags::dragPayload() {
    return dragPayloadFromRaw(settings().string(QStringLiteral("dragPayload")));
}

std::optional<PastePayload> DebugFlags::pastePayload() {
    return pastePayloadFromRaw(settings().string(QStringLiteral("pastePayload")));
}

HotKeyCombo DebugFlags::hotKey() {
    const auto label = settings().string(QStringLiteral("hotKeyLabel"));
    if (!settings().contains(QStringLiteral("hotKeyCode")) || !label)
        return HotKeyCombo::defaultCombo();
    return {hotKeyInteger("hotKeyCode"), hotKeyInteger("hotKeyMods"), *label};
}

void DebugFlags::setHotKey(const HotKeyCombo& combo) {
    settings().set(QStringLiteral("hotKeyCode"), combo.keyCode);
    settings().set(QStringLiteral("hotKeyMods"), combo.modifiers);
    settings().set(QStringLiteral("hotKeyLabel"), combo.label.toStdString());
    postDidChange();
}

void DebugFlags::setDragPayload(DragPayload payload) {
    setValue(QStringLiteral("dragPayload"), rawValue(payload).toStdString());
}

void DebugFlags::setPastePayload(PastePayload payload) {
    setValue(QStringLiteral("pastePayload"), rawValue(payload).toStdString());
}

void DebugFlags::setCacheMB(std::int64_t megabytes) {
    setValue(QStringLiteral("cacheMB"), megabytes);
}

void DebugFlags::setRestoreDelayMs(std::int64_t milliseconds) {
    setValue(QStringLiteral("restoreDelayMs"), milliseconds);
}

void DebugFlags::setValue(const QString& key, const nlohmann::json& value) {
    settings().set(key, value);
    postDidChange();
}

void DebugFlags::removeValue(const QString& key) {
    settings().remove(key);
    postDidChange();
}

DebugFlagsNotifier* DebugFlags::notifier() {
    static DebugFlagsNotifier* instance = [] {
        auto* n = new DebugFlagsNotifier;
        // Belongs to the GUI thread whoever asks first, so queued receivers work.
        if (auto* app = QCoreApplication::instance())
            n->moveToThread(app->thread());
        return n;
    }();
    return instance;
}

void DebugFlags::postDidChange() {
    emit notifier()->didChange();
}
