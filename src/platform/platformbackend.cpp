// SPDX-License-Identifier: MIT
#include "platform/platformbackend.h"

#include "platform/atspi/atspifocusprobe.h"
#include "platform/none/nulleventguard.h"
#include "platform/none/nullglobalhotkey.h"
#include "platform/none/nullkeysynthesizer.h"
#include "platform/none/nullwindowactivator.h"
#include "platform/none/qtclipboardreader.h"
#include "platform/platformlog.h"
#include "platform/x11/x11clipboardreader.h"
#include "platform/x11/x11globalhotkey.h"
#include "platform/x11/x11keysynthesizer.h"
#include "platform/x11/x11selectiontimeguard.h"
#include "platform/x11/x11windowactivator.h"

#include <QGuiApplication>

namespace PlatformBackend {

QString name() {
    static const QString chosen = [] {
        const QString platform = QGuiApplication::platformName();
        const QString backend =
            platform == QLatin1String("xcb") ? QStringLiteral("x11") : QStringLiteral("none");
        qCInfo(lcPlatform).noquote()
            << "desktop backend:" << backend << "(Qt platform" << platform + QLatin1Char(')');
        return backend;
    }();
    return chosen;
}

std::unique_ptr<GlobalHotkey> createGlobalHotkey() {
    if (name() == QLatin1String("x11"))
        return std::make_unique<X11GlobalHotkey>();
    return std::make_unique<NullGlobalHotkey>();
}

std::unique_ptr<WindowActivator> createWindowActivator() {
    if (name() == QLatin1String("x11"))
        return std::make_unique<X11WindowActivator>();
    return std::make_unique<NullWindowActivator>();
}

std::unique_ptr<ClipboardReader> createClipboardReader() {
    if (name() == QLatin1String("x11"))
        return std::make_unique<X11ClipboardReader>(qgetenv("DISPLAY"));
    return std::make_unique<QtClipboardReader>();
}

std::unique_ptr<KeySynthesizer> createKeySynthesizer() {
    if (name() == QLatin1String("x11"))
        return std::make_unique<X11KeySynthesizer>();
    return std::make_unique<NullKeySynthesizer>();
}

std::unique_ptr<EventGuard> createEventGuard() {
    if (name() == QLatin1String("x11"))
        return std::make_unique<X11SelectionTimeGuard>();
    return std::make_unique<NullEventGuard>();
}

std::unique_ptr<FocusProbe> createFocusProbe() {
    return std::make_unique<AtSpiFocusProbe>();
}

} // namespace PlatformBackend
