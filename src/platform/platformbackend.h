// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <memory>

class ClipboardReader;
class EventGuard;
class FocusProbe;
class GlobalHotkey;
class KeySynthesizer;
class WindowActivator;

// Picks the desktop backend from the running Qt platform (xcb → X11, anything else → none),
// logging the choice once.
namespace PlatformBackend {
QString name();
std::unique_ptr<GlobalHotkey> createGlobalHotkey();
std::unique_ptr<WindowActivator> createWindowActivator();
std::unique_ptr<ClipboardReader> createClipboardReader();
std::unique_ptr<KeySynthesizer> createKeySynthesizer();
std::unique_ptr<FocusProbe> createFocusProbe();
std::unique_ptr<EventGuard> createEventGuard();
} // namespace PlatformBackend
