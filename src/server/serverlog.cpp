// SPDX-License-Identifier: MIT
#include "server/serverlog.h"

Q_LOGGING_CATEGORY(lcServer, "glimmet.server")
