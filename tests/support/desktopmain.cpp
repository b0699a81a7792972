// SPDX-License-Identifier: MIT
#include "support/xvfbsession.h"

#include <QApplication>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {
XvfbSession* session = nullptr;
QString unavailable;
} // namespace

// Desktop tests call this first: it skips the test cleanly where no X server could be made.
bool desktopAvailable(QString* why) {
    *why = unavailable;
    return session != nullptr;
}

int main(int argc, char** argv) {
    QTemporaryDir root;
    const QByteArray base = root.path().toUtf8();
    for (const char* name :
         {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"})
        qputenv(name, base + '/' + name);
    qputenv("GLIMMET_TEST_ROOT", base);
    testing::InitGoogleTest(&argc, argv);

    XvfbSession xvfb;
    if (xvfb.start(&unavailable)) {
        session = &xvfb;
        qputenv("QT_QPA_PLATFORM", "xcb");
    } else {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
