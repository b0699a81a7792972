// SPDX-License-Identifier: MIT
#include "server/httpparsing.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <optional>

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

bool equalsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// Digits only; nothing on overflow or when empty.
std::optional<std::uint64_t> number(std::string_view s) {
    if (s.empty())
        return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : s) {
        if (c < '0' || c > '9')
            return std::nullopt;
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10)
            return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

} // namespace

RangeRequest RangeRequest::parse(std::string_view headerValue, std::uint64_t fileSize) {
    const RangeRequest whole;
    const std::string_view value = trim(headerValue);
    const size_t equals = value.find('=');
    if (equals == std::string_view::npos || !equalsNoCase(trim(value.substr(0, equals)), "bytes"))
        return whole;

    std::string_view part;
    int parts = 0;
    std::string_view list = value.substr(equals + 1);
    while (true) {
        const size_t comma = list.find(',');
        const std::string_view element = trim(list.substr(0, comma));
        if (!element.empty()) { // empty list elements are allowed and mean nothing
            if (element.find('-') == std::string_view::npos)
                return whole;
            part = element;
            ++parts;
        }
        if (comma == std::string_view::npos)
            break;
        list.remove_prefix(comma + 1);
    }
    if (parts == 0)
        return whole;
    if (parts > 1)
        return {Kind::TooManyParts, 0, 0};

    const size_t dash = part.find('-');
    const std::string_view firstText = trim(part.substr(0, dash));
    const std::string_view lastText = trim(part.substr(dash + 1));
    if (firstText.empty()) { // "-N": the last N bytes
        const auto suffix = number(lastText);
        if (!suffix)
            return whole;
        if (*suffix == 0 || fileSize == 0)
            return {Kind::Unsatisfiable, 0, 0};
        const std::uint64_t length = std::min(*suffix, fileSize);
        return {Kind::Part, fileSize - length, length};
    }
    const auto first = number(firstText);
    if (!first)
        return whole;
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
    if (!lastText.empty()) {
        const auto given = number(lastText);
        if (!given || *given < *first)
            return whole;
        last = *given;
    }
    if (*first >= fileSize)
        return {Kind::Unsatisfiable, 0, 0};
    last = std::min(last, fileSize - 1);
    return {Kind::Part, *first, last - *first + 1};
}

namespace {

// The weight of one Accept-Encoding element's parameters: false only for a zero q.
bool weightAccepts(std::string_view params) {
    params = trim(params);
    if (params.size() < 2 || std::tolower(static_cast<unsigned char>(params[0])) != 'q' ||
        params[1] != '=')
        return true;
    params.remove_prefix(2);
    return params.empty() || params.find_first_not_of("0.") != std::string_view::npos;
}

} // namespace

bool acceptsGzip(std::string_view acceptEncoding) {
    // A named gzip entry decides; "*" only counts when gzip is not named.
    std::optional<bool> named;
    std::optional<bool> star;
    while (!acceptEncoding.empty()) {
        const size_t comma = acceptEncoding.find(',');
        const std::string_view element = acceptEncoding.substr(0, comma);
        acceptEncoding.remove_prefix(comma == std::string_view::npos ? acceptEncoding.size()
                                                                     : comma + 1);
        const size_t semicolon = element.find(';');
        const std::string_view coding = trim(element.substr(0, semicolon));
        const bool accepted =
            semicolon == std::string_view::npos || weightAccepts(element.substr(semicolon + 1));
        if (equalsNoCase(coding, "gzip") || equalsNoCase(coding, "x-gzip"))
            named = named.value_or(false) || accepted;
        else if (coding == "*")
            star = accepted;
    }
    return named ? *named : star.value_or(false);
}
