// SPDX-License-Identifier: Apache-2.0
// qorc against boards that vanish without a word, as real ones do when they
// lose power, lose their cable or reboot, and against boards that are only
// slow, each on a Lab of its own (link_lab.h). A dead link must end in an
// error within 35 s of the fault; a board that still answers must be waited
// for. The cases run side by side. Root only.
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <future>

#include "link_lab.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

using std::chrono::seconds;

// From the fault to qorc's error: 30 s of kernel limits and some slack.
constexpr double kReportedWithin = 35;
constexpr size_t kChunk = 4096;
constexpr size_t kFaultAt = 8 * kChunk;  // bytes of the image received when a board acts

std::string image(Lab& lab, size_t size) {
    return lab.write("fw.img", std::string(size, '\x5a'));
}

// An upgrade whose board calls `before` and `after` with the bytes received,
// around each NEXT it sends.
void upgrade(Lab& lab, std::function<void(size_t)> before, std::function<void(size_t)> after) {
    auto script = std::make_shared<UpgradeScript>();
    script->before_next = std::move(before);
    script->after_next = std::move(after);
    lab.serve([script](BoardConnection& c, int i) { (*script)(c, i); });
    lab.start_qorc({"sysupgrade", image(lab, 64 * kChunk), "-t", "20"});
}

void all_acknowledged(Lab& lab) {
    if (!eventually([&] { return lab.unacked() == 0; }, 5000, 20))
        lab.fail("a chunk stays unacked");
}

void power_loss_with_a_chunk_unacknowledged(Lab& lab) {
    const auto before = [&lab](size_t got) {
        if (got != kFaultAt) return;
        all_acknowledged(lab);
        lab.drop_inbound();
    };
    const auto after = [&lab](size_t got) {
        if (got != kFaultAt) return;
        // qorc answers the NEXT with a chunk that never arrives.
        if (!eventually([&] { return lab.unacked() > 0; }, 5000, 20)) lab.fail("nothing in flight");
        lab.vanish();
        throw std::runtime_error("power lost");
    };
    upgrade(lab, before, after);
}

void power_loss_with_nothing_in_flight(Lab& lab) {
    const auto before = [&lab](size_t got) {
        if (got != kFaultAt) return;
        all_acknowledged(lab);
        lab.vanish();
        throw std::runtime_error("power lost");
    };
    upgrade(lab, before, nullptr);
}

void cable_pulled_mid_upload(Lab& lab) {
    upgrade(lab, nullptr, [&lab](size_t got) {
        if (got != kFaultAt) return;
        lab.pull_cable();
        throw std::runtime_error("cable pulled");
    });
}

// Takes the command and never answers; its stack answers the keepalive
// probes for a while, then the power goes.
void silent_board_loses_power(Lab& lab) {
    lab.serve([&lab](BoardConnection& c, int) {
        c.handshake();
        c.next();
        std::this_thread::sleep_for(seconds(15));
        lab.vanish();
    });
    lab.start_qorc({"fw_config_mode"});
}

// Takes the command, goes off (its stack forgets the connection, and the
// reset that says so is lost) and comes back a few seconds later.
void board_reboots_without_closing(Lab& lab) {
    lab.serve([&lab](BoardConnection& c, int) {
        c.handshake();
        c.next();
        all_acknowledged(lab);  // qorc has nothing left to send
        lab.vanish();
        const linger abort{1, 0};
        setsockopt(c.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        c.close();
        lab.stop_listening();
        std::this_thread::sleep_for(seconds(3));
        lab.revive();
    });
    lab.start_qorc({"fw_config_mode"});
}

// Back from the upgrade's reboot, the board reports its boot unfinished
// while qorc polls, then dies.
void board_dies_during_the_boot_end_wait(Lab& lab) {
    lab.start_sim(
        {"--reboot-delay-ms", "200", "--reboot-grace-ms", "50", "--boot-time-ms", "600000"});
    lab.start_qorc({"sysupgrade", image(lab, 3 * kChunk), "-t", "30"});
    if (!eventually([&] { return count_of(lab.sim_out(), "connection from") >= 2; }, 30000, 20)) {
        lab.fail("qorc never came back after the reboot");
    }
    std::this_thread::sleep_for(seconds(3));
    // At least two polls answered "not yet", one dot each.
    if (lab.qorc_out().find("Rebooting.....") == std::string::npos) lab.fail("no boot-end polls");
    lab.vanish();
}

void syns_unanswered(Lab& lab) {
    lab.vanish();
    lab.start_qorc({"fw_config_mode"});
}

void handshake_never_answered(Lab& lab) {
    lab.keep(lab.listen());  // the stack accepts; nobody reads
    lab.mark_fault();
    lab.start_qorc({"fw_config_mode"});
}

void answers_after_40s(Lab& lab) {
    lab.serve([](BoardConnection& c, int) {
        c.handshake();
        const wire::Message r = c.next();
        std::this_thread::sleep_for(seconds(40));
        c.answer(r, kDone, {wire::uint_field(1, 1)});  // is_fff
        c.wait_closed();
    });
    lab.start_qorc({"fw_config_mode"});
}

void pauses_40s_before_a_next(Lab& lab) {
    upgrade(
        lab,
        [](size_t got) {
            if (got == kFaultAt) std::this_thread::sleep_for(seconds(40));
        },
        nullptr);
}

// Takes none of the 8 MiB for 25 s: its receive window stays shut.
void reads_nothing_for_25s(Lab& lab) {
    constexpr size_t kSize = 8u << 20;
    const std::string json = "{\"blob\": \"" + std::string(kSize, 'x') + "\"}";
    lab.serve([&lab](BoardConnection& c, int) {
        c.handshake();
        const wire::Message get = c.next();
        c.answer(get, kDone, {wire::uint_field(1, 0)});  // device OK
        std::this_thread::sleep_for(seconds(25));
        if (!lab.qorc_running() || lab.unacked() <= 0) lab.fail("qorc was never held up");
        const wire::Message set = c.next();
        if (!set.is("device.psi.set") || set.bodies.at(0).size() < kSize) lab.fail("no psi_set");
        c.answer(set, kDone);
        c.wait_closed();
    });
    lab.start_qorc({"psi_set", lab.write("psi.json", json)});
}

struct Case {
    const char* name;
    void (*drive)(Lab&);
    // A dead link: status 1 and this line on standard error, within
    // kReportedWithin of the fault. Empty: a live board; the run succeeds.
    std::string error;
    std::string shows;  // on standard output
    double at_least;    // seconds the run takes at least
};

const Case kCases[] = {
    {"power loss mid-upload, a chunk unacknowledged", power_loss_with_a_chunk_unacknowledged,
     "Error: Connection lost\n", "Upgrading...", 0},
    {"power loss mid-upload, nothing in flight", power_loss_with_nothing_in_flight,
     "Error: Connection lost\n", "Upgrading...", 0},
    {"cable pulled mid-upload", cable_pulled_mid_upload, "Error: Connection lost\n", "Upgrading...",
     0},
    {"silent board loses power", silent_board_loses_power, "Error: Connection lost\n", "", 15},
    {"board reboots without closing", board_reboots_without_closing, "Error: Connection lost\n", "",
     0},
    {"board dies during the boot-end wait", board_dies_during_the_boot_end_wait,
     "Error: Connection lost\n", "Rebooting...", 0},
    {"SYNs unanswered", syns_unanswered, "Error: Timeout occured\n", "", 29.5},
    {"handshake never answered", handshake_never_answered, "Error: Timeout occured\n", "", 29.5},
    {"answers fw_config_mode after 40 s", answers_after_40s, "", "FW configuration mode: FFF\n",
     40},
    {"pauses 40 s before a NEXT", pauses_40s_before_a_next, "", "Upgrade done with success\n", 40},
    {"reads nothing for 25 s of an 8 MiB psi_set", reads_nothing_for_25s, "", "", 25},
};

LabOutcome run_case(int index, const Case& c) {
    Lab lab(index);
    try {
        lab.build();
        c.drive(lab);
    } catch (const std::exception& e) {
        LabOutcome o = lab.finish();
        if (o.trouble.empty()) o.trouble = e.what();
        return o;
    }
    return lab.finish();
}

TEST(LinkFaults, DeadLinksEndInAnErrorLiveBoardsAreWaitedFor) {
    REQUIRE_PRIVATE_TMP();
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
    std::vector<std::future<LabOutcome>> runs;
    for (const Case& c : kCases) {
        const int index = static_cast<int>(runs.size());
        runs.push_back(std::async(std::launch::async, [index, &c] { return run_case(index, c); }));
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        const Case& c = kCases[i];
        const LabOutcome o = runs[i].get();
        SCOPED_TRACE(c.name);
        printf("%-45s status %d after %.1f s, %.1f s after the fault\n", c.name, o.run.status,
               o.took, o.from_fault);
        if (!o.trouble.empty()) {
            ADD_FAILURE() << o.trouble;
            continue;
        }
        EXPECT_RUN(o.run, c.error.empty() ? 0 : 1, "{any}" + c.shows + "{any}",
                   "{any}" + c.error + "{any}");
        EXPECT_GE(o.took, c.at_least);
        if (c.error.empty()) continue;
        EXPECT_GE(o.from_fault, 0.0) << "no fault";
        EXPECT_LE(o.from_fault, kReportedWithin);
    }
}

}  // namespace
}  // namespace e2e
