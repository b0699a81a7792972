// SPDX-License-Identifier: MIT
#include "base/logcategories.h"

Q_LOGGING_CATEGORY(lcConfig, "glimmet.config", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCatalog, "glimmet.catalog", QtInfoMsg)
Q_LOGGING_CATEGORY(lcIndex, "glimmet.index", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSearch, "glimmet.search", QtInfoMsg)
Q_LOGGING_CATEGORY(lcUserData, "glimmet.userdata", QtInfoMsg)
Q_LOGGING_CATEGORY(lcTelemetry, "glimmet.telemetry", QtInfoMsg)
Q_LOGGING_CATEGORY(lcApp, "glimmet.app", QtInfoMsg)
Q_LOGGING_CATEGORY(lcInsert, "glimmet.insert", QtInfoMsg)
