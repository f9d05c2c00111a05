// SPDX-License-Identifier: Apache-2.0
// The boot-end wait, against a scripted board.
#include "qor/sysupgrade.h"

#include <gtest/gtest.h>

#include "error_of.h"
#include "fake_board.h"
#include "qor/protobuf/system_boot_end.pb.h"

// A connection that can really be lost: a raw peer on a socket.
#include "loopback.h"
#include "orvi/transport_simple_socket_client.h"

namespace qor {
namespace client {
namespace {

using Handler = orvi::FunctionHandler;

struct RecordingHandler : SysupgradeHandler {
    mutable std::vector<unsigned int> retries;
    void on_status_update(Status) const override {}
    void log(const std::string&) const override {}
    void progression(float) const override {}
    void on_connect_retry(unsigned int n) const override { retries.push_back(n); }
};

struct Session {
    orvi::Protocol protocol{1};
    explicit Session(testing::FakeBoard& board) { protocol.add_transport(board.pipe()); }
};

TEST(BootEnd, PollsEverySecondUntilDone) {
    testing::FakeBoard board;
    std::atomic<int> polls{0};
    board.on("system_boot_end", [&](Handler& h, const std::string&) {
        qor::protobuf::system_boot_end::Answer a;
        a.set_boot_done(++polls >= 3);
        h.answer(a);
    });
    Session s(board);
    RecordingHandler handler;
    _wait_system_boot_end(s.protocol, &handler, 7);
    EXPECT_EQ(polls, 3);
    EXPECT_EQ(handler.retries, (std::vector<unsigned int>{7, 8}));

    _wait_system_boot_end(s.protocol, nullptr, 0);  // done at once, no callback
    EXPECT_EQ(polls, 4);
    EXPECT_EQ(board.calls("wait_system_boot_end"), 0);
}

TEST(BootEnd, FallsBackToTheBlockingCommandAndSwallowsItsFailure) {
    testing::FakeBoard board;
    board.on("wait_system_boot_end", [](Handler& h, const std::string&) {
        h.send_command_exception("still booting");
        h.abandon();
    });
    Session s(board);
    RecordingHandler handler;
    _wait_system_boot_end(s.protocol, &handler, 0);  // must not throw
    EXPECT_EQ(board.calls("wait_system_boot_end"), 1);
    EXPECT_TRUE(handler.retries.empty());
}

// A board that goes while it is asked cannot be waited for: the loss is
// thrown, and no other command is tried on a connection that is gone.
TEST(BootEnd, ALostConnectionIsThrownNotWaitedOut) {
    support::RawListener listener;
    std::thread board([&] {
        support::RawConnection c(listener.accept_one());
        c.read(2);
        c.write(std::string(1, '\x01'));
        c.read(1);  // the poll has begun; the board goes
    });
    orvi::Protocol protocol(1);
    auto t = std::make_shared<orvi::TransportSimpleSocketClient>("127.0.0.1", listener.port_text());
    t->connect(1);
    protocol.add_transport(t);
    EXPECT_EQ(support::error_of<orvi::ProxyCommandException>(
                  [&] { _wait_system_boot_end(protocol, nullptr, 0); }),
              "Connection lost");
    board.join();
}

}  // namespace
}  // namespace client
}  // namespace qor
