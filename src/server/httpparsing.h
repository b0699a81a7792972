// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string_view>

// What a Range header asks of a file of a known size. Only one part is ever served: a list of
// several parts is answered 416, so a short request can never ask for the same bytes many times
// over.
struct RangeRequest {
    enum class Kind {
        Whole,         // no Range, or one we must ignore (malformed, other unit): 200, whole file
        Part,          // one satisfiable part: 206 with [first, first + length)
        Unsatisfiable, // starts past the end, or an empty suffix: 416
        TooManyParts,  // more than one part: 416
    };
    Kind kind = Kind::Whole;
    std::uint64_t first = 0;
    std::uint64_t length = 0;

    static RangeRequest parse(std::string_view headerValue, std::uint64_t fileSize);
};

// Whether an Accept-Encoding value accepts gzip (named, or through "*", with a non-zero q).
bool acceptsGzip(std::string_view acceptEncoding);
