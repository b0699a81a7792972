// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/hotkeycombo.h"

#include <QObject>
#include <optional>

// A system-wide keyboard shortcut. One instance per process; GUI thread only.
class GlobalHotkey : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    // Replaces any previous registration. False (and logged) when the desktop refuses it,
    // usually because another program holds the same shortcut; the previous one then stays.
    virtual bool registerCombo(const HotKeyCombo& combo) = 0;
    virtual void unregister() = 0;
    // The shortcut held now, if any.
    virtual std::optional<HotKeyCombo> registered() const = 0;
    // False for backends that cannot grab keys at all (the no-op backend).
    virtual bool canRegister() const = 0;

signals:
    // The shortcut was pressed; `timestamp` is the desktop's event time (0 when unknown).
    void pressed(quint32 timestamp);
};
