// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

// Keeps one resident Orvane per desktop session. The first copy owns a name on the session
// bus; a later launch finds it taken and asks that copy to open its picker instead of
// starting a second, unreachable one (the desktop hands the tray and the hotkey to only one).
class SingleInstance : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.tarnwell.Glimmet")
public:
    static constexpr const char* serviceName = "com.tarnwell.Glimmet";
    static constexpr const char* objectPath = "/com/tarnwell/Glimmet";

    enum class Claim {
        owned,     // this process is the one instance; Show calls arrive as showRequested()
        forwarded, // another instance runs and was asked to show its picker
        noBus,     // no session bus: run unchecked
        failed,    // another instance holds the name but did not answer
    };

    using QObject::QObject;
    Claim claim();

public slots:
    // Called over the bus by a later launch.
    Q_SCRIPTABLE void Show();

signals:
    void showRequested();
};
