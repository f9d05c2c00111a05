// SPDX-License-Identifier: Apache-2.0
// qord-sim as a daemon: start-up and shutdown; a long mixed load of
// thousands of commands of every kind, hundreds of clients at once and
// clients killed in the middle of an upgrade, after which it still upgrades
// and holds what it held before; and running out of descriptors.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "harness.h"
#include "qor/client.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

const char* const kPsiRead = "/boot/psi";
const char* const kPsiAmend = "/update/psi/amend";

struct Board {
    TempDir dir;
    Sim sim{
        {"--state", dir.file("state.json"), "--reboot-delay-ms", "100", "--reboot-grace-ms", "50"}};
    std::string host = "127.0.0.1";
    std::string port = std::to_string(sim.port());

    void connect(qor::Client& client) const { client.connect(host, port, "", 5); }
};

// Command number i of a cycle over every kind of call the client library
// has: whether only the last two, the refusals, threw, and a PSI write is
// still there one command later. What the other answers say is checked
// where the concurrent clients run, and by the command-line tests.
bool one_command(qor::Client& c, int i) {
    std::string text;
    bool fff = false;
    qor::client::DeviceIdentities ids;
    const std::function<void()> cycle[] = {
        [&] { c.echo("soak", text); },
        [&] { c.fw_config_mode(fff); },
        [&] { c.get_device(42); },
        [&] { c.get_device(0).get_identities(ids); },
        [&] { c.get_device(0).psi_set(kPsiAmend, "{\"soak\":" + std::to_string(i) + "}"); },
        [&] { c.get_device(0).psi_get(kPsiRead, text); },
        [&] { c.get_device(0).reset_imei("RESET-1234"); },
        [&] { c.get_device(0).activate_talvex("TALVEX-5678"); },
        [&] { c.get_device(0).reset_imei("wrong"); },
        [&] { c.get_device(0).psi_set(kPsiAmend, "{\"broken\":"); }};
    try {
        cycle[i % 10]();
    } catch (const std::exception&) {
        return i % 10 >= 8;
    }
    if (i % 10 == 5) return text.find("\"soak\":" + std::to_string(i - 1)) != std::string::npos;
    return i % 10 < 8;
}

// `commands` of them in turn, a new session every 25.
void sequential_load(const Board& board, int commands) {
    MutedStdout muted;  // psi_set echoes what it sends
    std::unique_ptr<qor::Client> client;
    for (int i = 0; i < commands; ++i) {
        if (i % 25 == 0) {
            client.reset(new qor::Client());
            board.connect(*client);
        }
        ASSERT_TRUE(one_command(*client, i)) << "command " << i;
    }
}

// `clients` sessions connected at the same time, each then running a few
// commands on a thread of its own. Each session has three threads here;
// with default stacks, 200 of them would not fit a 32-bit address space.
void concurrent_clients(const Board& board, int clients) {
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 1 << 20);
    pthread_setattr_default_np(&small);
    pthread_attr_destroy(&small);
    std::vector<std::unique_ptr<qor::Client>> sessions;
    for (int t = 0; t < clients; ++t) {
        sessions.push_back(std::make_unique<qor::Client>());
        board.connect(*sessions.back());
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < clients; ++t) {
        threads.emplace_back([&, t] {
            try {
                for (int i = 0; i < 3; ++i) {
                    std::string reply;
                    bool fff = false;
                    sessions[t]->echo(std::to_string(t), reply);
                    sessions[t]->fw_config_mode(fff);
                    failures += reply != std::to_string(t) || !fff;
                }
            } catch (const std::exception&) {
                ++failures;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(failures, 0);
}

// qorc upgrades, each killed with SIGKILL once the board has started to
// take its image; the image is large enough that none can finish first.
void killed_upgrades(Board& board, int upgrades) {
    const std::string image = board.dir.file("big.img");
    ASSERT_EQ(truncate(board.dir.write("big.img", "").c_str(), 64 << 20), 0);
    const std::string started = "qord-sim upgrade: " + std::to_string(64 << 20) + " bytes";
    for (int i = 0; i < upgrades; ++i) {
        const size_t before = count_of(board.sim.out(), started);
        Process qorc(qorc_binary(), {"--url", board.sim.address(), "sysupgrade", image},
                     board.dir.file("o"), board.dir.file("e"));
        eventually([&] { return count_of(board.sim.out(), started) > before; }, 15000);
        ASSERT_GT(count_of(board.sim.out(), started), before) << read_file(board.dir.file("e"));
        qorc.signal(SIGKILL);
        qorc.wait();
    }
    ASSERT_EQ(count_of(board.sim.out(), "received"), 0u) << "an upgrade finished";
}

// What the simulator holds once it is idle: the first reading that stays
// the same for 300 ms (the last readers of killed clients take a moment).
Usage settled(pid_t pid) {
    Usage last = usage_of(pid);
    int stable = 0;
    eventually(
        [&] {
            const Usage now = usage_of(pid);
            stable = now.threads == last.threads && now.fds == last.fds ? stable + 1 : 0;
            last = now;
            return stable == 30;
        },
        10000, 10);
    return last;
}

TEST(SimulatorSoak, ManyCommandsClientsAndKilledUpgradesLeaveNoTrace) {
    REQUIRE_PRIVATE_TMP();
    Board board;
    const pid_t pid = board.sim.process().pid();

    // A smaller round first, so that the baseline includes what the
    // allocator keeps once it has served such a load.
    sequential_load(board, 200);
    concurrent_clients(board, 50);
    killed_upgrades(board, 2);
    const Usage baseline = settled(pid);

    sequential_load(board, 5000);
    concurrent_clients(board, 200);
    killed_upgrades(board, 20);
    if (HasFatalFailure()) return;

    const std::string image =
        board.dir.write("good.img", "QORFW soak-2.0\n" + std::string(100000, 's'));
    EXPECT_RUN(board.sim.run({"sysupgrade", image}), 0, "{any}Upgraded to soak-2.0\n{any}", "");

    // Nothing left behind: at most what it held when idle before the load.
    const Usage after = settled(pid);
    EXPECT_LE(after.threads, baseline.threads);
    EXPECT_LE(after.fds, baseline.fds);
#ifndef QORC_ADDRESS_SANITIZER
    // Under AddressSanitizer freed memory sits in quarantine, so RSS says
    // nothing there; its leak check at the simulator's exit stands in. Under
    // an emulator the RSS is mostly the emulator's own translated code.
    if (!under_emulator()) {
        EXPECT_LE(after.rssKib, baseline.rssKib + baseline.rssKib / 4 + 4096)
            << "RSS " << after.rssKib << " KiB, was " << baseline.rssKib << " KiB";
    }
#endif
    std::cout << "qord-sim RSS " << baseline.rssKib << " -> " << after.rssKib << " KiB, threads "
              << after.threads << ", descriptors " << after.fds << "\n";
    EXPECT_EQ(board.sim.stop(), 0);  // SIGTERM
    EXPECT_TRUE(board.sim.wait_output("qord-sim stopped"));
}

TEST(Simulator, StartsOnlyOnAGoodStateFile) {
    TempDir dir;
    const std::string state = dir.write("s.json", "{\"boot_done\": \"yes\"}");
    EXPECT_RUN(run_command(qord_sim_binary(), {"--state", state, "--listen", "127.0.0.1:0"}), 2, "",
               "qord-sim: state file " + state + ": /boot_done must be a boolean\n");
}

// With few descriptors left, clients beyond them wait in the listen queue:
// the simulator neither spins nor stops serving, and takes them once
// descriptors are free again.
TEST(Simulator, OutOfDescriptorsNeitherSpinsNorStops) {
#ifdef QORC_ADDRESS_SANITIZER
    // The sanitizers' runtime opens descriptors of its own to check memory;
    // without any left it reports false errors.
    GTEST_SKIP() << "not meaningful under the sanitizers";
#endif
    // 64 descriptors at most.
    ServerProcess sim("/usr/bin/prlimit",
                      {"--nofile=64:", qord_sim_binary(), "--listen", "127.0.0.1:0"});

    std::vector<std::unique_ptr<RawConnection>> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<RawConnection>(RawConnection::connect_to(sim.port())));
        clients.back()->write(hex("01 01"));
    }
    const long start = usage_of(sim.process().pid()).cpuTicks;
    usleep(1000000);
    const long used = usage_of(sim.process().pid()).cpuTicks - start;
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 5) << "ticks in one second";
    EXPECT_EQ(sim.err(), "Cannot accept connections: Too many open files; retrying every 100 ms\n");

    clients.clear();
    EXPECT_RUN(run_at("127.0.0.1:" + std::to_string(sim.port()), {"fw_config_mode"}), 0, "{any}",
               "");
    EXPECT_EQ(sim.stop(), 0);
}

}  // namespace
}  // namespace e2e
