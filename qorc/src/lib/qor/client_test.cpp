// SPDX-License-Identifier: Apache-2.0
// The session against a scripted board.
#include "qor/client.h"

#include <gtest/gtest.h>

#include "fake_board.h"
#include "qor/protobuf/fw_config_mode.pb.h"

namespace qor {
namespace {

using Handler = orvi::FunctionHandler;

// Echo is byte-exact at any length; an answer without a body gives the
// defaults. (The version, and a board without it, are seen end to end.)
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
