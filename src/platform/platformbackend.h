// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <memory>

class GlobalHotkey;
class WindowActivator;

// Picks the desktop backend from the running Qt platform (xcb → X11, anything else → none),
// logging the choice once.
namespace PlatformBackend {
QString name();
std::unique_ptr<GlobalHotkey> createGlobalHotkey();
std::unique_ptr<WindowActivator> createWindowActivator();
} // namespace PlatformBackend
