// SPDX-License-Identifier: Apache-2.0
// qord-sim as a program: start-up, shutdown and bad clients.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>

#include "harness.h"

namespace e2e {
namespace {

using support::hex;
using support::RawConnection;

TEST(Simulator, StartsOnlyOnAGoodStateFileAndStopsCleanlyOnSignals) {
    TempDir dir;
    const std::string state = dir.write("s.json", "{\"boot_done\": \"yes\"}");
    EXPECT_RUN(run_command(qord_sim_binary(), {"--state", state, "--listen", "127.0.0.1:0"}), 2, "",
               "qord-sim: state file " + state + ": /boot_done must be a boolean\n");
    for (int sig : {SIGTERM, SIGINT}) {
        Sim sim;
        sim.process().signal(sig);
        EXPECT_EQ(sim.process().wait(5000), 0);
        EXPECT_TRUE(sim.wait_output("qord-sim stopped"));
    }
}

TEST(Simulator, SurvivesMisbehavingClients) {
    TempDir dir;
    const std::string state = dir.file("state.json");
    Sim sim({"--state", state, "--stall", "fw_config_mode"});
    ASSERT_EQ(sim.run({"activate", "TALVEX-5678"}).status, 0);

    // kill -9 of a client in the middle of a command.
    {
        Process stuck(qorc_binary(), {"--url", sim.address(), "fw_config_mode"});
        ASSERT_TRUE(eventually([&] { return count_of(sim.out(), "connection from") == 2; }));
        usleep(100000);  // its command on its way
        ASSERT_TRUE(stuck.running());
        stuck.signal(SIGKILL);
        stuck.wait();
    }
    // A wrong handshake, a garbage frame, a client that vanishes mid-frame.
    {
        RawConnection wrong(RawConnection::connect_to(sim.port()));
        wrong.write(hex("01 07"));
        EXPECT_EQ(wrong.read(1), hex("01"));
        EXPECT_TRUE(wrong.wait_closed());
    }
    {
        RawConnection garbage(RawConnection::connect_to(sim.port()));
        garbage.write(hex("01 01"));
        garbage.read(1);
        garbage.write(hex("02 00000003 ffffff 00000001 00"));
        garbage.write(hex("05 00000010 41"));
    }
    {
        RawConnection idle(RawConnection::connect_to(sim.port()));
        idle.write(hex("01"));
    }
    EXPECT_RUN(sim.run({"psi_get"}), 0, "{any}", "");
    EXPECT_NE(read_file(state).find("\"talvex_active\":true"), std::string::npos);
    EXPECT_EQ(sim.stop(), 0);
}

// With few descriptors left, clients beyond them wait in the listen queue:
// the simulator neither spins nor stops serving, and takes them once
// descriptors are free again.
TEST(Simulator, OutOfDescriptorsNeitherSpinsNorStops) {
#ifdef __SANITIZE_ADDRESS__
    // The sanitizers' runtime opens descriptors of its own to check memory;
    // without any left it reports false errors.
    GTEST_SKIP() << "not meaningful under the sanitizers";
#endif
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::unique_ptr<Sim> sim;
    try {
        sim.reset(new Sim());  // inherits the limit
    } catch (...) {
        setrlimit(RLIMIT_NOFILE, &saved);
        throw;
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);

    std::vector<std::unique_ptr<RawConnection>> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<RawConnection>(RawConnection::connect_to(sim->port())));
        clients.back()->write(hex("01 01"));
    }
    const long start = usage_of(sim->process().pid()).cpuTicks;
    usleep(1000000);
    const long used = usage_of(sim->process().pid()).cpuTicks - start;
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 5) << "ticks in one second";
    EXPECT_EQ(sim->err(),
              "Cannot accept connections: Too many open files; retrying every 100 ms\n");

    clients.clear();
    EXPECT_RUN(sim->run({"fw_config_mode"}), 0, "{any}", "");
    EXPECT_EQ(sim->stop(), 0);
}

}  // namespace
}  // namespace e2e
