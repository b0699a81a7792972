// SPDX-License-Identifier: MIT
#pragma once

#include "support/testenv.h"
#include "telemetry/metrics.h"

#include <vector>

// The events named `name` that `log` holds so far, oldest first.
inline std::vector<nlohmann::json> loggedEvents(Metrics& log, const char* name) {
    log.flush();
    std::vector<nlohmann::json> found;
    for (const QByteArray& line : TestEnv::readFile(log.path()).split('\n')) {
        const auto event = nlohmann::json::parse(line.toStdString(), nullptr, false);
        if (event.is_object() && event.value("event", "") == name)
            found.push_back(event);
    }
    return found;
}
