#include "orvi/url.h"

#include <gtest/gtest.h>

namespace orvi {
namespace {

using Params = std::map<std::string, std::string>;

struct ParseCase {
    std::string text;
    std::string scheme, host, port, path;
    Params params;
};

class ParseUrl : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ParseUrl, SplitsAsTheSearchDictates) {
    const ParseCase& c = GetParam();
    Url url;
    url.user = "stale";
    url.params["stale"] = "x";
    parse_url(url, c.text);
    EXPECT_EQ(url.scheme, c.scheme);
    EXPECT_EQ(url.user, "");
    EXPECT_EQ(url.password, "");
    EXPECT_EQ(url.host, c.host);
    EXPECT_EQ(url.port, c.port);
    EXPECT_EQ(url.path, c.path);
    EXPECT_EQ(url.params, c.params);
}

INSTANTIATE_TEST_SUITE_P(
    Quirks, ParseUrl,
    ::testing::Values(
        ParseCase{"tcp://192.168.15.1:7000?bind=192.168.15.2",
                  "tcp",
                  "192.168.15.1",
                  "7000",
                  "",
                  {{"bind", "192.168.15.2"}}},
        // Without "?" the whole text is read as one parameter.
        ParseCase{"192.168.15.1:7000", "", "192.168.15.1", "7000", "", {{"192.168.15.1:7000", ""}}},
        ParseCase{"tcp://host", "tcp", "host", "", "", {{"tcp://host", ""}}},
        ParseCase{"tcp://h:7000?a=1&b=2&a=3", "tcp", "h", "7000", "", {{"a", "3"}, {"b", "2"}}},
        ParseCase{"tcp://h:7000?flag&bind=x",
                  "tcp",
                  "h",
                  "7000",
                  "",
                  {{"flag&bind=x", ""}, {"bind", "x"}}},
        ParseCase{"tcp://h:7000?bind=", "tcp", "h", "7000", "", {{"bind", ""}}},
        ParseCase{"tcp://h:7000?bind", "tcp", "h", "7000", "", {{"bind", ""}}},
        ParseCase{"tcp://h:7000?", "tcp", "h", "7000", "", {}},
        ParseCase{"tcp://h:7000?a=1&", "tcp", "h", "7000", "", {{"a", "1"}}},
        // User info is never split off.
        ParseCase{"tcp://u@h:7000", "tcp", "u@h", "7000", "", {{"tcp://u@h:7000", ""}}},
        ParseCase{"tcp://u:p@h:7000", "tcp", "u", "p@h:7000", "", {{"tcp://u:p@h:7000", ""}}},
        // The path's length is the absolute position of "?".
        ParseCase{"tcp://h:1/p?bind=x", "tcp", "h", "1", "/p?bind=x", {{"bind", "x"}}},
        ParseCase{"tcp://h:1/p", "tcp", "h", "1", "/p", {{"tcp://h:1/p", ""}}},
        ParseCase{"/p?bind=x", "", "", "", "/p", {{"bind", "x"}}},
        // A "/" after "?" still ends the authority.
        ParseCase{"tcp://h:1?x=/y", "tcp", "h", "1?x=", "/y", {{"x", "/y"}}},
        ParseCase{"", "", "", "", "", {}}, ParseCase{":8000", "", "", "8000", "", {{":8000", ""}}},
        ParseCase{"tcp://:7000", "tcp", "", "7000", "", {{"tcp://:7000", ""}}},
        ParseCase{"a=b=c", "", "a=b=c", "", "", {{"a", "b=c"}}}),
    [](const ::testing::TestParamInfo<ParseCase>& info) { return std::to_string(info.index); });

// The parts in order, without the parameters; a reparsed path gains a slash.
TEST(SerializeUrl, WritesPartsInOrderWithoutParams) {
    const Url full{"tcp", "u", "p", "10.0.0.1", "7000", "/x", {{"bind", "ignored"}}};
    const Url userOnly{"tcp", "u", "", "10.0.0.1", "", "", {}};
    Url reparsed;
    parse_url(reparsed, "tcp://h:7/p");
    const struct {
        Url url;
        const char* text;
    } cases[] = {{full, "tcp://u:p@10.0.0.1:7000//x"},
                 {userOnly, "tcp://u@10.0.0.1"},
                 {reparsed, "tcp://h:7//p"},
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
