// The reconnection after an upgrade's reboot leaves from where the session
// did (an address or an interface), unless the reboot address names its own
// binding: on a host with several boards, that is what brings it back to the
// same board.
#include <gtest/gtest.h>

#include <future>
#include <regex>

#include "harness.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

// The source address of every connection the simulator logged, in order.
std::vector<std::string> connection_sources(const std::string& out) {
    static const std::regex line("qord-sim connection from ([0-9.]+):[0-9]+\n");
    std::vector<std::string> hosts;
    for (std::sregex_iterator it(out.begin(), out.end(), line), end; it != end; ++it) {
        hosts.push_back((*it)[1]);
    }
    return hosts;
}

struct Case {
    std::vector<std::string> options;  // {ADDRESS} stands for the board's host:port
    std::vector<std::string> sources;  // of the first connection and of the one after the reboot
};

std::string upgrade_with(const Case& c) {
    TempDir dir;
    Sim sim({"--reboot-delay-ms", "100", "--reboot-grace-ms", "50"});
    std::vector<std::string> args = {"--url", sim.address(), "sysupgrade",
                                     dir.write("fw.img", "QORFW bound\npayload")};
    for (std::string option : c.options) {
        const size_t at = option.find("{ADDRESS}");
        if (at != std::string::npos) option.replace(at, 9, sim.address());
        args.push_back(option);
    }
    const Result r = run_qorc(args);
    std::string failures;
    if (r.status != 0) failures += "status " + std::to_string(r.status) + ": " + r.out + r.err;
    const std::vector<std::string> sources = connection_sources(sim.out());
    if (sources != c.sources) {
        failures += "connections from:";
        for (const std::string& s : sources) failures += " " + s;
    }
    return failures;
}

TEST(RebootBinding, TheReconnectionBindsAsTheSessionOrAsTheRebootUrlSays) {
    REQUIRE_PRIVATE_TMP();
    const std::vector<Case> cases = {
        {{}, {"127.0.0.1", "127.0.0.1"}},
        {{"--bind", "127.0.0.5"}, {"127.0.0.5", "127.0.0.5"}},
        {{"--bind", "lo"}, {"127.0.0.1", "127.0.0.1"}},
        // A binding in --reboot-url survives the normalisation, and wins.
        {{"--bind", "127.0.0.5", "--reboot-url", "{ADDRESS}?bind=127.0.0.6"},
         {"127.0.0.5", "127.0.0.6"}},
        {{"--reboot-url", "tcp://{ADDRESS}?bind=127.0.0.7"}, {"127.0.0.1", "127.0.0.7"}},
        // One without a binding of its own takes the session's.
        {{"--bind", "127.0.0.8", "--reboot-url", "tcp://{ADDRESS}"}, {"127.0.0.8", "127.0.0.8"}},
    };
    // Each waits out the reboot pause; they run side by side.
    std::vector<std::future<std::string>> runs;
    for (const Case& c : cases) runs.push_back(std::async(std::launch::async, upgrade_with, c));
    for (size_t i = 0; i < runs.size(); ++i) EXPECT_EQ(runs[i].get(), "") << "case " << i;
}

}  // namespace
}  // namespace e2e
