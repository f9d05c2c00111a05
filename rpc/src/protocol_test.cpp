// Two engines joined by an in-process pipe, and raw-socket peers of a
// serving engine where exact bytes matter.
#include "orvi/protocol.h"

#include <unistd.h>

#include <gtest/gtest.h>
#include <atomic>
#include <chrono>

#include "envelope/header.pb.h"
#include "envelope/proxy/command_header.pb.h"
#include "loopback.h"
#include "orvi/transport_simple_socket_client.h"
#include "orvi/transport_simple_socket_server.h"
#include "testing/captured_output.h"
#include "testing/pipe_transport.h"

namespace orvi {
namespace {

using support::hex;
using support::RawConnection;
using support::to_hex;

// --- handler proxies for the serving engine -------------------------------

struct Echo : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char* data, unsigned int size) override {
        send_message(data, size);
        set_done();
    }
};

struct Fails : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char* data, unsigned int size) override {
        const std::string what(data, size);
        if (what == "int") throw 42;
        if (what == "empty") {
            send_command_exception("");
            Proxy::set_done();
            return;
        }
        throw std::runtime_error(what);
    }
};

// Answers with how many requests this very proxy object has seen, and never
// finishes on its own.
struct Counter : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    int seen = 0;
    void process_message(const char*, unsigned int) override {
        const std::string n = std::to_string(++seen);
        send_message(n.data(), static_cast<unsigned int>(n.size()));
    }
};

std::atomic<bool> g_hanging{false};
struct Hangs : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char*, unsigned int) override { g_hanging = true; }
};

// Answers with the request inside its DONE, then hangs up, as a board does
// when it reboots.
testing::PipeEnd* g_hangUp = nullptr;
struct AnswersAndHangsUp : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char* data, unsigned int size) override {
        CommandHeader done;
        done.set_status(CommandHeader::DONE);
        MessageConst body;
        body.push_back(BufferConst(data, size));
        send_message(done, body);
        Proxy::set_done();
        g_hangUp->close();
    }
};

// --- the calling side -----------------------------------------------------

struct Call : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::string reply;
    // Takes its time over each answer body, so that a waiter released too
    // early would see nothing.
    bool slow = false;
    void process_message(const char* data, unsigned int size) override {
        if (slow) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        reply.assign(data, size);
    }
    std::string execute(const std::string& body) {
        send_message(body.data(), static_cast<unsigned int>(body.size()));
        wait();
        return reply;
    }
};

void add_test_commands(Protocol& protocol) {
    protocol.add_command("echo", std::make_shared<ProxyFactoryTpl<Echo>>());
    protocol.add_command("fails", std::make_shared<ProxyFactoryTpl<Fails>>());
    protocol.add_command("count", std::make_shared<ProxyFactoryTpl<Counter>>());
    protocol.add_command("hangs", std::make_shared<ProxyFactoryTpl<Hangs>>());
    protocol.add_command("answer_and_hang_up",
                         std::make_shared<ProxyFactoryTpl<AnswersAndHangsUp>>());
}

// A serving engine behind a real socket, for the tests of exact bytes.
struct ServerEngine {
    std::unique_ptr<Protocol> protocol;
    std::shared_ptr<TransportSimpleSocketServer> transport;
    explicit ServerEngine(size_t workers = 1) : protocol(new Protocol(workers)) {
        add_test_commands(*protocol);
        transport = std::make_shared<TransportSimpleSocketServer>("127.0.0.1", "0");
        transport->listen();
        protocol->add_transport(transport);
    }
    std::string port() const { return std::to_string(transport->local_port()); }
};

struct ClientEngine {
    Protocol protocol{1};
    // Over a real socket.
    void connect(const std::string& port) {
        auto t = std::make_shared<TransportSimpleSocketClient>("127.0.0.1", port);
        t->connect(0);
        protocol.add_transport(t);
    }
    std::string call(const char* name, const std::string& body) {
        return protocol.create_command_proxy<Call>(name)->execute(body);
    }
};

// A serving engine joined to a client engine through an in-process pipe.
struct Board {
    Protocol protocol{1};
    std::shared_ptr<testing::PipeEnd> end;
    Board() { add_test_commands(protocol); }
    void join(ClientEngine& client) {
        std::shared_ptr<testing::PipeEnd> theirs;
        std::tie(end, theirs) = testing::make_pipe();
        protocol.add_transport(end);
        client.protocol.add_transport(theirs);
    }
};

struct Pair {
    Board server;
    ClientEngine client;
    Pair() { server.join(client); }
};

template <class E>
std::string failure(const std::function<void()>& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "(no exception)";
}

TEST(Engines, DataThenDoneReachesTheCaller) {
    Pair p;
    EXPECT_EQ(p.client.call("echo", "hello"), "hello");
    EXPECT_EQ(p.client.call("echo", ""), "");
    const std::string big(100000, 'b');
    EXPECT_EQ(p.client.call("echo", big), big);
    EXPECT_EQ(p.client.protocol.stats().proxies_active, 0u);
}

TEST(Engines, RemoteFailures) {
    Pair p;
    EXPECT_EQ(failure<ProxyCommandException>([&] { p.client.call("fails", "disk full"); }),
              "disk full");
    EXPECT_EQ(failure<ProxyCommandException>([&] { p.client.call("fails", "int"); }),
              "Unknown exception occured");
    // An exception without text is a normal return.
    EXPECT_EQ(p.client.call("fails", "empty"), "");
}

TEST(Engines, UnknownCommandIsNoHandlerOnBothSides) {
    Pair p;
    testing::CapturedOutput log;
    EXPECT_EQ(failure<ProxyCommandNoHandler>([&] { p.client.call("nope", "x"); }),
              "No handler found");
    EXPECT_EQ(log.text(), "1: there is no command handler for \"nope\"\n");
    // The session goes on.
    EXPECT_EQ(p.client.call("echo", "still"), "still");
}

TEST(Engines, DroppedConnectionLosesTheCommand) {
    Pair p;
    g_hanging = false;
    std::thread dropper([&] {
        while (!g_hanging) usleep(1000);
        p.server.end->close();
    });
    EXPECT_EQ(failure<ProxyCommandException>([&] { p.client.call("hangs", "x"); }),
              "Connection lost");
    dropper.join();
    // With the peer gone there is nobody to bind to.
    EXPECT_EQ(failure<ProtocolException>([&] { p.client.call("echo", "x"); }),
              "clientMap.size() == 0");
}

// The answer inside the DONE is in place when wait() returns, and the
// hang-up right behind it is handled after it: never "Connection lost".
TEST(Engines, AnAnswerInsideTheDoneThenAHangUpIsAllThere) {
    for (int run = 0; run < 10; ++run) {
        Pair p;
        g_hangUp = p.server.end.get();
        auto call = p.client.protocol.create_command_proxy<Call>("answer_and_hang_up");
        call->slow = true;
        EXPECT_EQ(call->execute("hi"), "hi") << "run " << run;
    }
}

TEST(Engines, NoPeerAndTwoPeers) {
    ClientEngine client;
    testing::CapturedOutput log;
    EXPECT_EQ(
        failure<ProtocolException>([&] { client.protocol.create_command_proxy<Call>("echo"); }),
        "clientMap.size() == 0");
    EXPECT_EQ(log.text(), "Error: clientMap.size() == 0\n");

    Board first, second;
    first.join(client);
    second.join(client);
    testing::CapturedOutput warning;
    auto proxy = client.protocol.create_command_proxy<Call>("echo");
    EXPECT_EQ(warning.text(), "Warning: clientMap.size() == 2\n");
    EXPECT_EQ(proxy->get_transport_client_id(), 1u);
    EXPECT_EQ(proxy->execute("to the first"), "to the first");
    EXPECT_EQ(first.protocol.stats().proxies_created, 1u);
    EXPECT_EQ(second.protocol.stats().proxies_created, 0u);
}

// --- exact bytes, with a raw socket on one side ---------------------------

// A frame read by hand: count, then length and data of each buffer.
std::vector<std::string> read_raw_frame(RawConnection& c) {
    const unsigned char n = static_cast<unsigned char>(c.read(1)[0]);
    std::vector<std::string> buffers;
    for (unsigned i = 0; i < n; ++i) {
        const std::string len = c.read(4);
        const size_t size = (size_t(uint8_t(len[0])) << 24) | (size_t(uint8_t(len[1])) << 16) |
                            (size_t(uint8_t(len[2])) << 8) | size_t(uint8_t(len[3]));
        buffers.push_back(c.read(size));
    }
    return buffers;
}

// An opening command as a peer would write it: Header{COMMAND, source, name},
// CommandHeader{DATA}, body.
std::string raw_opening(const std::string& name, char source, const std::string& body) {
    const std::string header = hex("08 00 10") + source + hex("1a") + char(name.size()) + name;
    return hex("03 000000") + char(header.size()) + header + hex("00000002 0800 000000") +
           char(body.size()) + body;
}

std::unique_ptr<RawConnection> raw_client(ServerEngine& server) {
    auto c =
        std::make_unique<RawConnection>(RawConnection::connect_to(server.transport->local_port()));
    c->write(hex("01 01"));
    c->read(1);
    return c;
}

TEST(EngineBytes, ClientCommandFrameIsExact) {
    support::RawListener listener;
    ClientEngine client;
    std::unique_ptr<RawConnection> peer;
    std::thread accept([&] {
        peer = std::make_unique<RawConnection>(listener.accept_one());
        peer->read(2);
        peer->write(hex("01"));
    });
    client.connect(listener.port_text());
    accept.join();

    std::string reply;
    std::thread call([&] { reply = client.call("com.korvane.command.echo", "coucou"); });
    const std::string name = "com.korvane.command.echo";  // 24 bytes
    const std::string expected =
        hex("03  0000001e 0800 1001 1a18") + name + hex("00000002 0800  00000006") + "coucou";
    EXPECT_EQ(to_hex(peer->read(expected.size())), to_hex(expected));

    // Answer as a board does: DATA with the body, then DONE, both addressed
    // to proxy 1 from our proxy 9.
    peer->write(hex("03 00000006 0800 1009 2001 00000002 0800 00000002") + "ok" +
                hex("02 00000006 0800 1009 2001 00000002 0801"));
    call.join();
    EXPECT_EQ(reply, "ok");

    // Once done, a late DATA for proxy 1 finds nobody: NO_HANDLER back to 9.
    peer->write(hex("03 00000006 0800 1009 2001 00000002 0800 00000001") + "x");
    EXPECT_EQ(read_raw_frame(*peer), std::vector<std::string>{hex("0801 2009")});
}

TEST(EngineBytes, UnknownProxyDestAndReservedTypeGetNoHandler) {
    ServerEngine server;
    auto c = raw_client(server);
    // proxy_dest 99 wins over a name that would match.
    c->write(hex("03 0000000c 0800 1005 1a04") + "echo" + hex("2063 00000002 0800 00000001 78"));
    EXPECT_EQ(read_raw_frame(*c), std::vector<std::string>{hex("0801 2005")});
    c->write(hex("01 00000004 0802 1007"));
    EXPECT_EQ(read_raw_frame(*c), std::vector<std::string>{hex("0801 2007")});
    // Garbage header: routed as a COMMAND without name, answered the same way.
    testing::CapturedOutput log;
    c->write(hex("01 00000003 ffffff"));
    EXPECT_EQ(read_raw_frame(*c), std::vector<std::string>{hex("0801 2000")});
    EXPECT_EQ(log.text(), "1: there is no command handler for \"\"\n");
}

TEST(EngineBytes, RepeatedOpeningReachesTheSameHandler) {
    ServerEngine server;
    auto c = raw_client(server);
    c->write(raw_opening("count", 5, "a"));
    const auto first = read_raw_frame(*c);
    c->write(raw_opening("count", 5, "b"));
    const auto second = read_raw_frame(*c);
    ASSERT_EQ(first.size(), 3u);
    ASSERT_EQ(second.size(), 3u);
    EXPECT_EQ(first[2], "1");
    EXPECT_EQ(second[2], "2");
    // Same serving proxy (source 1), addressed back to our proxy 5.
    EXPECT_EQ(to_hex(first[0]), to_hex(hex("0800 1001 2005")));
    EXPECT_EQ(first[0], second[0]);
    EXPECT_EQ(server.protocol->stats().proxies_created, 1u);
}

TEST(EngineBytes, OpenCommandsPerPeerAreCapped) {
    ServerEngine server;
    server.protocol->set_max_handlers_per_client(3);
    auto c = raw_client(server);
    auto answer_of = [&](const std::string& name, char source) {
        c->write(raw_opening(name, source, "x"));
        const auto frame = read_raw_frame(*c);
        return frame.size() == 3 ? frame[2] : to_hex(frame.at(0));
    };
    EXPECT_EQ(answer_of("count", 1), "1");
    EXPECT_EQ(answer_of("count", 2), "1");
    EXPECT_EQ(answer_of("echo", 3), "x");  // finishes, so its place is free again
    read_raw_frame(*c);                    // its DONE
    EXPECT_EQ(answer_of("count", 4), "1");

    testing::CapturedOutput log;
    EXPECT_EQ(answer_of("count", 5), to_hex(hex("0801 2005")));
    EXPECT_EQ(answer_of("echo", 6), to_hex(hex("0801 2006")));
    EXPECT_EQ(log.text(), "1: refusing \"count\": 3 commands are open, the most allowed\n");
    // The open ones still work, and the cap is per peer.
    EXPECT_EQ(answer_of("count", 2), "2");
    auto other = raw_client(server);
    other->write(raw_opening("count", 1, "x"));
    EXPECT_EQ(read_raw_frame(*other).at(2), "1");
    EXPECT_EQ(server.protocol->stats().proxies_active, 4u);
}

TEST(EngineLifetime, DestroyingAServingEngineIsPrompt) {
    ServerEngine server;
    auto idle = raw_client(server);
    auto c = std::make_unique<ClientEngine>();
    c->connect(server.port());
    const auto start = std::chrono::steady_clock::now();
    c.reset();
    server.protocol.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_TRUE(idle->wait_closed());
}

}  // namespace
}  // namespace orvi
