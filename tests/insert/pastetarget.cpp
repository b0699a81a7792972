// SPDX-License-Identifier: MIT
// A window that takes pastes and drops and reports each one on stdout as one JSON line: the
// types offered, each type's SHA-256 and size, "drop": true for a drop, and the monotonic
// clock at arrival, so a test in another process can check what arrived and when. With --button the
// window holds only a button, for the case where no text field has the keyboard; with --terminal
// its window class is a terminal's; with --save DIR each pasted image is also written to a file
// there, named in the line under "files", so a test can look at its pixels.
#include <QApplication>
#include <QCryptographicHash>
#include <QDropEvent>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QKeyEvent>
#include <QMimeData>
#include <QPushButton>
#include <QTextEdit>
#include <QUrl>
#include <QVBoxLayout>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

double monotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1000.0 + double(now.tv_nsec) / 1e6;
}

QString saveDir;
int pasteCount = 0;

void report(const QMimeData* source, bool drop = false) {
    ++pasteCount;
    QJsonObject line;
    QJsonArray formats;
    QJsonObject hashes;
    QJsonObject sizes;
    QJsonObject files;
    for (const QString& format : source->formats()) {
        formats.append(format);
        const QByteArray bytes = source->data(format);
        hashes.insert(format,
                      QString::fromLatin1(
                          QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex()));
        sizes.insert(format, bytes.size());
        if (!saveDir.isEmpty() && format.startsWith(QLatin1String("image/"))) {
            const QString path = QStringLiteral("%1/paste-%2.%3")
                                     .arg(saveDir)
                                     .arg(pasteCount)
                                     .arg(format.section(QLatin1Char('/'), 1));
            QFile file(path);
            if (file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size())
                files.insert(format, path);
        }
    }
    line.insert(QStringLiteral("formats"), formats);
    line.insert(QStringLiteral("sha256"), hashes);
    line.insert(QStringLiteral("sizes"), sizes);
    if (!files.isEmpty())
        line.insert(QStringLiteral("files"), files);
    if (drop) {
        line.insert(QStringLiteral("drop"), true);
        QJsonArray urls;
        for (const QUrl& url : source->urls())
            urls.append(url.toString());
        line.insert(QStringLiteral("urls"), urls);
    }
    line.insert(QStringLiteral("monotonic_ms"), monotonicMs());
    std::fprintf(stdout, "%s\n", QJsonDocument(line).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
}

class RecordingEdit : public QTextEdit {
public:
    using QTextEdit::QTextEdit;

protected:
    // Terminals paste on Ctrl+Shift+V, which a text edit ignores: report the keystroke.
    void keyPressEvent(QKeyEvent* event) override {
        if (event->key() == Qt::Key_V &&
            event->modifiers() == (Qt::ControlModifier | Qt::ShiftModifier)) {
            std::fprintf(stdout, "{\"keys\":\"Ctrl+Shift+V\"}\n");
            std::fflush(stdout);
        }
        QTextEdit::keyPressEvent(event);
    }
    bool canInsertFromMimeData(const QMimeData*) const override { return true; }
    // Reported, not inserted: the text stays as it was.
    void dropEvent(QDropEvent* event) override {
        report(event->mimeData(), true);
        event->acceptProposedAction();
    }
    void insertFromMimeData(const QMimeData* source) override {
        report(source);
        if (source->hasText())
            QTextEdit::insertFromMimeData(source);
    }
};

} // namespace

int main(int argc, char** argv) {
    // --terminal: a window class that says "terminal emulator" to the desktop.
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--terminal") == 0)
            QCoreApplication::setApplicationName(QStringLiteral("xterm"));
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (const qsizetype at = args.indexOf(QStringLiteral("--save")); at > 0 && at + 1 < args.size())
        saveDir = args[at + 1];
    QWidget window;
    window.setWindowTitle(QStringLiteral("Orvane paste target"));
    auto* layout = new QVBoxLayout(&window);
    if (app.arguments().contains(QStringLiteral("--button"))) {
        auto* button = new QPushButton(QStringLiteral("Nothing to type into"), &window);
        layout->addWidget(button);
        button->setFocus();
    } else {
        auto* edit = new RecordingEdit(&window);
        layout->addWidget(edit);
        edit->setFocus();
    }
    window.resize(480, 320);
    window.show();
    std::fprintf(stdout, "{\"ready\":true}\n");
    std::fflush(stdout);
    return app.exec();
}
