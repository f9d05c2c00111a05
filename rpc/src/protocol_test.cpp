// SPDX-License-Identifier: Apache-2.0
// Two engines joined by an in-process pipe, whose delivery threads stand
// for the connections' reader threads, and raw-socket peers of a serving
// engine where exact bytes matter. Routing by turns: a peer's messages, and
// finally its loss, are routed one at a time and in order, where they are
// read or, behind a handler that may block, on a worker; and the engine
// waits for a route under way before it goes.
#include "orvi/protocol.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>

#include "envelope/proxy/command_header.pb.h"
#include "eventually.h"
#include "orvi/transport_simple_socket_server.h"
#include "testing/captured_output.h"
#include "testing/pipe_transport.h"
#include "testing/raw_peer.h"

namespace orvi {
namespace {

using support::to_hex;
using testing::frame_of;
using testing::reply;

// --- handler proxies for the serving engine -------------------------------

// Answers inside its DONE.
struct Echo : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char* data, unsigned int size) override {
        CommandHeader done;
        done.set_status(CommandHeader::DONE);
        MessageConst body;
        body.push_back(BufferConst(data, size));
        send_message(done, body);
        Proxy::set_done();
    }
};

struct Fails : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char* data, unsigned int size) override {
        const std::string what(data, size);
        if (what == "int") throw 42;
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

// What a handler saw: each body, or "lost", with the thread that routed it.
struct Journal {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::thread::id>> seen;
    std::promise<void> openMayFinish;
    std::vector<std::string> bodies() {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> out;
        for (const auto& entry : seen) out.push_back(entry.first);
        return out;
    }
};
Journal* g_journal = nullptr;

// Holds its opening message until the test lets it go; answers every
// message with its body, and finishes on "end".
struct Tracked : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char* data, unsigned int size) override {
        const std::string body(data, size);
        record(body);
        if (body == "open") g_journal->openMayFinish.get_future().wait();
        send_message(data, size);
        if (body == "end") set_done();
    }
    void client_lost(const std::string&) override { record("lost"); }
    static void record(const std::string& what) {
        std::lock_guard<std::mutex> lock(g_journal->mutex);
        g_journal->seen.emplace_back(what, std::this_thread::get_id());
    }
};

// --- the calling side -----------------------------------------------------

// Sends one or several messages of a command; keeps the last answer and
// counts them.
struct Call : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::string reply;  // read once the command has ended
    std::atomic<size_t> answers{0};
    void process_message(const char* data, unsigned int size) override {
        // A waiter released before its answer is in place would miss it.
        reply = is_done() ? "ended before its answer" : std::string(data, size);
        ++answers;
    }
    void send(const std::string& body) {
        send_message(body.data(), static_cast<unsigned int>(body.size()));
    }
    std::string execute(const std::string& body) {
        send(body);
        wait();
        return reply;
    }
    bool wait_answers(size_t n) {
        return support::eventually([&] { return answers.load() >= n; });
    }
};

void add_test_commands(Protocol& protocol) {
    protocol.add_command("echo", std::make_shared<ProxyFactoryTpl<Echo>>());
    protocol.add_command("fails", std::make_shared<ProxyFactoryTpl<Fails>>());
    protocol.add_command("count", std::make_shared<ProxyFactoryTpl<Counter>>());
    protocol.add_command("tracked", std::make_shared<ProxyFactoryTpl<Tracked>>());
}

// A serving engine behind a real socket, for the tests of exact bytes.
struct ServerEngine {
    Protocol protocol{1};
    std::shared_ptr<TransportSimpleSocketServer> transport =
        std::make_shared<TransportSimpleSocketServer>("127.0.0.1", "0");
    ServerEngine() {
        add_test_commands(protocol);
        transport->listen();
        protocol.add_transport(transport);
    }
};

// A serving engine joined to a client engine through an in-process pipe.
struct Board {
    Protocol protocol{1};
    std::shared_ptr<testing::PipeEnd> end;
    Board() { add_test_commands(protocol); }
    void join(Protocol& client) {
        std::shared_ptr<testing::PipeEnd> theirs;
        std::tie(end, theirs) = testing::make_pipe();
        protocol.add_transport(end);
        client.add_transport(theirs);
    }
};

struct Pair {
    Board server;
    Protocol client{1};
    Pair() { server.join(client); }
};

// The answer to a call, or how it failed.
std::string outcome(Protocol& client, const char* command, const std::string& body) {
    try {
        return client.create_command_proxy<Call>(command)->execute(body);
    } catch (const ProxyCommandNoHandler& e) {
        return std::string("no handler: ") + e.what();
    } catch (const ProxyCommandException& e) {
        return std::string("failed: ") + e.what();
    } catch (const ProtocolException& e) {
        return std::string("not sent: ") + e.what();
    }
}

// Each outcome of a call, one after the other on one session: a failure
// ends its command only.
TEST(Engines, EachOutcomeReachesTheCaller) {
    Pair p;
    const std::string big(100000, 'b');
    const struct {
        const char* command;
        std::string body, outcome;
    } cases[] = {
        {"echo", "hello", "hello"},
        {"echo", "", ""},
        {"echo", big, big},
        {"fails", "disk full", "failed: disk full"},
        {"fails", "int", "failed: Unknown exception occured"},
        {"nope", "x", "no handler: No handler found"},
        {"echo", "still", "still"},
    };
    testing::CapturedOutput log;
    for (const auto& c : cases) {
        EXPECT_EQ(outcome(p.client, c.command, c.body), c.outcome)
            << c.command << " " << c.body.substr(0, 10);
    }
    EXPECT_EQ(log.text(), "1: there is no command handler for \"nope\"\n");
    EXPECT_EQ(p.client.stats().proxies_active, 0u);
}

// A command open when its peer goes is lost; with no peer left there is
// nobody to bind to, and with two the first is taken.
TEST(Engines, PeersComingAndGoing) {
    Protocol client{1};
    Board first, second;
    first.join(client);
    std::thread dropper([&] {
        support::eventually([&] { return first.protocol.stats().proxies_active == 1; });
        first.end->close();
    });
    // "count" answers and never finishes on its own.
    EXPECT_EQ(outcome(client, "count", "x"), "failed: Connection lost");
    dropper.join();
    testing::CapturedOutput log;
    EXPECT_EQ(outcome(client, "echo", "x"), "not sent: clientMap.size() == 0");
    EXPECT_EQ(log.text(), "Error: clientMap.size() == 0\n");

    Board third;
    second.join(client);
    third.join(client);
    testing::CapturedOutput warning;
    auto proxy = client.create_command_proxy<Call>("echo");
    EXPECT_EQ(warning.text(), "Warning: clientMap.size() == 2\n");
    EXPECT_EQ(proxy->get_transport_client_id(), 2u);
    EXPECT_EQ(proxy->execute("to the first"), "to the first");
    EXPECT_EQ(second.protocol.stats().proxies_created, 1u);
    EXPECT_EQ(third.protocol.stats().proxies_created, 0u);
}

// --- exact bytes, with a raw client on one side --------------------------

// What cannot be delivered is refused to its sender, whatever the name says.
TEST(EngineBytes, UndeliverableMessagesGetNoHandler) {
    ServerEngine server;
    auto c = testing::greeted_client(server.transport->local_port());
    wire::Message toUnknownProxy = testing::opening("echo", 5, "x");
    toUnknownProxy.header.dest = 0;  // present, so it wins over a name that would match
    wire::Message reserved;
    reserved.header.type = wire::kReserved;
    reserved.header.source = 7;
    const struct {
        std::string frame;
        uint32_t source;
    } cases[] = {{frame_of(toUnknownProxy), 5},
                 {frame_of(reserved), 7},
                 // A garbage header is routed as a COMMAND without a name.
                 {wire::frame({"\xff\xff\xff"}), 0}};
    testing::CapturedOutput log;
    for (const auto& k : cases) {
        c->write(k.frame);
        EXPECT_EQ(testing::read_parts(*c), wire::parts(testing::refusal(k.source)))
            << to_hex(k.frame);
    }
    EXPECT_EQ(log.text(), "1: there is no command handler for \"\"\n");
}

TEST(EngineBytes, OpenCommandsPerPeerAreCapped) {
    ServerEngine server;
    server.protocol.set_max_handlers_per_client(3);
    auto c = testing::greeted_client(server.transport->local_port());
    auto answer_of = [&](const std::string& name, uint32_t source) {
        c->write(frame_of(testing::opening(name, source, "x")));
        const auto parts = testing::read_parts(*c);
        return parts.size() == 3 ? parts[2] : to_hex(parts.at(0));
    };
    auto refused = [](uint32_t source) {
        return to_hex(wire::encode(testing::refusal(source).header));
    };
    EXPECT_EQ(answer_of("count", 2), "1");
    // A new command from a lower proxy id than an open one: serving proxy 2
    // answers our proxy 1.
    c->write(frame_of(testing::opening("count", 1, "x")));
    EXPECT_EQ(testing::read_parts(*c), wire::parts(reply(2, 1, wire::kData, {"1"})));
    EXPECT_EQ(answer_of("echo", 3), "x");  // finishes, so its place is free again
    EXPECT_EQ(answer_of("count", 4), "1");

    testing::CapturedOutput log;
    EXPECT_EQ(answer_of("count", 5), refused(5));
    EXPECT_EQ(answer_of("echo", 6), refused(6));
    EXPECT_EQ(log.text(), "1: refusing \"count\": 3 commands are open, the most allowed\n");
    // The open ones still work, and a repeated opening reaches the same
    // handler; the cap is per peer.
    EXPECT_EQ(answer_of("count", 2), "2");
    EXPECT_EQ(server.protocol.stats().proxies_created, 4u);
    auto other = testing::greeted_client(server.transport->local_port());
    other->write(frame_of(testing::opening("count", 1, "x")));
    EXPECT_EQ(testing::read_parts(*other).at(2), "1");
    EXPECT_EQ(server.protocol.stats().proxies_active, 4u);
}

// A session with a "tracked" command to stream to, and what its handler saw.
struct Tracking {
    Journal journal;
    std::unique_ptr<Pair> p = std::make_unique<Pair>();
    std::shared_ptr<Call> stream = p->client.create_command_proxy<Call>("tracked");
    Tracking() { g_journal = &journal; }
};

TEST(Routing, QueuedBehindAWorkerThenRoutedWhereRead) {
    Tracking t;
    auto& journal = t.journal;
    auto& stream = t.stream;
    // The opening message goes to a worker and stays there; what follows
    // meanwhile must queue behind it, not overtake it on the reader.
    stream->send("open");
    stream->send("a");
    stream->send("b");
    t.p->server.end->wait_delivered();  // a and b came while open is held
    journal.openMayFinish.set_value();
    ASSERT_TRUE(stream->wait_answers(3));
    std::thread::id worker;
    {
        std::lock_guard<std::mutex> lock(journal.mutex);
        ASSERT_EQ(journal.seen.size(), 3u);
        worker = journal.seen[0].second;
        EXPECT_EQ(journal.seen[1].second, worker);
        EXPECT_EQ(journal.seen[2].second, worker);
    }
    // Once the queue has drained, messages are routed where they are read
    // again. The worker gives the turn back just after its last answer has
    // gone out, so the first ones after it may still find it taken.
    std::thread::id last = worker;
    for (size_t n = 4; last == worker && n < 100; ++n) {
        stream->send("again");
        ASSERT_TRUE(stream->wait_answers(n));
        std::lock_guard<std::mutex> lock(journal.mutex);
        last = journal.seen.back().second;
    }
    EXPECT_NE(last, worker);
    EXPECT_NE(last, std::this_thread::get_id());
    stream->send("end");
    stream->wait();
}

// A peer's loss is routed after every message it sent before it went.
TEST(Routing, TheLossComesAfterWhatQueuedBeforeIt) {
    Tracking t;
    t.stream->send("open");
    t.stream->send("a");
    t.p->server.end->wait_delivered();
    t.p->server.end->close();
    t.p->server.end->wait_delivered();  // the loss is queued behind "a"
    t.journal.openMayFinish.set_value();
    ASSERT_TRUE(support::eventually([&] {
        const auto seen = t.journal.bodies();
        return seen.size() >= 3 && std::count(seen.begin(), seen.end(), "lost") != 0;
    }));
    EXPECT_EQ(t.journal.bodies(), (std::vector<std::string>{"open", "a", "lost"}));
}

TEST(Routing, TheEngineWaitsForARouteUnderWay) {
    Tracking t;
    t.stream->send("first");
    ASSERT_TRUE(t.stream->wait_answers(1));
    // Routed where it is read (a follow-on), and held there.
    t.stream->send("open");
    ASSERT_TRUE(support::eventually([&] { return t.journal.bodies().size() == 2; }));
    const auto start = std::chrono::steady_clock::now();  // the release comes 100 ms later
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        t.journal.openMayFinish.set_value();
    });
    t.p.reset();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));
    release.join();
}

}  // namespace
}  // namespace orvi
