// SPDX-License-Identifier: MIT
#include "support/testenv.h"

#include <QCoreApplication>
#ifdef GLIMMET_GUI_TEST
#include <QGuiApplication>
#endif
#include <QTemporaryDir>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // Private XDG folders before anything reads them.
    QTemporaryDir root;
    TestEnv::usePrivateFolders(root.path());
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#ifdef GLIMMET_GUI_TEST
    // Clipboard and image tests need the GUI side of Qt, on the offscreen platform.
    QGuiApplication app(argc, argv);
#else
    QCoreApplication app(argc, argv);
#endif
    return RUN_ALL_TESTS();
}
