// SPDX-License-Identifier: MIT
// Saves the whole X screen as a PNG: orvane-screenshot OUT.png (uses $DISPLAY).
#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <cstdio>

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "xcb");
    QGuiApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: orvane-screenshot OUT.png\n");
        return 2;
    }
    const QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(0);
    return shot.save(QString::fromLocal8Bit(argv[1]), "PNG") ? 0 : 1;
}
