// The client transport against a scripted peer written with plain sockets.
#include "orvi/transport_simple_socket_client.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <chrono>

#include "loopback.h"
#include "testing/captured_output.h"
#include "testing/recording_handler.h"

namespace orvi {
namespace {

using support::hex;
using support::RawConnection;
using support::RawListener;
using support::to_hex;

std::string connect_error(TransportSimpleSocketClient& t, int timeout = 0) {
    try {
        t.connect(timeout);
    } catch (const SimpleSocketException& e) {
        return e.what();
    }
    return "(connected)";
}

// Runs the peer's side of the handshake and returns the connection.
std::unique_ptr<RawConnection> accept_and_greet(RawListener& listener, char answer = 1,
                                                std::string* hello = nullptr) {
    auto conn = std::make_unique<RawConnection>(listener.accept_one());
    const std::string bytes = conn->read(2);
    if (hello) *hello = bytes;
    conn->write(std::string(1, answer));
    return conn;
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
        std::thread t([&] { peer = accept_and_greet(listener); });
        transport->connect(0);
        t.join();
    }
};

TEST(ClientTransport, HandshakeSendsLeadAndVersionThenServes) {
    RawListener listener;
    TransportSimpleSocketClient t("127.0.0.1", listener.port_text());
    std::string hello;
    std::unique_ptr<RawConnection> peer;
    std::thread th([&] { peer = accept_and_greet(listener, 1, &hello); });
    EXPECT_EQ(connect_error(t), "(connected)");
    th.join();
    EXPECT_EQ(to_hex(hello), to_hex(hex("01 01")));
}

// A plain dotted quad skips the resolver; other numeric forms of the same
// address go through it, to the same place.
TEST(ClientTransport, ReachesTheSameAddressInEveryNumericForm) {
    RawListener listener;
    for (const char* host : {"127.0.0.1", "127.1", "0x7f.0.0.1"}) {
        for (const std::string& port : {listener.port_text(), "0" + listener.port_text()}) {
            TransportSimpleSocketClient t(host, port);
            std::unique_ptr<RawConnection> peer;
            std::thread th([&] { peer = accept_and_greet(listener); });
            EXPECT_EQ(connect_error(t), "(connected)") << host << ":" << port;
            th.join();
        }
    }
}

TEST(ClientTransport, HandshakeAnswerOtherThanOneIsAMismatch) {
    for (char answer : {char(0), char(2)}) {
        RawListener listener;
        TransportSimpleSocketClient t("127.0.0.1", listener.port_text());
        std::unique_ptr<RawConnection> peer;
        std::thread th([&] { peer = accept_and_greet(listener, answer); });
        EXPECT_EQ(connect_error(t), "Failed to connect, socket protocol mismatch");
        th.join();
        // The failed attempt leaves the transport idle and reusable.
        EXPECT_THROW(t.send_message(MessageConst()), SimpleSocketException);
    }
}

TEST(ClientTransport, ConnectFailures) {
    unsigned short closedPort;
    {
        RawListener gone;
        closedPort = gone.port();
    }
    TransportSimpleSocketClient refused("127.0.0.1", std::to_string(closedPort));
    EXPECT_EQ(connect_error(refused),
              "Failed to connect to 127.0.0.1:" + std::to_string(closedPort));

    // Resolved from local tables only: no name server is asked.
    TransportSimpleSocketClient badService("127.0.0.1", "no-such-service");
    EXPECT_EQ(connect_error(badService), "Failed to resolve hostname 127.0.0.1:no-such-service");

    RawListener listener;
    TransportSimpleSocketClient badBind("127.0.0.1", listener.port_text());
    badBind.m_bind = "192.0.2.1";  // documentation range, never on this machine
    EXPECT_EQ(connect_error(badBind), "Failed to bind to 192.0.2.1");

    TransportSimpleSocketClient badBindService("127.0.0.1", listener.port_text());
    badBindService.m_bind = "127.0.0.1:x";
    EXPECT_EQ(connect_error(badBindService), "Failed to resolve hostname 127.0.0.1:x");
}

TEST(ClientTransport, ConnectGivesUpAfterItsBudget) {
    // A listener whose accept queue is full drops further SYNs, so the
    // connection never completes.
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(fd, 0), 0);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    const unsigned short port = ntohs(addr.sin_port);
    std::vector<int> fillers;
    for (int i = 0; i < 4; ++i) {
        const int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(c, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        fillers.push_back(c);
    }
    usleep(100000);
    TransportSimpleSocketClient t("127.0.0.1", std::to_string(port));
    EXPECT_EQ(connect_error(t, 1), "Timeout occured");
    for (int c : fillers) close(c);
    close(fd);
}

TEST(ClientTransport, BindsToTheGivenLocalAddress) {
    RawListener listener;
    TransportSimpleSocketClient t("127.0.0.1", listener.port_text());
    t.m_bind = "127.0.0.2";
    std::string seen;
    std::thread th([&] {
        RawConnection conn(listener.accept_one(&seen));
        conn.read(2);
        conn.write(hex("01"));
    });
    EXPECT_EQ(connect_error(t), "(connected)");
    th.join();
    EXPECT_EQ(seen, "127.0.0.2");
}

TEST(ClientTransport, SendWritesOneWholeFrame) {
    Connected c;
    EXPECT_THROW(TransportSimpleSocketClient("127.0.0.1", "1").send_message(MessageConst()),
                 SimpleSocketException);
    const std::string a = "first", b = "second";
    MessageConst m;
    m.push_back(BufferConst(a.data(), a.size()));
    m.push_back(BufferConst(b.data(), b.size()));
    c.transport->send_message(42, m);  // the client id is ignored
    EXPECT_EQ(to_hex(c.peer->read(1 + 4 + 6 + 4 + 5)),
              to_hex(hex("02 00000006") + "second" + hex("00000005") + "first"));
}

TEST(ClientTransport, DeliversFramesInOrderAndReportsThePeerClosing) {
    Connected c;
    c.transport->start_serve(c.handler);
    EXPECT_EQ(c.handler->clients(), 1u);

    std::string burst;
    for (char i = 0; i < 20; ++i) burst += hex("01 00000001") + std::string(1, char('a' + i));
    c.peer->write(burst.substr(0, 13));
    usleep(20000);
    c.peer->write(burst.substr(13));
    ASSERT_TRUE(c.handler->wait_messages(20));
    const auto got = c.handler->messages();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(got[i].buffers.at(0), std::string(1, char('a' + i)));

    testing::CapturedOutput log;
    c.peer->close();
    ASSERT_TRUE(c.handler->wait_deleted(1));
    const std::string err = log.text();
    EXPECT_EQ(c.handler->deleted(), std::vector<unsigned int>{1});
    EXPECT_EQ(err.rfind("Worker got exception: Failed to read data from server: ", 0), 0u) << err;

    // Releasing the transport reports the same client once more.
    c.transport.reset();
    EXPECT_EQ(c.handler->deleted(), (std::vector<unsigned int>{1, 1}));
}

TEST(ClientTransport, UnreadableFrameEndsTheConnectionWithOneLine) {
    Connected c;
    c.transport->start_serve(c.handler);
    testing::CapturedOutput log;
    c.peer->write(hex("01 fffffff0 00"));
    c.peer->close();
    ASSERT_TRUE(c.handler->wait_deleted(1));
    const std::string err = log.text();
    EXPECT_EQ(err.rfind("Worker got exception: ", 0), 0u) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_TRUE(c.handler->messages().empty());
}

TEST(ClientTransport, DisconnectOfAnIdleServingTransportIsPrompt) {
    Connected c;
    c.transport->start_serve(c.handler);
    const auto start = std::chrono::steady_clock::now();
    c.transport->disconnect();
    const auto took = std::chrono::steady_clock::now() - start;
    // Bound well under one reader poll interval.
    EXPECT_LT(took, std::chrono::milliseconds(900));
    EXPECT_EQ(c.handler->deleted(), std::vector<unsigned int>{1});
    EXPECT_TRUE(c.peer->wait_closed());
}

TEST(ClientTransport, UrlConstructorTakesHostPortAndBind) {
    Url url;
    parse_url(url, "tcp://127.0.0.1:7001?bind=127.0.0.3");
    TransportSimpleSocketClient t(url);
    EXPECT_EQ(t.m_host, "127.0.0.1");
    EXPECT_EQ(t.m_port, "7001");
    EXPECT_EQ(t.m_bind, "127.0.0.3");
}

}  // namespace
}  // namespace orvi
