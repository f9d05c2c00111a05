// SPDX-License-Identifier: Apache-2.0
// qorc sysupgrade against a scripted board that misbehaves, and against
// faults on the host: signals, a closed standard output, a tampered marker
// file. The binary has a /tmp of its own.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <chrono>
#include <future>

#include "harness.h"
#include "hostile_board.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

const std::string kMarker = "/tmp/qor_sysupgrade";

struct Upgrade {
    TempDir dir;
    UpgradeScript script;
    HostileBoard board{[this](BoardConnection& c, int i) { script(c, i); }};
    std::string image;

    explicit Upgrade(size_t size = 3 * 4096 + 17) {
        script.board = &board;
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 4096) & 0xFF);
        image = dir.write("fw.img", bytes);
    }
    std::vector<std::string> args(const std::string& timeout = "10") const {
        return {"--url", board.address(), "sysupgrade", image, "-t", timeout};
    }
    // qorc started in the background, once the upload is under way.
    std::unique_ptr<Process> uploading() {
        auto qorc =
            std::make_unique<Process>(qorc_binary(), args(), dir.file("out"), dir.file("err"));
        EXPECT_TRUE(eventually(
            [&] { return read_file(dir.file("out")).find(" % ") != std::string::npos; }));
        EXPECT_EQ(read_file(kMarker), std::to_string(qorc->pid()));
        return qorc;
    }
};

// One attempt a second after the 5-second pause, so that -t 6 gives five
// seconds of attempts and five dots behind "Rebooting...", whether the board
// refuses or never answers the handshake.
TEST(UpgradeFaults, ReconnectionIsPacedOnARefusingOrDeafBoard) {
    REQUIRE_PRIVATE_TMP();
    auto paced = [](bool deaf) {
        Upgrade u;
        u.script.board = deaf ? nullptr : &u.board;
        u.script.deaf_after_reboot = deaf;
        const auto start = std::chrono::steady_clock::now();
        const Result r = run_qorc(u.args("6"));
        const double took =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_RUN(r, 1, "{any}Rebooting........\nReboot failed\n",
                   "Error: board failed to reboot\n")
            << deaf;
        EXPECT_GE(took, 5.0 + 4.5) << deaf;
        EXPECT_LE(took, 5.0 + 7.0) << deaf;
    };
    auto refusing = std::async(std::launch::async, paced, false);
    paced(true);
    refusing.get();
}

// Neither a closed standard output nor a NEXT after the last chunk stops
// the upgrade.
TEST(UpgradeFaults, ClosedStandardOutputAndAnExtraNextAreSurvived) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u;
    u.script.extra_next = true;
    u.script.board = nullptr;  // the board comes back after its reboot
    std::string command = std::string("'") + qorc_binary() + "'";
    for (const std::string& a : u.args()) command += " '" + a + "'";
    EXPECT_RUN(run_command("/bin/bash", {"-c", command + " | head -c 5; exit ${PIPESTATUS[0]}"}), 0,
               "Try t", "");
    EXPECT_EQ(u.script.image, read_file(u.image));
    EXPECT_NE(access(kMarker.c_str(), F_OK), 0);
}

// Interrupted in the middle of the upload: the progress line is ended, the
// marker is removed, and qorc dies of the same signal.
TEST(UpgradeFaults, SignalsDuringTheUpload) {
    REQUIRE_PRIVATE_TMP();
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        Upgrade u(200 * 4096);
        u.script.chunk_delay_ms = 10;
        const auto qorc = u.uploading();
        qorc->signal(sig);
        EXPECT_EQ(qorc->wait(10000), 128 + sig) << strsignal(sig);
        const std::string out = read_file(u.dir.file("out"));
        EXPECT_NE(out.find("Upgrading...\n\r"), std::string::npos) << out;
        EXPECT_EQ(out.back(), '\n') << strsignal(sig);
        EXPECT_NE(access(kMarker.c_str(), F_OK), 0) << strsignal(sig);
        EXPECT_LT(u.script.image.size(), 200u * 4096);
    }
}

TEST(UpgradeFaults, MarkerIsNeverOpenedThroughALinkOrAsAFifo) {
    REQUIRE_PRIVATE_TMP();
    TempDir dir;
    const std::string victim = dir.write("victim", "secret");
    for (const bool link : {true, false}) {
        ASSERT_EQ(link ? symlink(victim.c_str(), kMarker.c_str()) : mkfifo(kMarker.c_str(), 0600),
                  0);
        Upgrade u;
        u.script.refuse_at = 4096;
        EXPECT_RUN(run_qorc(u.args(), 20000), 1,
                   hello(u.board.address()) + "Upgrading...\n\r33 % \nUpgrade failed\n",
                   "Warning, failed to create file /tmp/qor_sysupgrade\nError: image refused\n");
        struct stat st;
        ASSERT_EQ(lstat(kMarker.c_str(), &st), 0);
        EXPECT_TRUE(link ? S_ISLNK(st.st_mode) : S_ISFIFO(st.st_mode));
        ASSERT_EQ(unlink(kMarker.c_str()), 0);
    }
    EXPECT_EQ(read_file(victim), "secret");
}

// Another upgrade from this host took the marker over: it is left to it.
TEST(UpgradeFaults, MarkerOfAnotherUpgradeIsKept) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u(100 * 4096);
    u.script.chunk_delay_ms = 5;
    u.script.refuse_at = 90 * 4096;
    const auto qorc = u.uploading();
    TempDir other;
    rename(other.write("m", "4242").c_str(), kMarker.c_str());
    EXPECT_EQ(qorc->wait(20000), 1);
    EXPECT_EQ(read_file(kMarker), "4242");
}

// Back from the reboot, the board hangs up when asked what it runs: nothing
// says the upgrade took, so it is no success.
TEST(UpgradeFaults, ConnectionLostAtTheVersionCheckAfterTheReboot) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u;
    u.script.board = nullptr;
    u.script.gone_at_version = true;
    const Result r = run_qorc(u.args());
    EXPECT_RUN(r, 1, "{any}", "{any}Error: Connection lost\n");
    EXPECT_EQ(r.out.find("Upgrade done"), std::string::npos) << r.out;
    EXPECT_NE(access(kMarker.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace e2e
