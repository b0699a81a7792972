// SPDX-License-Identifier: MIT
#include "platform/platformlog.h"

Q_LOGGING_CATEGORY(lcPlatform, "glimmet.platform", QtInfoMsg)
Q_LOGGING_CATEGORY(lcPlatformX11, "glimmet.platform.x11", QtInfoMsg)
