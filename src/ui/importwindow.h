// SPDX-License-Identifier: MIT
#pragma once

#include "collections/usercollections.h"

#include <QWidget>

class QLabel;
class QLineEdit;
class QPushButton;

// The import window: the user chooses images or a folder, reads what happens to them, names
// the collection and starts the import, then watches its progress and reads the result. It
// plans but imports nothing itself: importRequested() hands the plans to the app. GUI thread.
class ImportWindow : public QWidget {
    Q_OBJECT
public:
    static const QString chooseText;
    static const QString explanationText;
    static const QString subfoldersText;
    static const QString noImagesTitle;
    static const QString noImagesText;

    explicit ImportWindow(QWidget* parent = nullptr);

    // Back to the first step, shown and in front.
    void begin();
    // What the user chose in a file dialog: plans it and asks for the name.
    void choose(const QStringList& selection);
    // A status line of the running import.
    void showProgress(const QString& line);
    // The import ended: shows `notice`, then the window closes after Toast::noticeMs.
    void showResult(const QString& notice);

signals:
    // Import `plans`; the first is named `name` when there is only one.
    void importRequested(const QList<UserCollections::Plan>& plans, const QString& name);

private:
    void chooseImages();
    void chooseFolder();
    void startImport();

    QLabel* m_intro;
    QPushButton* m_imagesButton;
    QPushButton* m_folderButton;
    QLabel* m_explanation;
    QLineEdit* m_name;
    QPushButton* m_importButton;
    QLabel* m_status;
    QList<UserCollections::Plan> m_plans;
};
