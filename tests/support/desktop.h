// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <gtest/gtest.h>

bool desktopAvailable(QString* why);

// Skips the current test where no private X display could be started (tools missing).
#define GLIMMET_REQUIRE_DESKTOP()                                                                  \
    do {                                                                                           \
        QString why_;                                                                              \
        if (!desktopAvailable(&why_))                                                              \
            GTEST_SKIP() << why_.toStdString();                                                    \
    } while (0)
