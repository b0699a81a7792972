// SPDX-License-Identifier: MIT
#pragma once

#include "support/desktop.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>

// As a screen reader would: programs then publish what has their keyboard.
inline void enableAccessibility() {
    XvfbSession::run(QStringLiteral("dbus-send"),
                     {QStringLiteral("--session"), QStringLiteral("--dest=org.a11y.Bus"),
                      QStringLiteral("/org/a11y/bus"),
                      QStringLiteral("org.freedesktop.DBus.Properties.Set"),
                      QStringLiteral("string:org.a11y.Status"), QStringLiteral("string:IsEnabled"),
                      QStringLiteral("variant:boolean:true")});
}

// The project's own paste target (tests/insert/pastetarget.cpp): one JSON line per paste.
class PasteTarget : public Desktop::Program {
public:
    bool start(const QStringList& args = {}) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        // Publish the accessibility tree even though no screen reader asked for it.
        env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(PASTE_TARGET_BINARY), args);
        return QTest::qWaitFor([&] { return !lines().isEmpty(); }, 10000) &&
               Desktop::activate(QStringLiteral("Orvane paste target"));
    }
    QList<QJsonObject> lines() {
        m_buffer += process.readAllStandardOutput();
        QList<QJsonObject> result;
        for (const QByteArray& line : m_buffer.split('\n'))
            if (!line.isEmpty())
                result.append(QJsonDocument::fromJson(line).object());
        return result;
    }
    QList<QJsonObject> pastes() {
        QList<QJsonObject> all = lines();
        all.removeIf([](const QJsonObject& o) {
            return !o.contains(QStringLiteral("formats")) || o.contains(QStringLiteral("drop"));
        });
        return all;
    }
    QList<QJsonObject> drops() {
        QList<QJsonObject> all = lines();
        all.removeIf([](const QJsonObject& o) { return !o.contains(QStringLiteral("drop")); });
        return all;
    }
    bool sawKeys(const QString& keys) {
        const QList<QJsonObject> all = lines();
        return std::any_of(all.begin(), all.end(), [&](const QJsonObject& line) {
            return line.value(QStringLiteral("keys")).toString() == keys;
        });
    }

private:
    QByteArray m_buffer;
};
