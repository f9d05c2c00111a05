// SPDX-License-Identifier: Apache-2.0
// kill -9 of qord-sim in the middle of PSI writes: the state file is always
// a whole JSON document, and no change it acknowledged is ever lost. (Not
// with a /tmp of its own: that is a tmpfs, where a save costs nothing and
// no kill lands inside one.)
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "harness.h"
#include "qor/client.h"

namespace e2e {
namespace {

// Writes keys k<n> for n = next, next + 1, ... until the board goes away or
// `total` is reached; records each write the board acknowledged, and raises
// `started` at the first of them.
void write_until_killed(const std::string& address_port, int total, int& next,
                        std::map<int, bool>& acknowledged, std::atomic<bool>& started) {
    MutedStdout muted;  // psi_set echoes what it sends
    qor::Client client;
    try {
        client.connect("127.0.0.1", address_port, "", 5);
        qor::client::Device device = client.get_device(0);
        while (next < total) {
            const int n = next++;
            device.psi_set("/update/psi/amend",
                           "{\"k" + std::to_string(n) + "\":" + std::to_string(n) + "}");
            acknowledged[n] = true;
            started = true;
        }
    } catch (const std::exception&) {
        // The kill: the write in flight, if any, is not acknowledged.
    }
    started = true;  // also when no write got through
}

TEST(SimulatorCrash, KillDuringPsiWritesKeepsTheFileWholeAndEveryAcknowledgedChange) {
    TempDir dir;
    const std::string state = dir.file("state.json");
    std::mt19937 random(20261122);
    std::map<int, bool> acknowledged;
    // Three times the 50 writes a board is asked to survive: more kills land
    // inside a save.
    const int writes = 150;
    int next = 0, rounds = 0;
    while (next < writes) {
        Sim sim({"--state", state});
        std::atomic<bool> started{false};
        std::thread writer(write_until_killed, std::to_string(sim.port()), writes, std::ref(next),
                           std::ref(acknowledged), std::ref(started));
        // The kill lands at a random moment once writes are flowing, however
        // slow the machine (or its emulator) is.
        eventually([&] { return started.load(); }, 30000);
        usleep(std::uniform_int_distribution<useconds_t>(0, 20000)(random));
        sim.process().signal(SIGKILL);
        sim.process().wait();
        writer.join();
        ++rounds;

        const std::string text = read_file(state);
        if (text.empty()) continue;  // killed before the first write
        nlohmann::json doc;
        ASSERT_NO_THROW(doc = nlohmann::json::parse(text)) << "round " << rounds << ": " << text;
        const nlohmann::json& psi = doc["devices"][0]["psi"];
        for (const auto& entry : acknowledged) {
            const std::string key = "k" + std::to_string(entry.first);
            ASSERT_TRUE(psi.contains(key)) << key << " acknowledged, lost in round " << rounds;
            EXPECT_EQ(psi[key], entry.first);
        }
    }
    EXPECT_GE(rounds, 2);
    ASSERT_FALSE(acknowledged.empty());
    Sim last({"--state", state});
    const std::string key = "\"k" + std::to_string(acknowledged.rbegin()->first) + "\"";
    EXPECT_RUN(last.run({"psi_get"}), 0, "{any}" + key + "{any}", "");
    last.process().signal(SIGINT);  // stops it as SIGTERM does
    EXPECT_EQ(last.process().wait(5000), 0);
    std::cout << rounds << " kills during " << next << " writes, " << acknowledged.size()
              << " acknowledged\n";
}

}  // namespace
}  // namespace e2e
