// The engine as a client runs it, against a board on raw sockets: a caller
// reads its own answer (TransportSimpleSocketClient::read_until), taking the
// socket from the reader thread and going on from the same byte; and the
// orderings and lifetimes that real boards provoke: an answer followed at
// once by a hang-up, an answer inside the DONE, a transport that outlives
// its engine, a reader stopped in the middle of a frame, a send racing a
// disconnect. Run under ASan and TSan, which see what the checks cannot.
#include <unistd.h>

#include <gtest/gtest.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "loopback.h"
#include "orvi/protocol.h"
#include "orvi/transport_simple_socket_client.h"
#include "testing/captured_output.h"
#include "testing/recording_handler.h"
#include "testing/thread_count.h"

namespace orvi {
namespace {

using support::hex;
using support::RawConnection;
using support::RawListener;

// A peer on raw sockets: the handshake, then whole frames read blindly.
struct Peer {
    RawListener listener;
    std::unique_ptr<RawConnection> conn;

    std::shared_ptr<TransportSimpleSocketClient> connect(
        std::shared_ptr<TransportSimpleSocketClient> t = nullptr) {
        if (!t)
            t = std::make_shared<TransportSimpleSocketClient>("127.0.0.1", listener.port_text());
        std::thread accept([&] {
            conn = std::make_unique<RawConnection>(listener.accept_one());
            conn->read(2);
            conn->write(hex("01"));
        });
        t->connect(0);
        accept.join();
        return t;
    }
};

struct Call : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::string reply;
    std::thread::id routed_on;
    // Takes its time over each answer body, so that a waiter released too
    // early would see nothing.
    bool slow = false;
    void process_message(const char* data, unsigned int size) override {
        if (slow) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        reply.assign(data, size);
        routed_on = std::this_thread::get_id();
    }
};

// A client engine, as qor::Client sets it up, and a raw board.
struct Session {
    Peer peer;  // outlives the engine
    Protocol protocol{1};
    std::unique_ptr<RawConnection>& board = peer.conn;
    explicit Session(bool idleReader = true) {
        auto t =
            std::make_shared<TransportSimpleSocketClient>("127.0.0.1", peer.listener.port_text());
        t->set_idle_reader(idleReader);
        protocol.add_transport(peer.connect(t));
    }
    // Reads the opening frame of command `name` with an empty body.
    void read_opening(const std::string& name) {
        const std::string header = hex("08 00 10 01 1a") + char(name.size()) + name;
        const std::string frame =
            hex("03 000000") + char(header.size()) + header + hex("00000002 0800 00000000");
        ASSERT_EQ(board->read(frame.size()), frame);
    }
    // Calls "ask" and waits for its end. Returns the failure text, empty
    // when the call succeeded.
    std::string ask(std::shared_ptr<Call>& call, bool slow = false) {
        call = protocol.create_command_proxy<Call>("ask");
        call->slow = slow;
        try {
            call->send_message(nullptr, 0);
            call->wait();
        } catch (const ProxyCommandException& e) {
            return e.what();
        }
        return "";
    }
    // The same while the board, on a thread of its own, reads the opening
    // and then does `then`.
    std::string ask(std::shared_ptr<Call>& call, const std::function<void()>& then,
                    bool slow = false) {
        std::thread board_side([&] {
            read_opening("ask");
            then();
        });
        const std::string error = ask(call, slow);
        board_side.join();
        return error;
    }
};

// Header{COMMAND, source 5, dest 1}, CommandHeader{DONE}, "hi".
const std::string kAnswer = hex("03 00000006 0800 1005 2001 00000002 0801 00000002 6869");

TEST(CallerReads, TheAnswerIsRoutedOnTheWaitingThread) {
    Session s;
    std::shared_ptr<Call> call;
    EXPECT_EQ(s.ask(call,
                    [&] {
                        // Late enough that the caller is waiting: an answer
                        // that comes before is the reader thread's to deliver.
                        usleep(50000);
                        s.board->write(kAnswer);
                    }),
              "");
    EXPECT_EQ(call->reply, "hi");
    EXPECT_EQ(call->routed_on, std::this_thread::get_id());
}

TEST(CallerReads, AFrameTheReaderBeganIsFinishedByTheCaller) {
    Session s;
    // Idle long enough for the reader thread to watch the socket; it reads
    // the start of a frame (a refusal for nobody) and waits for the rest.
    usleep(100000);
    const std::string refusal = hex("01 00000004 0801 2063");
    s.board->write(refusal.substr(0, 3));
    usleep(50000);
    std::shared_ptr<Call> call;
    EXPECT_EQ(s.ask(call, [&] { s.board->write(refusal.substr(3) + kAnswer); }), "");
    EXPECT_EQ(call->reply, "hi");
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

// Without an idle reader, what comes between calls waits for the next caller,
// who delivers it in order before its own answer.
TEST(CallerReads, WithoutAnIdleReaderTheNextCallerDeliversWhatCameBetween) {
    const size_t before = testing::thread_count_baseline();
    Session s(false);
    EXPECT_EQ(testing::thread_count_reaching(before),
              before);                             // no reader, and workers start when needed
    s.board->write(hex("01 00000004 0801 2063"));  // a refusal for nobody
    usleep(100000);
    EXPECT_EQ(s.protocol.stats().messages_processed, 0u);
    std::shared_ptr<Call> call;
    EXPECT_EQ(s.ask(call, [&] { s.board->write(kAnswer); }), "");
    EXPECT_EQ(call->reply, "hi");
    EXPECT_EQ(s.protocol.stats().messages_processed, 2u);  // the refusal, then the answer
}

TEST(CallerReads, WithoutAnIdleReaderALossBetweenCallsIsFoundByTheNextOne) {
    Session s(false);
    s.board->close();
    usleep(100000);
    EXPECT_EQ(s.protocol.stats().clients_active, 1u);  // nobody has looked yet
    testing::CapturedOutput log;
    std::shared_ptr<Call> call;
    EXPECT_EQ(s.ask(call), "Connection lost");
    EXPECT_EQ(log.text(), "Worker got exception: Failed to read data from server: Success\n");
    EXPECT_EQ(s.protocol.stats().clients_active, 0u);
}

// Header to proxy 1 from proxy 2, then a command header, then the body.
const std::string kData = hex("03 00000006 080010022001 00000002 0800 00000002 6869");
const std::string kDone = hex("02 00000006 080010022001 00000002 0801");
const std::string kDoneWithBody = hex("03 00000006 080010022001 00000002 0801 00000002 6869");
// An exception without text ends the command normally.
const std::string kEmptyExceptionWithBody =
    hex("03 00000006 080010022001 00000002 0802 00000002 6869");

// One command against a peer that reads the request and answers `reply`,
// then hangs up if told to; returns what the caller got.
std::string call_answered_by(const std::string& reply, bool hang_up) {
    Session s;
    std::shared_ptr<Call> call;
    const std::string error = s.ask(
        call,
        [&] {
            s.board->write(reply);
            if (hang_up) s.board->close();
        },
        true);
    return error.empty() ? call->reply : error;
}

// A complete answer is never lost: not to a hang-up right behind it, nor to
// a waiter released before the body that rides on the end is processed.
TEST(EngineHazards, ACompleteAnswerIsInPlaceWhenWaitReturns) {
    const struct {
        std::string reply;
        bool hang_up;
        int runs;
    } cases[] = {{kData + kDone, true, 30},
                 {kDoneWithBody, false, 1},
                 {kEmptyExceptionWithBody, false, 1},
                 {kDoneWithBody, true, 1}};
    for (const auto& c : cases) {
        for (int run = 0; run < c.runs; ++run) {
            EXPECT_EQ(call_answered_by(c.reply, c.hang_up), "hi")
                << support::to_hex(c.reply) << " hang up " << c.hang_up << " run " << run;
        }
    }
}

// The connection record of a removed transport reports its lost client
// when the transport goes, which may be after the engine is gone.
TEST(EngineHazards, RemovedTransportMayOutliveItsEngine) {
    Peer peer;
    auto transport = peer.connect();
    auto protocol = std::make_unique<Protocol>(1);
    protocol->add_transport(transport);
    protocol->remove_transport(transport);
    protocol.reset();
    transport.reset();  // the record tells a handler whose engine is gone
    EXPECT_TRUE(peer.conn->wait_closed());
}

TEST(EngineHazards, LifeHandlerPointerIsClearedUnderTheEngineLock) {
    struct Watcher : ProtocolLifeHandler {
        std::atomic<bool> told{false};
        void on_protocol_destroyed(Protocol*) override { told = true; }
    } watcher;
    auto protocol = std::make_unique<Protocol>(1);
    protocol->register_life_handler(&watcher);
    std::thread watching([&] {
        while (watcher.m_protocol.load() != nullptr) std::this_thread::yield();
    });
    protocol.reset();
    watching.join();
    EXPECT_TRUE(watcher.told);
}

TEST(TransportHazards, SendsRaceADisconnectSafely) {
    Peer peer;
    auto transport = peer.connect();
    auto handler = std::make_shared<testing::RecordingHandler>();
    transport->start_serve(handler);
    std::atomic<int> sent{0}, refused{0};
    std::thread sender([&] {
        const char byte = 'x';
        MessageConst m;
        m.push_back(BufferConst(&byte, 1));
        for (int i = 0; i < 2000; ++i) {
            try {
                transport->send_message(m);
                ++sent;
            } catch (const SimpleSocketException&) {
                ++refused;
            }
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    transport->disconnect();
    sender.join();
    EXPECT_EQ(sent + refused, 2000);
    EXPECT_THROW(transport->send_message(MessageConst()), SimpleSocketException);
}

// Stopped while a frame is half read, a reader that serves again goes on
// from the same byte: the stream never slips out of step.
TEST(TransportHazards, StopInTheMiddleOfAFrameResumesAtTheSameByte) {
    Peer peer;
    auto transport = peer.connect();
    auto handler = std::make_shared<testing::RecordingHandler>();
    transport->start_serve(handler);
    const std::string frame = hex("02 00000003 616263 00000002 6465");
    peer.conn->write(frame.substr(0, 6));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    transport->stop_serve();
    transport->start_serve(handler);
    peer.conn->write(frame.substr(6) + hex("01 00000001 66"));
    ASSERT_TRUE(handler->wait_messages(2));
    const auto messages = handler->messages();
    EXPECT_EQ(messages[0].buffers, (std::vector<std::string>{"abc", "de"}));
    EXPECT_EQ(messages[1].buffers, (std::vector<std::string>{"f"}));
    transport->disconnect();
}

}  // namespace
}  // namespace orvi
