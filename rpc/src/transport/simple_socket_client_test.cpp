// SPDX-License-Identifier: Apache-2.0
// The client transport against a board written with plain sockets: alone,
// and under the engine as qorc runs it, where a caller reads its own answer
// (TransportSimpleSocketClient::read_until), taking the socket from the
// reader thread and going on from the same byte. Run under ASan and TSan,
// which see what the checks cannot. (Answers followed at once by a hang-up,
// or inside the DONE, are raced against qorc itself in
// tests/board_races_test.cpp.)
#include "orvi/transport_simple_socket_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <chrono>
#include <functional>
#include <thread>

#include "error_of.h"
#include "orvi/protocol.h"
#include "testing/captured_output.h"
#include "testing/raw_peer.h"
#include "testing/recording_handler.h"
#include "testing/thread_count.h"

namespace orvi {
namespace {

using support::RawConnection;
using support::RawListener;
using support::to_hex;
using testing::frame_of;
using testing::reply;

// A board on raw sockets, and a client transport connected to it.
struct Board {
    RawListener listener;
    std::unique_ptr<RawConnection> peer;
    std::shared_ptr<TransportSimpleSocketClient> transport =
        std::make_shared<TransportSimpleSocketClient>("127.0.0.1", listener.port_text());
    explicit Board(bool idleReader = true) {
        transport->set_idle_reader(idleReader);
        std::thread accept([&] { peer = testing::accept_client(listener); });
        transport->connect(0);
        accept.join();
    }
};

// The transport served by a handler that records what it reports.
struct Connected : Board {
    std::shared_ptr<testing::RecordingHandler> handler =
        std::make_shared<testing::RecordingHandler>();
    Connected() { transport->start_serve(handler); }
};

// Every way a connection attempt ends, against a board that answers the
// greeting with `answer` when the attempt reaches it.
TEST(ClientTransport, ConnectOutcomes) {
    RawListener listener;
    const std::string port = listener.port_text();
    const std::string mismatch = "Failed to connect, socket protocol mismatch";
    const std::string kConnected = "(no error)";
    const struct {
        const char* host;
        std::string port;
        const char* bind;
        char answer;
        std::string outcome;
    } cases[] = {
        // A plain dotted quad skips the resolver; other numeric forms of the
        // same address go through it, to the same place.
        {"127.0.0.1", port, "", 1, kConnected},
        {"127.1", port, "", 1, kConnected},
        {"0x7f.0.0.1", "0" + port, "", 1, kConnected},
        {"127.0.0.1", "0" + port, "127.0.0.2", 1, kConnected},
        {"127.0.0.1", port, "", 0, mismatch},
        {"127.0.0.1", port, "", 2, mismatch},
        {"127.0.0.1", port, "127.0.0.1:x", 1, "Failed to resolve hostname 127.0.0.1:x"},
    };
    for (const auto& c : cases) {
        const std::string name = std::string(c.host) + ":" + c.port + " bind " + c.bind;
        const bool reached = c.outcome == kConnected || c.outcome == mismatch;
        TransportSimpleSocketClient t(c.host, c.port);
        t.m_bind = c.bind;
        std::string hello, from;
        std::thread board([&] {
            if (!reached) return;
            RawConnection conn(listener.accept_one(&from));
            hello = conn.read(wire::kHello.size());
            conn.write(std::string(1, c.answer));
        });
        EXPECT_EQ(support::error_of<SimpleSocketException>([&] { t.connect(0); }), c.outcome)
            << name;
        board.join();
        if (!reached) continue;
        EXPECT_EQ(to_hex(hello), to_hex(wire::kHello)) << name;
        EXPECT_EQ(from, *c.bind ? c.bind : "127.0.0.1") << name;
        // A failed attempt leaves the transport idle.
        if (c.outcome != kConnected) {
            EXPECT_THROW(t.send_message(MessageConst()), SimpleSocketException) << name;
        }
    }
}

// Frames cut across reads arrive whole and in order, with empty ones, which
// deliver nothing, between; then the peer's leaving is reported.
TEST(ClientTransport, FramesCutAcrossReadsThenThePeerClosing) {
    Connected c;
    EXPECT_TRUE(c.handler->wait_clients(1));
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

struct Call : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::string reply;
    std::thread::id routed_on;
    void process_message(const char* data, unsigned int size) override {
        reply.assign(data, size);
        routed_on = std::this_thread::get_id();
    }
};

// A client engine, as qor::Client sets it up, on the transport.
struct Session : Board {
    Protocol protocol{1};
    explicit Session(bool idleReader = true) : Board(idleReader) {
        protocol.add_transport(transport);
    }
    // Calls "ask" and waits for its end; the failure text, or "(no error)". With `then`, the board,
    // on a thread of its own, checks the opening frame byte for byte and then does `then`.
    std::string ask(std::shared_ptr<Call>& call, const std::function<void()>& then = nullptr) {
        std::thread board_side([&] {
            if (!then) return;
            const std::string opening = frame_of(testing::opening("ask", 1, ""));
            EXPECT_EQ(support::to_hex(peer->read(opening.size())), support::to_hex(opening));
            then();
        });
        call = protocol.create_command_proxy<Call>("ask");
        const std::string error = support::error_of<ProxyCommandException>([&] {
            call->send_message(nullptr, 0);
            call->wait();
        });
        board_side.join();
        return error;
    }
};

// Header{COMMAND, source 5, dest 1}, CommandHeader{DONE}, "hi".
const std::string kAnswer = frame_of(reply(5, 1, wire::kDone, {"hi"}));
// A refusal for a proxy that nobody here has.
const std::string kRefusalForNobody = frame_of(testing::refusal(99));

// The caller routes its answer on its own thread, going on from the byte
// where the reader thread stopped in the middle of a frame: in a length or
// in a header.
TEST(CallerReads, TheAnswerIsRoutedOnTheWaitingThread) {
    for (size_t cut : {3, 7}) {
        Session s;
        // Idle long enough for the reader thread to watch the socket; it
        // reads the start of a frame and waits for the rest.
        usleep(100000);
        s.peer->write(kRefusalForNobody.substr(0, cut));
        usleep(50000);
        std::shared_ptr<Call> call;
        EXPECT_EQ(s.ask(call,
                        [&] {
                            // Late enough that the caller is waiting: an answer
                            // that comes before is the reader thread's to deliver.
                            usleep(50000);
                            s.peer->write(kRefusalForNobody.substr(cut) + kAnswer);
                        }),
                  "(no error)")
            << cut;
        EXPECT_EQ(call->reply, "hi");
        EXPECT_EQ(call->routed_on, std::this_thread::get_id());
        // Once done, a late DATA for proxy 1 finds nobody: refused to its sender.
        s.peer->write(frame_of(reply(5, 1, wire::kData, {"x"})));
        EXPECT_EQ(testing::read_parts(*s.peer), wire::parts(testing::refusal(5)));
    }
}

// Without an idle reader, what comes between calls, a frame or the loss,
// waits for the next caller, who delivers it in order before its own answer.
TEST(CallerReads, WithoutAnIdleReaderTheNextCallerDeliversWhatCameBetween) {
    const size_t before = testing::thread_count_baseline();
    Session s(false);
    EXPECT_EQ(testing::thread_count_reaching(before),
              before);  // no reader, and workers start when needed
    s.peer->write(kRefusalForNobody);
    usleep(100000);
    EXPECT_EQ(s.protocol.stats().messages_processed, 0u);
    std::shared_ptr<Call> call;
    // An EXCEPTION without text, its body in place, ends the call normally.
    EXPECT_EQ(s.ask(call, [&] { s.peer->write(frame_of(reply(5, 1, wire::kException, {"hi"}))); }),
              "(no error)");
    EXPECT_EQ(call->reply, "hi");
    EXPECT_EQ(s.protocol.stats().messages_processed, 2u);  // the refusal, then the answer

    s.peer->close();
    usleep(100000);
    EXPECT_EQ(s.protocol.stats().clients_active, 1u);  // nobody has looked yet
    testing::CapturedOutput log;
    EXPECT_EQ(s.ask(call), "Connection lost");
    EXPECT_EQ(log.text(), "Worker got exception: Failed to read data from server: Success\n");
    EXPECT_EQ(s.protocol.stats().clients_active, 0u);
}

// A life handler is told of the engine's end with its pointer already
// cleared, so that it never reaches the engine being destroyed.
TEST(EngineHazards, ALifeHandlerIsDetachedBeforeItIsTold) {
    struct Watcher : ProtocolLifeHandler {
        bool detached = false;
        void on_protocol_destroyed(Protocol*) override { detached = m_protocol.load() == nullptr; }
    } watcher;
    auto protocol = std::make_unique<Protocol>(1);
    protocol->register_life_handler(&watcher);
    protocol.reset();
    EXPECT_TRUE(watcher.detached);
}

// Disconnecting a serving transport whose reader is idle is prompt. Sends on
// another thread meanwhile either go out whole or are refused, and once
// refused stay refused.
TEST(TransportHazards, SendsRaceAPromptDisconnectSafely) {
    Connected c;
    const auto& transport = c.transport;
    bool refused = false, sentAfterRefusal = false;
    std::thread sender([&] {
        const char byte = 'x';
        MessageConst m;
        m.push_back(BufferConst(&byte, 1));
        for (int i = 0; i < 2000; ++i) {
            try {
                transport->send_message(m);
                sentAfterRefusal |= refused;
            } catch (const SimpleSocketException&) {
                refused = true;
            }
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto start = std::chrono::steady_clock::now();
    transport->disconnect();
    // Bound well under one reader poll interval.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    sender.join();
    EXPECT_EQ(c.handler->deleted(), std::vector<unsigned int>{1});
    EXPECT_FALSE(sentAfterRefusal);
    // What went out arrived whole, and then the end of the connection.
    EXPECT_EQ(support::error_of<std::runtime_error>([&] {
                  for (;;) EXPECT_EQ(testing::read_parts(*c.peer), std::vector<std::string>{"x"});
              }),
              "raw read: peer closed");
    EXPECT_THROW(transport->send_message(MessageConst()), SimpleSocketException);
}

}  // namespace
}  // namespace orvi
