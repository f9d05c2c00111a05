// What the scan settles; the messages are covered end to end in tests/.
#include "arguments.h"

#include <gtest/gtest.h>

namespace qorc {
namespace {

int parse(std::vector<std::string> words, Arguments& a) {
    words.insert(words.begin(), "qorc");
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    ::testing::internal::CaptureStderr();
    const int status = parse_arguments(static_cast<int>(words.size()), argv.data(), a);
    ::testing::internal::GetCapturedStderr();
    return status;
}

TEST(Arguments, OptionsAndLastValueWins) {
    Arguments a;
    EXPECT_EQ(parse({"sysupgrade", "-c", "-n", "-t", "30s", "--timeout", "12", "--reboot-url",
                     "127.0.0.9", "--bind", "127.0.0.2", "-u", "h:1", "fw.zpk"},
                    a),
              -1);
    EXPECT_TRUE(a.sysupgrade && a.keep_config && a.no_keep);
    EXPECT_EQ(a.timeout, 12);
    EXPECT_EQ(a.reboot_url, "127.0.0.9");
    EXPECT_EQ(a.bind, "127.0.0.2");
    EXPECT_EQ(a.url, "h:1");
    EXPECT_EQ(a.fw, "fw.zpk");

    // A trailing --reboot-url reads the terminating null entry: empty.
    Arguments b;
    b.reboot_url = "set";
    EXPECT_EQ(parse({"discover", "--reboot-url"}, b), -1);
    EXPECT_EQ(b.reboot_url, "");
}

TEST(Arguments, FreeArgumentsGoToTheFirstTaker) {
    Arguments a;
    EXPECT_EQ(parse({"reset_imei", "file", "psi_get"}, a), -1);
    EXPECT_TRUE(a.reset_imei && a.psi_get);
    EXPECT_EQ(a.path, "file");

    Arguments b;
    EXPECT_EQ(parse({"psi_get", "sysupgrade", "reset_imei", "codes"}, b), 1);  // fw taken
    EXPECT_EQ(b.fw, "codes");

    Arguments c;
    EXPECT_EQ(parse({"psi_set", "psi_get", "sysupgrade", "activate", "pass", "x.json"}, c), 1);
    EXPECT_EQ(c.fw, "pass");

    // psi_set keeps taking free arguments while it is set...
    Arguments d;
    EXPECT_EQ(parse({"psi_set", "activate", "p", "x.json"}, d), 1);
    // ...and activate takes them only before it.
    Arguments e;
    EXPECT_EQ(parse({"activate", "p", "psi_set", "x.json"}, e), -1);
    EXPECT_EQ(e.passcode, "p");
    EXPECT_EQ(e.path, "x.json");
}

TEST(Arguments, SplitAddressAtTheFirstColon) {
    std::string host, port;
    split_address("127.0.0.5", host, port);
    EXPECT_EQ(host + "|" + port, "127.0.0.5|7000");
    split_address("127.0.0.5:", host, port);
    EXPECT_EQ(host + "|" + port, "127.0.0.5|7000");
    split_address(":8000", host, port);
    EXPECT_EQ(host + "|" + port, "|8000");
    split_address("tcp://h:1", host, port);
    EXPECT_EQ(host + "|" + port, "tcp|//h:1");
}

}  // namespace
}  // namespace qorc
