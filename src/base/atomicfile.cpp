// SPDX-License-Identifier: MIT
#include "base/atomicfile.h"

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>

bool writeFileAtomically(const QString& path, const QByteArray& data) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    if (file.write(data) != data.size()) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
}
