// The server transport against raw-socket clients.
#include "orvi/transport_simple_socket_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "loopback.h"
#include "testing/captured_output.h"
#include "testing/recording_handler.h"
#include "testing/thread_count.h"

namespace orvi {
namespace {

using support::hex;
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
        auto c =
            std::make_unique<RawConnection>(RawConnection::connect_to(transport->local_port()));
        c->write(hex("01 01"));
        EXPECT_EQ(to_hex(c->read(1)), "01 ");
        return c;
    }
};

TEST(ServerTransport, ServesManyClientsBothWays) {
    Server s;
    EXPECT_NE(s.transport->local_port(), 0);
    EXPECT_TRUE(s.transport->is_server());
    auto a = s.greeted_client();
    auto b = s.greeted_client();
    ASSERT_TRUE(s.handler->wait_clients(2));

    a->write(hex("02 00000001 41 00000002 4242"));
    b->write(hex("01 00000000"));
    ASSERT_TRUE(s.handler->wait_messages(2));
    for (const auto& m : s.handler->messages()) {
        if (m.buffers.size() == 2) {
            EXPECT_EQ(m.buffers[0], "A");
            EXPECT_EQ(m.buffers[1], "BB");
        } else {
            ASSERT_EQ(m.buffers.size(), 1u);
            EXPECT_EQ(m.buffers[0], "");
        }
    }

    const std::string x = "x", yz = "yz";
    MessageConst m;
    m.push_back(BufferConst(x.data(), 1));
    m.push_back(BufferConst(yz.data(), 2));
    const unsigned int idA = s.handler->messages()[0].buffers.size() == 2
                                 ? s.handler->messages()[0].client
                                 : s.handler->messages()[1].client;
    s.transport->send_message(idA, m);
    EXPECT_EQ(to_hex(a->read(12)), to_hex(hex("02 00000002 797a 00000001 78")));
    s.transport->send_message(999, m);  // a client that never was: ignored
}

TEST(ServerTransport, BadClientsAreDroppedAloneWithOneLine) {
    Server s;
    auto good = s.greeted_client();
    ASSERT_TRUE(s.handler->wait_clients(1));

    testing::CapturedOutput log;
    {
        RawConnection wrongVersion(RawConnection::connect_to(s.transport->local_port()));
        wrongVersion.write(hex("01 02"));
        EXPECT_EQ(to_hex(wrongVersion.read(1)), "01 ");
        EXPECT_TRUE(wrongVersion.wait_closed());
    }
    {
        auto vanishing = s.greeted_client();
        ASSERT_TRUE(s.handler->wait_clients(2));
        vanishing->write(hex("03 00000010 41"));
    }
    ASSERT_TRUE(s.handler->wait_deleted(1));
    const std::string err = log.text();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 2) << err;
    EXPECT_NE(err.find("version 2"), std::string::npos) << err;
    EXPECT_NE(err.find("Dropping client 2: Failed to read data from server"), std::string::npos)
        << err;

    good->write(hex("01 00000002 6f6b"));
    ASSERT_TRUE(s.handler->wait_messages(1));
    EXPECT_EQ(s.handler->messages()[0].buffers[0], "ok");
    EXPECT_EQ(s.handler->messages()[0].client, 1u);
}

TEST(ServerTransport, CleanDisconnectIsReportedWithoutNoise) {
    Server s;
    testing::CapturedOutput log;
    s.greeted_client().reset();
    ASSERT_TRUE(s.handler->wait_deleted(1));
    EXPECT_EQ(log.text(), "");
}

TEST(ServerTransport, StopClosesEverythingPromptly) {
    Server s;
    auto a = s.greeted_client();
    auto b = s.greeted_client();
    RawConnection silent(RawConnection::connect_to(s.transport->local_port()));
    ASSERT_TRUE(s.handler->wait_clients(2));
    a->write(hex("02 00000004 41"));  // half a frame: the reader is mid-read

    const auto start = std::chrono::steady_clock::now();
    s.transport->stop_serve();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_TRUE(a->wait_closed());
    EXPECT_TRUE(b->wait_closed());
    EXPECT_TRUE(silent.wait_closed());
    EXPECT_EQ(s.handler->deleted().size(), 2u);
    EXPECT_THROW(RawConnection::connect_to(s.transport->local_port()), std::runtime_error);
}

bool wait_for(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

TEST(ServerTransport, SilentConnectionIsDroppedAfterTheHandshakeTimeout) {
    Server s([](TransportSimpleSocketServer& t) { t.set_handshake_timeout_ms(100); });
    testing::CapturedOutput log;
    RawConnection silent(RawConnection::connect_to(s.transport->local_port()));
    RawConnection halfHello(RawConnection::connect_to(s.transport->local_port()));
    halfHello.write(hex("01"));
    EXPECT_TRUE(silent.wait_closed());
    EXPECT_TRUE(halfHello.wait_closed());
    auto late = s.greeted_client();  // the timeout is for the handshake only
    ASSERT_TRUE(s.handler->wait_clients(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    late->write(hex("01 00000002 6f6b"));
    ASSERT_TRUE(s.handler->wait_messages(1));
    const std::string err = log.text();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 2) << err;
    EXPECT_NE(
        err.find("Dropping a connection before its handshake: nothing received within 100 ms"),
        std::string::npos)
        << err;
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
    ASSERT_TRUE(wait_for([&] {
        RawConnection probe(RawConnection::connect_to(s.transport->local_port()));
        probe.write(hex("01 01"));
        try {
            return to_hex(probe.read(1)) == "01 ";
        } catch (const std::runtime_error&) {
            return false;
        }
    }));
    const std::string err = log.text();
    EXPECT_EQ(err.find("Refusing new connections: 2 connections are open, the most allowed\n"), 0u)
        << err;
}

TEST(ServerTransport, ReaderThreadsEndWithTheirClients) {
    Server s;
    const size_t baseline = testing::thread_count_baseline();
    std::vector<std::unique_ptr<RawConnection>> clients;
    for (int i = 0; i < 20; ++i) clients.push_back(s.greeted_client());
    ASSERT_TRUE(s.handler->wait_clients(20));
    EXPECT_EQ(testing::thread_count_reaching(baseline + 20), baseline + 20);
    clients.clear();
    ASSERT_TRUE(s.handler->wait_deleted(20));
    // No new connection comes to prompt the clean-up.
    EXPECT_TRUE(wait_for([&] { return thread_count() == baseline; })) << thread_count();
}

}  // namespace
}  // namespace orvi
