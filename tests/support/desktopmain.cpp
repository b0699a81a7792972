// SPDX-License-Identifier: MIT
#include "support/testenv.h"
#include "support/xvfbsession.h"

#include <QApplication>
#include <QTemporaryDir>
#include <cstdio>
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
    TestEnv::usePrivateFolders(root.path());
    testing::InitGoogleTest(&argc, argv);

    XvfbSession xvfb;
    if (xvfb.start(&unavailable)) {
        session = &xvfb;
        qputenv("QT_QPA_PLATFORM", "xcb");
    } else if (qEnvironmentVariable("GLIMMET_DESKTOP_TESTS") == QLatin1String("required")) {
        // The test script installs everything these need: a display that does not come up
        // there is a failure, not a reason to skip.
        fprintf(stderr, "no test desktop: %s\n", qPrintable(unavailable));
        return 1;
    } else {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
