// SPDX-License-Identifier: Apache-2.0
// The session against a scripted board.
#include "qor/client.h"

#include <gtest/gtest.h>

#include "fake_board.h"
#include "qor/protobuf/fw_config_mode.pb.h"
#include "qor/protobuf/version.pb.h"

namespace qor {
namespace {

using Handler = orvi::FunctionHandler;

// Echo is byte-exact at any length; an answer without a body gives the
// defaults; a command the board has no handler for is thrown as such.
TEST(Client, AnswersAsTheBoardGivesThem) {
    testing::FakeBoard board;
    board.on("echo", [](Handler& h, const std::string& body) {
        h.send_message(body.data(), static_cast<unsigned int>(body.size()));
        h.set_done();
    });
    board.on("fw_config_mode", [](Handler& h, const std::string&) { h.set_done(); });
    Client client;
    client.connect(board.pipe());
    std::string reply = "stale";
    client.echo("coucou", reply);
    EXPECT_EQ(reply, "coucou");
    std::string binary(300000, '\0');
    for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(i * 7);
    client.echo(binary, reply);
    EXPECT_EQ(reply, binary);

    bool fff = true;
    client.fw_config_mode(fff);
    EXPECT_FALSE(fff);

    std::string version, magic;
    EXPECT_THROW(client.version(version, magic), orvi::ProxyCommandNoHandler);
    board.on("version", [](Handler& h, const std::string&) {
        qor::protobuf::version::Answer a;
        a.set_version("4.3.0-rc1");
        a.set_magic("c0ffee");
        h.answer(a);
    });
    client.version(version, magic);
    EXPECT_EQ(version, "4.3.0-rc1");
    EXPECT_EQ(magic, "c0ffee");
}

TEST(Client, FailedConnectLeavesTheSessionUsableForAnotherTry) {
    testing::FakeBoard board;
    board.on("fw_config_mode", [](Handler& h, const std::string&) {
        qor::protobuf::fw_config_mode::Answer a;
        a.set_is_fff(true);
        h.answer(a);
    });
    Client client;
    EXPECT_THROW(client.connect("127.0.0.1", "no-such-port", "", 0), orvi::SimpleSocketException);
    bool fff = false;
    EXPECT_THROW(client.fw_config_mode(fff), orvi::ProtocolException);
    client.connect("127.0.0.1", board.port(), "", 0);
    client.fw_config_mode(fff);
    EXPECT_TRUE(fff);
    client.disconnect();
    EXPECT_THROW(client.fw_config_mode(fff), orvi::ProtocolException);
}

}  // namespace
}  // namespace qor
