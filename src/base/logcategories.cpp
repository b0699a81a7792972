// SPDX-License-Identifier: MIT
#include "base/logcategories.h"

Q_LOGGING_CATEGORY(lcConfig, "glimmet.config")
Q_LOGGING_CATEGORY(lcCatalog, "glimmet.catalog")
Q_LOGGING_CATEGORY(lcIndex, "glimmet.index")
Q_LOGGING_CATEGORY(lcSearch, "glimmet.search")
Q_LOGGING_CATEGORY(lcUserData, "glimmet.userdata")
Q_LOGGING_CATEGORY(lcTelemetry, "glimmet.telemetry")
Q_LOGGING_CATEGORY(lcApp, "glimmet.app")
