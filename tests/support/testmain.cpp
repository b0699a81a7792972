// SPDX-License-Identifier: MIT
#include <QCoreApplication>
#include <QTemporaryDir>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // Private XDG folders before anything reads them.
    QTemporaryDir root;
    const QByteArray base = root.path().toUtf8();
    for (const char* name :
         {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"})
        qputenv(name, base + '/' + name);
    qputenv("GLIMMET_TEST_ROOT", base);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
