// qorc against a board that answers and hangs up at once, as it does when it
// reboots, or that puts its answer inside the DONE. Each case is run many
// times: a race that loses even once gives a wrong answer to a user.
#include <gtest/gtest.h>

#include "harness.h"
#include "hostile_board.h"

namespace e2e {
namespace {

constexpr int kRuns = 40;

// An answer that takes a while to parse: a field qorc does not know, 4 MiB
// long, behind is_fff. A waiter released before the body is processed reads
// the default (FFH) instead.
std::string slow_fff_answer() {
    return fw_config_mode_answer(true) + pb_bytes(15, std::string(4 << 20, 'x'));
}

std::string hello(const HostileBoard& b) {
    return "Try to connect to " + b.address() + "\n";
}

// One command per connection, answered by `answer`, then the board hangs up.
HostileBoard one_shot(std::function<void(BoardConnection&, const Request&)> answer) {
    return HostileBoard([answer](BoardConnection& c, int) {
        c.handshake();
        answer(c, c.next());
        c.close();
    });
}

TEST(BoardRaces, AnswerThenHangUp) {
    HostileBoard board = one_shot([](BoardConnection& c, const Request& r) {
        if (r.is("fw_config_mode")) c.answer(r, kData, {fw_config_mode_answer(true)});
        c.answer(r, kDone);
    });
    for (int i = 0; i < kRuns; ++i) {
        const Result r = run_qorc({"--url", board.address(), "fw_config_mode"});
        ASSERT_EQ(r.status, 0) << "run " << i << ": " << r.err;
        ASSERT_EQ(r.out, hello(board) + "FW configuration mode: FFF\n") << "run " << i;
    }
    for (int i = 0; i < kRuns; ++i) {
        const Result r = run_qorc({"--url", board.address(), "fallback_ffh"});
        ASSERT_EQ(r.status, 0) << "run " << i << ": " << r.err;
        ASSERT_EQ(r.out,
                  hello(board) + "Fallback to FFH...\rFallback to FFH completed, rebooting\n");
    }
}

TEST(BoardRaces, AnswerInsideTheDone) {
    HostileBoard board = one_shot([](BoardConnection& c, const Request& r) {
        c.answer(r, kDone, {slow_fff_answer()});
        c.wait_closed();
    });
    for (int i = 0; i < kRuns; ++i) {
        const Result r = run_qorc({"--url", board.address(), "fw_config_mode"});
        ASSERT_EQ(r.status, 0) << "run " << i << ": " << r.err;
        ASSERT_EQ(r.out, hello(board) + "FW configuration mode: FFF\n") << "run " << i;
    }
}

TEST(BoardRaces, AnswerInsideTheDoneThenHangUp) {
    HostileBoard board = one_shot(
        [](BoardConnection& c, const Request& r) { c.answer(r, kDone, {slow_fff_answer()}); });
    for (int i = 0; i < kRuns; ++i) {
        const Result r = run_qorc({"--url", board.address(), "fw_config_mode"});
        ASSERT_EQ(r.status, 0) << "run " << i << ": " << r.err;
        ASSERT_EQ(r.out, hello(board) + "FW configuration mode: FFF\n") << "run " << i;
    }
}

// The board does not know device 0, or reports it lost: an error, never an
// abort.
TEST(BoardRaces, DeviceNotFoundOrLost) {
    for (int status : {1, 2}) {
        HostileBoard board([status](BoardConnection& c, int) {
            c.handshake();
            const Request r = c.next();
            c.answer(r, kDone, {device_get_answer(status)});
            c.wait_closed();
        });
        for (const char* command : {"psi_get", "activate"}) {
            std::vector<std::string> args = {"--url", board.address(), command};
            if (std::string(command) == "activate") args.push_back("1234");
            const Result r = run_qorc(args);
            EXPECT_EQ(r.status, 1) << command << " " << status;
            EXPECT_EQ(r.out, hello(board));
            EXPECT_EQ(r.err, "Error: device not found\n");
        }
    }
}

}  // namespace
}  // namespace e2e
