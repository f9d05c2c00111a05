// SPDX-License-Identifier: Apache-2.0
// qorc against a board that answers and hangs up at once, as it does when it
// reboots, or that puts its answer inside the DONE. Each case is run many
// times: a race that loses even once gives a wrong answer to a user.
#include <gtest/gtest.h>

#include "harness.h"
#include "hostile_board.h"

namespace e2e {
namespace {

using Answer = std::function<void(BoardConnection&, const wire::Message&)>;

// One command per connection, answered by `answer`, then the board hangs up.
HostileBoard one_shot(Answer answer) {
    return HostileBoard([answer](BoardConnection& c, int) {
        c.handshake();
        answer(c, c.next());
        c.close();
    });
}

const std::string kFff = wire::uint_field(1, 1);  // fw_config_mode's is_fff
// A body that takes a while to parse: a field qorc does not know, 4 MiB
// long, behind is_fff. A waiter released before the body is processed reads
// the default (FFH) instead.
const std::string kSlowFff = kFff + wire::bytes_field(15, std::string(4 << 20, 'x'));

TEST(BoardRaces, CompleteAnswersAreNeverLost) {
    const struct {
        const char* name;
        const char* command;
        Answer answer;
        std::string out;
    } cases[] = {
        {"answer, DONE, hang up", "fw_config_mode",
         [](BoardConnection& c, const wire::Message& r) {
             c.answer(r, kData, {kFff});
             c.answer(r, kDone);
         },
         "FW configuration mode: FFF\n"},
        {"DONE, hang up (the reboot after fallback_ffh)", "fallback_ffh",
         [](BoardConnection& c, const wire::Message& r) { c.answer(r, kDone); },
         "Fallback to FFH...\rFallback to FFH completed, rebooting\n"},
        {"answer inside the DONE", "fw_config_mode",
         [](BoardConnection& c, const wire::Message& r) {
             c.answer(r, kDone, {kSlowFff});
             c.wait_closed();
         },
         "FW configuration mode: FFF\n"},
        {"answer inside the DONE, hang up", "fw_config_mode",
         [](BoardConnection& c, const wire::Message& r) { c.answer(r, kDone, {kSlowFff}); },
         "FW configuration mode: FFF\n"},
    };
    for (const auto& c : cases) {
        HostileBoard board = one_shot(c.answer);
        for (int i = 0; i < 40; ++i) {
            ASSERT_TRUE(
                ran(run_at(board.address(), {c.command}), 0, hello(board.address()) + c.out, ""))
                << c.name << ", run " << i;
        }
    }
}

}  // namespace
}  // namespace e2e
