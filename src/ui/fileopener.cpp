// SPDX-License-Identifier: MIT
#include "ui/fileopener.h"

#include <QFileInfo>
#include <QMessageBox>
#include <QPushButton>

namespace FileOpener {

Outcome open(const QString& path, QWidget* parent, const std::function<bool(const QUrl&)>& open,
             const std::function<void(const QString&)>& tell) {
    if (open(QUrl::fromLocalFile(path)))
        return Outcome::opened;
    const QFileInfo file(path);
    QMessageBox box(parent);
    box.setWindowTitle(QStringLiteral("Orvane"));
    box.setIcon(QMessageBox::Information);
    box.setText(
        QStringLiteral("No application opens %1 files here.")
            .arg(file.suffix().isEmpty() ? file.fileName() : QStringLiteral(".") + file.suffix()));
    box.setInformativeText(
        QStringLiteral("Open the folder that holds %1 instead?").arg(file.fileName()));
    QPushButton* folder = box.addButton(QStringLiteral("Open Folder"), QMessageBox::AcceptRole);
    box.addButton(QMessageBox::Cancel);
    box.setDefaultButton(folder);
    box.exec();
    if (box.clickedButton() != static_cast<QAbstractButton*>(folder))
        return Outcome::declined;
    if (open(QUrl::fromLocalFile(file.absolutePath())))
        return Outcome::folderOpened;
    tell(QStringLiteral("Could not open it. The file is at ") + file.absoluteFilePath());
    return Outcome::pathShown;
}

} // namespace FileOpener
