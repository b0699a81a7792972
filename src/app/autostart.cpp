// SPDX-License-Identifier: MIT
#include "app/autostart.h"

#include "base/apppaths.h"
#include "base/atomicfile.h"

#include <QFile>

namespace Autostart {

QString entryPath() {
    return AppPaths::configHome() + QStringLiteral("/autostart/orvane.desktop");
}

bool isEnabled() {
    return QFile::exists(entryPath());
}

bool setEnabled(bool enabled, const QString& executable, QString* error) {
    if (!enabled) {
        if (!QFile::exists(entryPath()) || QFile::remove(entryPath()))
            return true;
        *error = QStringLiteral("could not remove %1").arg(entryPath());
        return false;
    }
    // Exec takes a quoted path so folders with spaces work.
    QString quoted = executable;
    quoted.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('"'), QLatin1String("\\\""));
    const QByteArray entry = QStringLiteral("[Desktop Entry]\n"
                                            "Type=Application\n"
                                            "Name=Orvane\n"
                                            "Comment=Reaction image picker\n"
                                            "Exec=\"%1\"\n"
                                            "Terminal=false\n"
                                            "X-GNOME-Autostart-enabled=true\n")
                                 .arg(quoted)
                                 .toUtf8();
    if (writeFileAtomically(entryPath(), entry))
        return true;
    *error = QStringLiteral("could not write %1").arg(entryPath());
    return false;
}

} // namespace Autostart
