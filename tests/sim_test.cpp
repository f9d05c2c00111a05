// qord-sim as a program: start-up, state file, shutdown and bad clients.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>

#include "harness.h"
#include "loopback.h"

namespace e2e {
namespace {

using support::hex;
using support::RawConnection;

Result run_sim(const std::vector<std::string>& args) {
    TempDir dir;
    Result r;
    {
        Process p(qord_sim_binary(), args, dir.file("out"), dir.file("err"));
        r.status = p.wait(10000);
    }
    r.out = read_file(dir.file("out"));
    r.err = read_file(dir.file("err"));
    return r;
}

TEST(Simulator, UsageAndBadInput) {
    const Result help = run_sim({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--listen", "--state", "--refuse", "--fail", "--drop", "--stall",
                               "--handshake-version", "--refuse-chunk", "--drop-after-last-chunk",
                               "--never-return", "--no-version", "--only-wait-boot-end"}) {
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
    }
    EXPECT_EQ(run_sim({"--bogus"}).status, 2);
    EXPECT_EQ(run_sim({"--listen"}).status, 2);
    EXPECT_EQ(run_sim({"--workers", "0"}).status, 2);
    EXPECT_EQ(run_sim({"--listen", "127.0.0.1"}).status, 2);

    // A state file of the wrong shape is a start-up error naming the field.
    TempDir dir;
    const std::string state = dir.write("s.json", "{\"boot_done\": \"yes\"}");
    const Result bad = run_sim({"--state", state, "--listen", "127.0.0.1:0"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.err, "qord-sim: state file " + state + ": /boot_done must be a boolean\n");
    EXPECT_EQ(bad.out, "");
}

TEST(Simulator, StopsCleanlyOnSignals) {
    for (int sig : {SIGTERM, SIGINT}) {
        Sim sim;
        sim.process().signal(sig);
        EXPECT_EQ(sim.process().wait(5000), 0);
        EXPECT_NE(sim.out().find("qord-sim stopped"), std::string::npos);
    }
}

TEST(Simulator, SurvivesMisbehavingClients) {
    TempDir dir;
    const std::string state = dir.file("state.json");
    Sim sim({"--state", state, "--stall", "fw_config_mode"});
    const std::vector<std::string> url = sim.url();
    auto qorc = [&](std::vector<std::string> args) {
        args.insert(args.begin(), url.begin(), url.end());
        return run_qorc(args);
    };
    ASSERT_EQ(qorc({"activate", "TALVEX-5678"}).status, 0);

    // kill -9 of a client in the middle of a command.
    {
        std::vector<std::string> args = url;
        args.push_back("fw_config_mode");
        Process stuck(qorc_binary(), args, dir.file("o"), dir.file("e"));
        usleep(300000);
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

    const Result r = qorc({"psi_get"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_NE(read_file(state).find("\"talvex_active\":true"), std::string::npos);
    EXPECT_EQ(sim.stop(), 0);
}

TEST(Simulator, StateOutlivesAKilledSimulator) {
    TempDir dir;
    const std::string state = dir.file("state.json");
    {
        Sim sim({"--state", state});
        const std::string patch = dir.write("p.json", "{\"apn\": \"private\"}");
        ASSERT_EQ(run_qorc({"-u", sim.address(), "psi_set", patch}).status, 0);
        sim.process().signal(SIGKILL);
        sim.process().wait();
    }
    Sim again({"--state", state});
    const Result r = run_qorc({"-u", again.address(), "psi_get"});
    EXPECT_EQ(r.out, "Try to connect to " + again.address() + "\n" +
                         R"({"apn":"private","band":{"lte":[1,3,7,20]},"roaming":false})" + "\n");
    // No temporary file is left beside the state.
    EXPECT_EQ(read_file(state).empty(), false);
    EXPECT_FALSE(file_exists(state + ".tmp." + std::to_string(again.process().pid())));
}

TEST(Simulator, DeepPsiIsRefusedAndServingGoesOn) {
    TempDir dir;
    Sim sim({"--state", dir.file("state.json")});
    const std::vector<std::string> url = sim.url();
    auto qorc = [&](std::vector<std::string> args) {
        args.insert(args.begin(), url.begin(), url.end());
        return run_qorc(args);
    };
    const Result before = qorc({"psi_get"});
    ASSERT_EQ(before.status, 0);

    std::string deep;
    for (int i = 0; i < 50000; ++i) deep += "{\"a\":";
    deep += "1" + std::string(50000, '}');  // 300 KB
    const Result refused = qorc({"psi_set", dir.write("deep.json", deep)});
    EXPECT_NE(refused.status, 0);
    EXPECT_NE(refused.err.find("PSI amend refused: the JSON is nested deeper than 64 levels"),
              std::string::npos)
        << refused.err;
    const Result arrays =
        qorc({"psi_set", dir.write("arrays.json", std::string(100000, '[') + "]")});
    EXPECT_NE(arrays.err.find("nested deeper than 64 levels"), std::string::npos) << arrays.err;

    const Result after = qorc({"psi_get"});
    EXPECT_EQ(after.status, 0);
    EXPECT_EQ(after.out, before.out);
    EXPECT_TRUE(sim.process().running());
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
    const std::string err = sim->err();
    EXPECT_EQ(err, "Cannot accept connections: Too many open files; retrying every 100 ms\n");

    clients.clear();
    const Result r = run_qorc({"--url", sim->address(), "fw_config_mode"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(sim->stop(), 0);
}

}  // namespace
}  // namespace e2e
