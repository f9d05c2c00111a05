// A caller that reads its own answer (TransportSimpleSocketClient::read_until
// through a client engine that routes where it reads): it takes the socket
// from the reader thread, goes on from the same byte, and reports a loss once.
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "loopback.h"
#include "orvi/protocol.h"
#include "orvi/transport_simple_socket_client.h"
#include "testing/captured_output.h"
#include "testing/thread_count.h"

namespace orvi {
namespace {

using support::hex;
using support::RawConnection;

struct Call : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::string reply;
    std::thread::id routed_on;
    void process_message(const char* data, unsigned int size) override {
        reply.assign(data, size);
        routed_on = std::this_thread::get_id();
    }
};

// A client engine that routes on the reading thread, and a raw board.
struct Session {
    support::RawListener listener;
    std::unique_ptr<RawConnection> board;  // outlives the engine
    Protocol protocol{1};
    explicit Session(bool idleReader = true) {
        std::thread accept([&] {
            board = std::make_unique<RawConnection>(listener.accept_one());
            board->read(2);
            board->write(hex("01"));
        });
        auto t = std::make_shared<TransportSimpleSocketClient>("127.0.0.1", listener.port_text());
        t->set_idle_reader(idleReader);
        t->connect(0);
        protocol.add_transport(t);
        accept.join();
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
    std::string ask(std::shared_ptr<Call>& call) {
        call = protocol.create_command_proxy<Call>("ask");
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
    std::string ask(std::shared_ptr<Call>& call, const std::function<void()>& then) {
        std::thread board_side([&] {
            read_opening("ask");
            then();
        });
        const std::string error = ask(call);
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

}  // namespace
}  // namespace orvi
