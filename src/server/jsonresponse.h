// SPDX-License-Identifier: MIT
#pragma once

#include "server/catalogserver.h"

#include <nlohmann/json.hpp>

// An answer whose body is `body` as JSON, keys in the order given.
inline HttpResponse jsonResponse(int status, const nlohmann::ordered_json& body) {
    HttpResponse response;
    response.status = status;
    response.contentType = "application/json";
    response.body = body.dump();
    return response;
}
