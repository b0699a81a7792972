// SPDX-License-Identifier: MIT
#include "server/catalogfiles.h"
#include "server/httpparsing.h"

#include <gtest/gtest.h>

namespace {

using Kind = RangeRequest::Kind;

std::string describe(const RangeRequest& r) {
    switch (r.kind) {
    case Kind::Whole:
        return "whole";
    case Kind::Part:
        return std::to_string(r.first) + "+" + std::to_string(r.length);
    case Kind::Unsatisfiable:
        return "416";
    case Kind::TooManyParts:
        return "many";
    }
    return {};
}

} // namespace

TEST(RangeRequest, ParsesOnePartAndNeverMore) {
    const std::pair<const char*, const char*> cases[] = {
        {"bytes=0-99", "0+100"},
        {"bytes=10-", "10+90"},
        {"bytes=-10", "90+10"},
        {"bytes=-1000", "0+100"},
        {"bytes=50-5000", "50+50"},
        {" Bytes = 1 - 2 ,", "1+2"},
        {"bytes=100-", "416"},
        {"bytes=-0", "416"},
        {"bytes=0-0,5-6", "many"},
        {"bytes=0-,0-,0-", "many"},
        {"bytes=5-1", "whole"},
        {"bytes=a-b", "whole"},
        {"bytes=", "whole"},
        {"bytes=1", "whole"},
        {"pages=1-2", "whole"},
        {"bytes=99999999999999999999999-", "whole"},
        {"", "whole"},
    };
    for (const auto& [header, expected] : cases)
        EXPECT_EQ(describe(RangeRequest::parse(header, 100)), expected) << header;
    EXPECT_EQ(describe(RangeRequest::parse("bytes=-5", 0)), "416");
    EXPECT_EQ(describe(RangeRequest::parse("bytes=0-", 0)), "416");
}

TEST(RequestHeaders, GzipIsAcceptedUnlessWeighedZero) {
    for (const char* yes :
         {"gzip", "gzip, deflate, br", "deflate, GZIP;q=0.5", "*", "x-gzip", "*;q=0, gzip"})
        EXPECT_TRUE(acceptsGzip(yes)) << yes;
    for (const char* no :
         {"", "identity", "br, deflate", "gzip;q=0", "gzip;q=0.000, *", "gzipped", "*;q=0"})
        EXPECT_FALSE(acceptsGzip(no)) << no;
}

TEST(RequestHeaders, TargetsDecodeToPathsWithoutNulBytes) {
    EXPECT_EQ(CatalogFiles::decodeTarget("/f/a%20b.png?x=1#y"), "/f/a b.png");
    EXPECT_EQ(CatalogFiles::decodeTarget("/%2e%2E/x"), "/../x");
    EXPECT_EQ(CatalogFiles::decodeTarget("/"), "/");
    for (const char* bad :
         {"", "f/1.png", "http://host/index.json", "/index.json%00.png", "/bad%2", "/bad%zz", "*"})
        EXPECT_FALSE(CatalogFiles::decodeTarget(bad).has_value()) << bad;
}
