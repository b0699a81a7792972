// SPDX-License-Identifier: MIT
#include "support/testenv.h"

#include <QCoreApplication>
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
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
