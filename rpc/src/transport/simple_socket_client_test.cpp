// SPDX-License-Identifier: Apache-2.0
// The client transport against a scripted peer written with plain sockets.
#include "orvi/transport_simple_socket_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <chrono>

#include "testing/captured_output.h"
#include "testing/raw_peer.h"
#include "testing/recording_handler.h"

namespace orvi {
namespace {

using support::RawConnection;
using support::RawListener;
using support::to_hex;

std::string connect_error(TransportSimpleSocketClient& t) {
    try {
        t.connect(0);
    } catch (const SimpleSocketException& e) {
        return e.what();
    }
    return "connected";
}

struct Connected {
    RawListener listener;
    std::shared_ptr<TransportSimpleSocketClient> transport;
    std::unique_ptr<RawConnection> peer;
    std::shared_ptr<testing::RecordingHandler> handler =
        std::make_shared<testing::RecordingHandler>();

    Connected() {
        transport =
            std::make_shared<TransportSimpleSocketClient>("127.0.0.1", listener.port_text());
        std::thread t([&] { peer = testing::accept_client(listener); });
        transport->connect(0);
        t.join();
        transport->start_serve(handler);
    }
};

// Every way a connection attempt ends, against a board that answers the
// greeting with `answer` when the attempt reaches it.
TEST(ClientTransport, ConnectOutcomes) {
    RawListener listener;
    const std::string port = listener.port_text();
    const std::string closed = support::closed_address().substr(10);
    const std::string mismatch = "Failed to connect, socket protocol mismatch";
    const struct {
        const char* host;
        std::string port;
        const char* bind;
        char answer;
        std::string outcome;
    } cases[] = {
        // A plain dotted quad skips the resolver; other numeric forms of the
        // same address go through it, to the same place.
        {"127.0.0.1", port, "", 1, "connected"},
        {"127.1", port, "", 1, "connected"},
        {"0x7f.0.0.1", "0" + port, "", 1, "connected"},
        {"127.0.0.1", "0" + port, "127.0.0.2", 1, "connected"},
        {"127.0.0.1", port, "", 0, mismatch},
        {"127.0.0.1", port, "", 2, mismatch},
        {"127.0.0.1", closed, "", 1, "Failed to connect to 127.0.0.1:" + closed},
        // Resolved from local tables only: no name server is asked.
        {"127.0.0.1", "no-such-service", "", 1,
         "Failed to resolve hostname 127.0.0.1:no-such-service"},
        // Documentation range, never on this machine.
        {"127.0.0.1", port, "192.0.2.1", 1, "Failed to bind to 192.0.2.1"},
        {"127.0.0.1", port, "127.0.0.1:x", 1, "Failed to resolve hostname 127.0.0.1:x"},
    };
    for (const auto& c : cases) {
        const std::string name = std::string(c.host) + ":" + c.port + " bind " + c.bind;
        const bool reached = c.outcome == "connected" || c.outcome == mismatch;
        TransportSimpleSocketClient t(c.host, c.port);
        t.m_bind = c.bind;
        std::string hello, from;
        std::thread board([&] {
            if (!reached) return;
            RawConnection conn(listener.accept_one(&from));
            hello = conn.read(wire::kHello.size());
            conn.write(std::string(1, c.answer));
        });
        EXPECT_EQ(connect_error(t), c.outcome) << name;
        board.join();
        if (!reached) continue;
        EXPECT_EQ(to_hex(hello), to_hex(wire::kHello)) << name;
        EXPECT_EQ(from, *c.bind ? c.bind : "127.0.0.1") << name;
        // A failed attempt leaves the transport idle.
        if (c.outcome != "connected") {
            EXPECT_THROW(t.send_message(MessageConst()), SimpleSocketException) << name;
        }
    }
}

// Frames both ways, whole and in order, and the peer's leaving reported.
TEST(ClientTransport, FramesBothWaysThenThePeerClosing) {
    Connected c;
    EXPECT_EQ(c.handler->clients(), 1u);
    const std::string a = "first", b = "second";
    MessageConst m;
    m.push_back(BufferConst(a.data(), a.size()));
    m.push_back(BufferConst(b.data(), b.size()));
    c.transport->send_message(42, m);  // the client id is ignored
    const std::string sent = wire::frame({"second", "first"});
    EXPECT_EQ(to_hex(c.peer->read(sent.size())), to_hex(sent));

    // Frames cut across reads, with empty ones, which deliver nothing, between.
    std::string burst;
    for (char i = 0; i < 20; ++i)
        burst += wire::frame({std::string(1, char('a' + i))}) + wire::frame({});
    c.peer->write(burst.substr(0, 10));
    usleep(20000);
    c.peer->write(burst.substr(10));
    ASSERT_TRUE(c.handler->wait_messages(20));
    const auto got = c.handler->messages();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(got[i].buffers.at(0), std::string(1, char('a' + i)));

    testing::CapturedOutput log;
    c.peer->close();
    ASSERT_TRUE(c.handler->wait_deleted(1));
    EXPECT_EQ(c.handler->deleted(), std::vector<unsigned int>{1});
    EXPECT_EQ(log.text(), "Worker got exception: Failed to read data from server: Success\n");

    // Releasing the transport reports the same client once more.
    c.transport.reset();
    EXPECT_EQ(c.handler->deleted(), (std::vector<unsigned int>{1, 1}));
}

TEST(ClientTransport, DisconnectOfAnIdleServingTransportIsPrompt) {
    Connected c;
    const auto start = std::chrono::steady_clock::now();
    c.transport->disconnect();
    // Bound well under one reader poll interval.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    EXPECT_EQ(c.handler->deleted(), std::vector<unsigned int>{1});
    EXPECT_TRUE(c.peer->wait_closed());
}

// This process's descriptor connected to 127.0.0.1:port, or -1.
int connected_to(unsigned short port) {
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == port)
            return fd;
    }
    return -1;
}

// The kernel watches the connection, read back from the socket itself.
TEST(ClientTransport, TheConnectionIsWatched) {
    Connected c;
    const int fd = connected_to(c.listener.port());
    ASSERT_GE(fd, 0);
    const struct {
        int level, name, value;
    } options[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                   {IPPROTO_TCP, TCP_KEEPIDLE, 10},
                   {IPPROTO_TCP, TCP_KEEPINTVL, 5},
                   {IPPROTO_TCP, TCP_KEEPCNT, 3},
                   {IPPROTO_TCP, TCP_USER_TIMEOUT, 30000}};
    for (const auto& o : options) {
        int value = -1;
        socklen_t len = sizeof value;
        EXPECT_EQ(getsockopt(fd, o.level, o.name, &value, &len), 0);
        EXPECT_EQ(value, o.value) << o.level << "/" << o.name;
    }
}

}  // namespace
}  // namespace orvi
