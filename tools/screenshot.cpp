// SPDX-License-Identifier: MIT
// Saves the whole X screen, or one window of it, as a PNG (uses $DISPLAY):
//   orvane-screenshot OUT.png [WINDOW_ID]
// WINDOW_ID as xdotool prints it (decimal) or in hex with 0x.
#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <cstdio>

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "xcb");
    QGuiApplication app(argc, argv);
    if (argc != 2 && argc != 3) {
        std::fprintf(stderr, "usage: orvane-screenshot OUT.png [WINDOW_ID]\n");
        return 2;
    }
    WId window = 0;
    if (argc == 3) {
        bool ok = false;
        window = WId(QString::fromLocal8Bit(argv[2]).toULongLong(&ok, 0));
        if (!ok) {
            std::fprintf(stderr, "orvane-screenshot: not a window id: %s\n", argv[2]);
            return 2;
        }
    }
    const QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(window);
    return !shot.isNull() && shot.save(QString::fromLocal8Bit(argv[1]), "PNG") ? 0 : 1;
}
