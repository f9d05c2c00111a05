// SPDX-License-Identifier: Apache-2.0
#include "orvi/url.h"

#include <gtest/gtest.h>

#include <tuple>

namespace orvi {
namespace {

using Params = std::map<std::string, std::string>;

struct ParseCase {
    std::string text;
    std::string scheme, host, port, path;
    Params params;
};

// Splits as the search dictates, quirks included; what a previous parse left
// is cleared.
TEST(ParseUrl, SplitsAsTheSearchDictates) {
    const ParseCase cases[] = {
        {"tcp://192.168.15.1:7000?bind=192.168.15.2",
         "tcp",
         "192.168.15.1",
         "7000",
         "",
         {{"bind", "192.168.15.2"}}},
        // Without "?" the whole text is read as one parameter.
        {"192.168.15.1:7000", "", "192.168.15.1", "7000", "", {{"192.168.15.1:7000", ""}}},
        {"tcp://host", "tcp", "host", "", "", {{"tcp://host", ""}}},
        {"tcp://h:7000?a=1&b=2&a=3", "tcp", "h", "7000", "", {{"a", "3"}, {"b", "2"}}},
        {"tcp://h:7000?flag&bind=x", "tcp", "h", "7000", "", {{"flag&bind=x", ""}, {"bind", "x"}}},
        {"tcp://h:7000?bind=", "tcp", "h", "7000", "", {{"bind", ""}}},
        {"tcp://h:7000?bind", "tcp", "h", "7000", "", {{"bind", ""}}},
        {"tcp://h:7000?", "tcp", "h", "7000", "", {}},
        {"tcp://h:7000?a=1&", "tcp", "h", "7000", "", {{"a", "1"}}},
        // User info is never split off.
        {"tcp://u@h:7000", "tcp", "u@h", "7000", "", {{"tcp://u@h:7000", ""}}},
        {"tcp://u:p@h:7000", "tcp", "u", "p@h:7000", "", {{"tcp://u:p@h:7000", ""}}},
        // The path's length is the absolute position of "?".
        {"tcp://h:1/p?bind=x", "tcp", "h", "1", "/p?bind=x", {{"bind", "x"}}},
        {"tcp://h:1/p", "tcp", "h", "1", "/p", {{"tcp://h:1/p", ""}}},
        {"/p?bind=x", "", "", "", "/p", {{"bind", "x"}}},
        // A "/" after "?" still ends the authority.
        {"tcp://h:1?x=/y", "tcp", "h", "1?x=", "/y", {{"x", "/y"}}},
        {"", "", "", "", "", {}},
        {":8000", "", "", "8000", "", {{":8000", ""}}},
        {"tcp://:7000", "tcp", "", "7000", "", {{"tcp://:7000", ""}}},
        {"a=b=c", "", "a=b=c", "", "", {{"a", "b=c"}}}};
    const std::string kNone;
    for (const ParseCase& c : cases) {
        Url url;
        url.user = "stale";
        url.params["stale"] = "x";
        parse_url(url, c.text);
        EXPECT_EQ(std::tie(url.scheme, url.user, url.password, url.host, url.port, url.path),
                  std::tie(c.scheme, kNone, kNone, c.host, c.port, c.path))
            << c.text;
        EXPECT_EQ(url.params, c.params) << c.text;
    }
}

// The parts in order, without the parameters; a path gains a slash.
TEST(SerializeUrl, WritesPartsInOrderWithoutParams) {
    const struct {
        Url url;
        const char* text;
    } cases[] = {{{"tcp", "u", "p", "10.0.0.1", "7000", "/x", {{"bind", "ignored"}}},
                  "tcp://u:p@10.0.0.1:7000//x"},
                 {{"tcp", "u", "", "10.0.0.1", "", "", {}}, "tcp://u@10.0.0.1"},
                 {Url{}, ""}};
    for (const auto& c : cases) {
        std::string out = "old";
        serialize_url(out, c.url);
        EXPECT_EQ(out, c.text);
    }
}

TEST(Iequals, IgnoresAsciiCaseOnly) {
    EXPECT_TRUE(iequals("TCP", "tcp"));
    EXPECT_TRUE(iequals("", ""));
    EXPECT_FALSE(iequals("tcp", "tcp "));
    EXPECT_FALSE(iequals("tc", "tcp"));
    EXPECT_FALSE(iequals("tcp", "udp"));
    EXPECT_FALSE(iequals(std::string("a\0b", 3), "a"));
}

}  // namespace
}  // namespace orvi
