// SPDX-License-Identifier: Apache-2.0
// The server transport against raw-socket clients.
#include "orvi/transport_simple_socket_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "eventually.h"
#include "testing/captured_output.h"
#include "testing/raw_peer.h"
#include "testing/recording_handler.h"
#include "testing/thread_count.h"

namespace orvi {
namespace {

using support::RawConnection;
using support::to_hex;
using testing::thread_count;

struct Server {
    std::shared_ptr<TransportSimpleSocketServer> transport =
        std::make_shared<TransportSimpleSocketServer>("127.0.0.1", "0");
    std::shared_ptr<testing::RecordingHandler> handler =
        std::make_shared<testing::RecordingHandler>();
    // `configure` runs before serving starts, as the settings require.
    explicit Server(const std::function<void(TransportSimpleSocketServer&)>& configure = {}) {
        if (configure) configure(*transport);
        transport->listen();
        transport->start_serve(handler);
    }
    std::unique_ptr<RawConnection> greeted_client() {
        return testing::greeted_client(transport->local_port());
    }
};

// Each bad client is dropped alone, with one line: a wrong version, one that
// goes in the middle of a frame, and ones that never finish the handshake in
// time. The time limit is for the handshake only.
TEST(ServerTransport, BadClientsAreDroppedAloneWithOneLine) {
    Server s([](TransportSimpleSocketServer& t) { t.set_handshake_timeout_ms(100); });
    auto good = s.greeted_client();
    ASSERT_TRUE(s.handler->wait_clients(1));

    testing::CapturedOutput log;
    RawConnection wrongVersion(RawConnection::connect_to(s.transport->local_port()));
    wrongVersion.write(wire::kHello.substr(0, 1) + "\x02");
    EXPECT_EQ(wrongVersion.read(1), std::string(1, wire::kAccepted));  // the server's own version
    EXPECT_TRUE(wrongVersion.wait_closed());
    s.greeted_client()->write(wire::frame({"A", "B", "C"}).substr(0, 7));  // and goes
    ASSERT_TRUE(s.handler->wait_deleted(1));
    RawConnection silent(RawConnection::connect_to(s.transport->local_port()));
    RawConnection halfHello(RawConnection::connect_to(s.transport->local_port()));
    halfHello.write(wire::kHello.substr(0, 1));
    EXPECT_TRUE(silent.wait_closed());
    EXPECT_TRUE(halfHello.wait_closed());

    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    good->write(wire::frame({"ok"}));
    ASSERT_TRUE(s.handler->wait_messages(1));
    EXPECT_EQ(s.handler->messages()[0].buffers, std::vector<std::string>{"ok"});
    EXPECT_EQ(s.handler->messages()[0].client, 1u);
    const std::string err = log.text();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 4) << err;
    for (const char* line :
         {"version 2", "Dropping client 2: Failed to read data from server",
          "Dropping a connection before its handshake: nothing received within 100 ms"}) {
        EXPECT_NE(err.find(line), std::string::npos) << line << " in " << err;
    }
}

TEST(ServerTransport, ConnectionsBeyondTheCapAreClosedWithOneLine) {
    Server s([](TransportSimpleSocketServer& t) { t.set_max_clients(2); });
    testing::CapturedOutput log;
    auto a = s.greeted_client();
    auto b = s.greeted_client();
    ASSERT_TRUE(s.handler->wait_clients(2));
    for (int i = 0; i < 3; ++i) {
        RawConnection over(RawConnection::connect_to(s.transport->local_port()));
        EXPECT_TRUE(over.wait_closed());
    }
    a.reset();
    ASSERT_TRUE(s.handler->wait_deleted(1));
    // The freed place is taken again once the leaving reader is joined.
    ASSERT_TRUE(support::eventually([&] {
        try {
            return testing::greeted_client(s.transport->local_port()) != nullptr;
        } catch (const std::runtime_error&) {
            return false;  // closed at once, or never accepted
        }
    }));
    const std::string err = log.text();
    EXPECT_EQ(err.find("Refusing new connections: 2 connections are open, the most allowed\n"), 0u)
        << err;
}

// Clients that leave cleanly are reported without noise, and their reader
// threads end with them; stopping closes the rest promptly, a reader in the
// middle of a frame and a client still in its handshake too.
TEST(ServerTransport, ReaderThreadsEndWithTheirClientsAndStopClosesTheRest) {
    Server s;
    const size_t baseline = testing::thread_count_baseline();
    std::vector<std::unique_ptr<RawConnection>> clients;
    for (int i = 0; i < 20; ++i) clients.push_back(s.greeted_client());
    ASSERT_TRUE(s.handler->wait_clients(20));
    EXPECT_EQ(testing::thread_count_reaching(baseline + 20), baseline + 20);
    {
        testing::CapturedOutput log;
        clients.resize(2);
        ASSERT_TRUE(s.handler->wait_deleted(18));
        EXPECT_EQ(log.text(), "");  // a clean disconnect makes no noise
    }
    // No new connection comes to prompt the clean-up.
    EXPECT_TRUE(support::eventually([&] { return thread_count() == baseline + 2; }))
        << thread_count();

    RawConnection silent(RawConnection::connect_to(s.transport->local_port()));
    clients[0]->write(wire::frame({"AB", "C"}).substr(0, 6));  // the reader is mid-frame
    const auto start = std::chrono::steady_clock::now();
    s.transport->stop_serve();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_TRUE(clients[0]->wait_closed());
    EXPECT_TRUE(clients[1]->wait_closed());
    EXPECT_TRUE(silent.wait_closed());
    EXPECT_EQ(s.handler->deleted().size(), 20u);
    EXPECT_THROW(RawConnection::connect_to(s.transport->local_port()), std::runtime_error);
}

}  // namespace
}  // namespace orvi
