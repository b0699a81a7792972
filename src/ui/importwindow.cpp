// SPDX-License-Identifier: MIT
#include "ui/importwindow.h"

#include "ui/toast.h"

#include <QDir>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

const QString ImportWindow::chooseText =
    QStringLiteral("Choose images (Ctrl+A selects all) or a folder of memes or stickers. You can "
                   "name the collection next.");
const QString ImportWindow::explanationText = QStringLiteral(
    "Images are resized and stay on this computer. To make them searchable by feeling, action "
    "and text, each resized image is sent once to our server for tagging; the server does not "
    "keep the image.");
const QString ImportWindow::subfoldersText =
    QStringLiteral("\n\nEach subfolder becomes a collection, named like the folder.");
const QString ImportWindow::noImagesTitle = QStringLiteral("No images found");
const QString ImportWindow::noImagesText =
    QStringLiteral("Nothing you chose is a JPG, PNG, WebP, HEIC or GIF image (folders are "
                   "searched one level deep, or by subfolder).");

namespace {

QString imageFilter() {
    QStringList patterns;
    for (const QString& ext : UserCollections::imageExts)
        patterns << QStringLiteral("*.") + ext << QStringLiteral("*.") + ext.toUpper();
    return QStringLiteral("Images (%1)").arg(patterns.join(u' '));
}

// Qt's own dialog: the same on every desktop, and reachable by tests through its widgets.
QFileDialog* fileDialog(QWidget* parent, QFileDialog::FileMode mode) {
    auto* dialog = new QFileDialog(parent, QStringLiteral("Import collection"), QDir::homePath());
    dialog->setObjectName(QStringLiteral("importChooser"));
    dialog->setOption(QFileDialog::DontUseNativeDialog);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(mode);
    if (mode == QFileDialog::ExistingFiles)
        dialog->setNameFilter(imageFilter());
    return dialog;
}

} // namespace

ImportWindow::ImportWindow(QWidget* parent)
    : QWidget(parent, Qt::Window), m_intro(new QLabel(chooseText)),
      m_imagesButton(new QPushButton(QStringLiteral("Choose images…"))),
      m_folderButton(new QPushButton(QStringLiteral("Choose folder…"))), m_explanation(new QLabel),
      m_name(new QLineEdit), m_importButton(new QPushButton(QStringLiteral("Import"))),
      m_status(new QLabel) {
    setWindowTitle(QStringLiteral("Import collection"));
    setObjectName(QStringLiteral("importWindow"));
    m_name->setObjectName(QStringLiteral("collectionName"));
    m_status->setObjectName(QStringLiteral("importStatus"));
    for (QLabel* label : {m_intro, m_explanation, m_status}) {
        label->setWordWrap(true);
        label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    }
    m_name->setPlaceholderText(QStringLiteral("Collection name"));
    m_importButton->setDefault(true);

    auto* choose = new QHBoxLayout;
    choose->addWidget(m_imagesButton);
    choose->addWidget(m_folderButton);
    choose->addStretch();
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_intro);
    layout->addLayout(choose);
    layout->addWidget(m_explanation);
    layout->addWidget(m_name);
    layout->addWidget(m_importButton, 0, Qt::AlignRight);
    layout->addWidget(m_status);
    setMinimumWidth(460);

    connect(m_imagesButton, &QPushButton::clicked, this, &ImportWindow::chooseImages);
    connect(m_folderButton, &QPushButton::clicked, this, &ImportWindow::chooseFolder);
    connect(m_importButton, &QPushButton::clicked, this, &ImportWindow::startImport);
    connect(m_name, &QLineEdit::returnPressed, this, &ImportWindow::startImport);
}

void ImportWindow::begin() {
    m_plans.clear();
    for (QWidget* w : {static_cast<QWidget*>(m_intro), static_cast<QWidget*>(m_imagesButton),
                       static_cast<QWidget*>(m_folderButton)})
        w->show();
    m_imagesButton->setEnabled(true);
    m_folderButton->setEnabled(true);
    m_name->setEnabled(true);
    for (QWidget* w : {static_cast<QWidget*>(m_explanation), static_cast<QWidget*>(m_name),
                       static_cast<QWidget*>(m_importButton), static_cast<QWidget*>(m_status)})
        w->hide();
    show();
    raise();
    activateWindow();
}

void ImportWindow::chooseImages() {
    QFileDialog* dialog = fileDialog(this, QFileDialog::ExistingFiles);
    connect(dialog, &QFileDialog::filesSelected, this, &ImportWindow::choose);
    dialog->open();
}

void ImportWindow::chooseFolder() {
    QFileDialog* dialog = fileDialog(this, QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    connect(dialog, &QFileDialog::filesSelected, this, &ImportWindow::choose);
    dialog->open();
}

void ImportWindow::choose(const QStringList& selection) {
    m_plans = UserCollections::plan(selection);
    m_status->hide();
    if (m_plans.isEmpty()) {
        m_explanation->hide();
        m_name->hide();
        m_importButton->hide();
        m_status->setText(noImagesTitle + QStringLiteral("\n") + noImagesText);
        m_status->show();
        return;
    }
    m_explanation->setText(
        explanationText + (UserCollections::hasSubfolders(selection) ? subfoldersText : QString()));
    m_explanation->show();
    // Several collections are each named like their folder; a single one may be renamed.
    m_name->setVisible(m_plans.size() == 1);
    m_name->setText(m_plans.first().name);
    m_name->selectAll();
    m_importButton->show();
    m_importButton->setEnabled(true);
    if (m_name->isVisible())
        m_name->setFocus();
    else
        m_importButton->setFocus();
}

void ImportWindow::startImport() {
    if (m_plans.isEmpty() || !m_importButton->isEnabled())
        return;
    const QString name = m_name->text().trimmed();
    if (m_plans.size() == 1 && name.isEmpty())
        return;
    m_importButton->setEnabled(false);
    m_imagesButton->setEnabled(false);
    m_folderButton->setEnabled(false);
    m_name->setEnabled(false);
    emit importRequested(m_plans, name.isEmpty() ? m_plans.first().name : name);
}

void ImportWindow::showProgress(const QString& line) {
    m_status->setText(line);
    m_status->show();
}

void ImportWindow::showResult(const QString& notice) {
    showProgress(notice);
    QTimer::singleShot(Toast::noticeMs, this, [this, notice] {
        // Only when nothing else was started meanwhile.
        if (m_status->text() == notice)
            close();
    });
}
