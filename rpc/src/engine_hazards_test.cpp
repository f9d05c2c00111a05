// SPDX-License-Identifier: Apache-2.0
// The engine as a client runs it, against a board on raw sockets: a caller
// reads its own answer (TransportSimpleSocketClient::read_until), taking the
// socket from the reader thread and going on from the same byte; and the
// lifetimes and races around it: a transport that outlives its engine, a
// send racing a disconnect. Run under ASan and TSan, which see what the
// checks cannot. (Answers followed at once by a hang-up, or inside the DONE,
// are raced against qorc itself in tests/board_races_test.cpp.)
#include <unistd.h>

#include <gtest/gtest.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "orvi/protocol.h"
#include "orvi/transport_simple_socket_client.h"
#include "testing/captured_output.h"
#include "testing/raw_peer.h"
#include "testing/recording_handler.h"
#include "testing/thread_count.h"

namespace orvi {
namespace {

using support::RawConnection;
using support::RawListener;
using testing::frame_of;
using testing::reply;

// A board on raw sockets, connected to a client transport.
struct Peer {
    RawListener listener;
    std::unique_ptr<RawConnection> conn;

    std::shared_ptr<TransportSimpleSocketClient> connect(bool idleReader = true) {
        auto t = std::make_shared<TransportSimpleSocketClient>("127.0.0.1", listener.port_text());
        t->set_idle_reader(idleReader);
        std::thread accept([&] { conn = testing::accept_client(listener); });
        t->connect(0);
        accept.join();
        return t;
    }
};

struct Call : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::string reply;
    std::thread::id routed_on;
    void process_message(const char* data, unsigned int size) override {
        reply.assign(data, size);
        routed_on = std::this_thread::get_id();
    }
};

// A client engine, as qor::Client sets it up, and a raw board.
struct Session {
    Peer peer;  // outlives the engine
    Protocol protocol{1};
    std::unique_ptr<RawConnection>& board = peer.conn;
    explicit Session(bool idleReader = true) { protocol.add_transport(peer.connect(idleReader)); }
    // Calls "ask" and waits for its end; the failure text, empty when the
    // call succeeded. With `then`, the board, on a thread of its own, checks
    // the opening frame byte for byte and then does `then`.
    std::string ask(std::shared_ptr<Call>& call, const std::function<void()>& then = nullptr) {
        std::thread board_side([&] {
            if (!then) return;
            const std::string opening = frame_of(testing::opening("ask", 1, ""));
            EXPECT_EQ(support::to_hex(board->read(opening.size())), support::to_hex(opening));
            then();
        });
        call = protocol.create_command_proxy<Call>("ask");
        std::string error;
        try {
            call->send_message(nullptr, 0);
            call->wait();
        } catch (const ProxyCommandException& e) {
            error = e.what();
        }
        board_side.join();
        return error;
    }
};

// Header{COMMAND, source 5, dest 1}, CommandHeader{DONE}, "hi".
const std::string kAnswer = frame_of(reply(5, 1, wire::kDone, {"hi"}));
// A refusal for a proxy that nobody here has.
const std::string kRefusalForNobody = frame_of(testing::refusal(99));

// The caller routes its answer on its own thread, going on from the byte
// where the reader thread stopped in the middle of a frame.
TEST(CallerReads, TheAnswerIsRoutedOnTheWaitingThread) {
    Session s;
    // Idle long enough for the reader thread to watch the socket; it reads
    // the start of a frame and waits for the rest.
    usleep(100000);
    s.board->write(kRefusalForNobody.substr(0, 3));
    usleep(50000);
    std::shared_ptr<Call> call;
    EXPECT_EQ(s.ask(call,
                    [&] {
                        // Late enough that the caller is waiting: an answer
                        // that comes before is the reader thread's to deliver.
                        usleep(50000);
                        s.board->write(kRefusalForNobody.substr(3) + kAnswer);
                    }),
              "");
    EXPECT_EQ(call->reply, "hi");
    EXPECT_EQ(call->routed_on, std::this_thread::get_id());
    // Once done, a late DATA for proxy 1 finds nobody: refused to its sender.
    s.board->write(frame_of(reply(5, 1, wire::kData, {"x"})));
    EXPECT_EQ(testing::read_parts(*s.board), wire::parts(testing::refusal(5)));
}

TEST(CallerReads, ALossFoundByTheCallerIsReportedOnce) {
    Session s;
    testing::CapturedOutput log;
    std::shared_ptr<Call> call;
    EXPECT_EQ(s.ask(call, [&] { s.board->close(); }), "Connection lost");
    usleep(100000);  // the reader thread's turn comes and goes
    EXPECT_EQ(log.text(), "Worker got exception: Failed to read data from server: Success\n");
    EXPECT_EQ(s.protocol.stats().clients_active, 0u);
}

// Without an idle reader, what comes between calls, a frame or the loss,
// waits for the next caller, who delivers it in order before its own answer.
TEST(CallerReads, WithoutAnIdleReaderTheNextCallerDeliversWhatCameBetween) {
    const size_t before = testing::thread_count_baseline();
    Session s(false);
    EXPECT_EQ(testing::thread_count_reaching(before),
              before);  // no reader, and workers start when needed
    s.board->write(kRefusalForNobody);
    usleep(100000);
    EXPECT_EQ(s.protocol.stats().messages_processed, 0u);
    std::shared_ptr<Call> call;
    EXPECT_EQ(s.ask(call, [&] { s.board->write(kAnswer); }), "");
    EXPECT_EQ(call->reply, "hi");
    EXPECT_EQ(s.protocol.stats().messages_processed, 2u);  // the refusal, then the answer

    s.board->close();
    usleep(100000);
    EXPECT_EQ(s.protocol.stats().clients_active, 1u);  // nobody has looked yet
    testing::CapturedOutput log;
    EXPECT_EQ(s.ask(call), "Connection lost");
    EXPECT_EQ(log.text(), "Worker got exception: Failed to read data from server: Success\n");
    EXPECT_EQ(s.protocol.stats().clients_active, 0u);
}

// The connection record of a removed transport reports its lost client
// when the transport goes, after the engine; a life handler learns of the
// engine's end, its pointer cleared under the engine's lock.
TEST(EngineHazards, WhatOutlivesTheEngine) {
    struct Watcher : ProtocolLifeHandler {
        std::atomic<bool> told{false};
        void on_protocol_destroyed(Protocol*) override { told = true; }
    } watcher;
    Peer peer;
    auto transport = peer.connect();
    auto protocol = std::make_unique<Protocol>(1);
    protocol->register_life_handler(&watcher);
    protocol->add_transport(transport);
    protocol->remove_transport(transport);
    std::thread watching([&] {
        while (watcher.m_protocol.load() != nullptr) std::this_thread::yield();
    });
    protocol.reset();
    watching.join();
    EXPECT_TRUE(watcher.told);
    transport.reset();  // the record tells a handler whose engine is gone
    EXPECT_TRUE(peer.conn->wait_closed());
}

// Sends on another thread either go out whole or are refused, and once
// refused stay refused.
TEST(TransportHazards, SendsRaceADisconnectSafely) {
    Peer peer;
    auto transport = peer.connect();
    transport->start_serve(std::make_shared<testing::RecordingHandler>());
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
    transport->disconnect();
    sender.join();
    EXPECT_FALSE(sentAfterRefusal);
    EXPECT_THROW(transport->send_message(MessageConst()), SimpleSocketException);
}

}  // namespace
}  // namespace orvi
