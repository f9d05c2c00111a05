// SPDX-License-Identifier: Apache-2.0
// qorc sysupgrade end to end, against qord-sim. The binary has a /tmp of its
// own, so the marker file /tmp/qor_sysupgrade is never shared with another
// test program.
#include <unistd.h>

#include <gtest/gtest.h>
#include <future>
#include <regex>

#include "harness.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

const std::string kMarker = "/tmp/qor_sysupgrade";
const std::string kFlashing = "\nVerifying image\nWriting image to flash\n";
const std::string kSuccess = "Upgrade done with success\n";

std::string image(size_t size, const std::string& version = "") {
    std::string bytes = version.empty() ? "" : "QORFW " + version + "\n";
    unsigned int x = static_cast<unsigned int>(size) * 2654435761u;
    while (bytes.size() < size) {
        x = x * 1103515245u + 12345u;
        bytes.push_back(static_cast<char>(x >> 16));
    }
    bytes.resize(size);
    return bytes;
}

std::string receiving(size_t size) {
    return "Upgrading...\nReceiving image of " + std::to_string(size) + " bytes\n";
}

// The percentages the console must draw for an image of `size` bytes, worked
// out here from the chunk size: one redraw per new whole percentage.
std::string progress(size_t size) {
    std::string out;
    int last = -1;
    for (size_t done = 0; done < size;) {
        done += std::min<size_t>(4096, size - done);
        const int n =
            static_cast<int>(static_cast<float>(done) / static_cast<float>(size) * 100.0f);
        if (n != last) out += "\r" + std::to_string(n) + " % ";
        last = n;
    }
    return out;
}

struct Case {
    std::string name;
    std::vector<std::string> sim_args;
    std::string image;              // written to {dir}/fw.zpk
    std::vector<std::string> args;  // behind "sysupgrade"; {port} is the simulator's
    int status;
    std::string out;  // after the connection line; {any} is any text
    std::string err;
    std::vector<std::string> from = {};  // sources of the connections, when it matters
    std::string sim_says = "";           // in the simulator's output
    off_t grow_to = 0;                   // the image made sparse to this size
    bool twice = false;                  // the upgrade made once before, with -c
};

const std::string kImage = "{dir}/fw.zpk";
const std::string kAny = "{any}";
const std::string kBack = "Rebooting...Reboot done\n";

std::vector<Case> cases() {
    const std::string flashed = "\r100 % " + kFlashing + kBack;
    const std::string failed = "Upgrading...\nUpgrade failed\n";
    // clang-format off
    std::vector<Case> all = {
        {"refused before the last chunk", {"--refuse-chunk", "2"}, image(3 * 4096), {kImage}, 1,
         receiving(3 * 4096) + "\r33 % \r66 % \nUpgrade failed\n", "Error: image refused at chunk 2\n"},
        {"a drop after the last chunk is taken as the reboot", {"--drop-after-last-chunk"},
         image(4097, "5.0"), {kImage}, 0, receiving(4097) + "\r99 % \r100 % Skipped error as "
         "everything has been sent: Connection lost\n" + kBack + "Upgraded to 5.0\n" + kSuccess,
         "Worker got exception: Failed to read data from server: Success\n"},
        {"-c keeps the configuration", {}, image(2), {kImage, "-c"}, 0, kAny, "", {},
         "2 bytes, keep_config=1, not_save_config=0"},
        {"the same image again fails", {}, image(5017, "9.9.9"), {kImage, "-n"}, 1, receiving(5017) +
         "\r81 % \r100 % " + kFlashing + kBack + "Upgrade failed\n", "Error: Failed to upgrade board\n",
         {}, "keep_config=0, not_save_config=1", 0, true},
        {"a board that never comes back", {"--never-return"}, image(10), {kImage, "-t", "3"}, 1,
         receiving(10) + "\r100 % " + kFlashing + "Rebooting.....\nReboot failed\n",
         "Error: board failed to reboot\n"},
        {"a board without the version service", {"--no-version"}, image(1), {kImage}, 0,
         receiving(1) + flashed + "Warning: system upgrade validation failed, firmwares do not "
         "support version service\n" + kSuccess, ""},
        {"a board with only the blocking boot-end wait", {"--only-wait-boot-end", "--boot-time-ms",
         "6500"}, image(100, "7.1"), {kImage}, 0, receiving(100) + flashed + "Upgraded to 7.1\n" +
         kSuccess, "", {}, "there is no command handler for \"com.korvane.command.system_boot_end\""},
        {"reboot to another address, dots while it boots", {"--reboot-listen", "127.0.0.2",
         "--boot-time-ms", "6500"}, image(4096), {kImage, "--reboot-url", "127.0.0.2:{port}"}, 0,
         receiving(4096) + "\r100 % " + kFlashing + "Rebooting....{any}\nReboot done\nUpgraded to "
         "image-{any}\n" + kSuccess, "", {}, "back on 127.0.0.2:{port}"},
        // Images that cannot be used fail before anything is sent.
        {"empty image", {}, "", {kImage}, 1, failed, "Error: Error, file is empty!\n"},
        {"missing image", {}, "", {"{dir}/missing.zpk"}, 1, failed, "Error: Failed to open file\n"},
        {"a folder as the image", {}, "", {"{dir}"}, 1, failed, "Error: Failed to open file\n"},
        {"a reboot address that no transport serves", {}, "x", {kImage, "--reboot-url",
         "udp://127.0.0.1:1"}, 1, "", "Error: Unsupported reboot url udp://127.0.0.1:1\n"},
        // Larger than its 32-bit size field can say; a 32-bit off_t would
        // wrap this size round to 1 byte.
        {"an image over 4 GiB", {}, "x", {kImage}, 1, kAny,
         "Error: Error, file is larger than 4 GiB!\n", {}, "", static_cast<off_t>(4LL << 30) + 1},
    };
    // The reconnection after the reboot binds as the session did, unless the
    // reboot address names its own binding, which survives the normalisation.
    const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> binds = {
        {{}, {"127.0.0.1", "127.0.0.1"}},
        {{"--bind", "127.0.0.5"}, {"127.0.0.5", "127.0.0.5"}},
        {{"--bind", "lo"}, {"127.0.0.1", "127.0.0.1"}},
        {{"--bind", "127.0.0.5", "--reboot-url", "127.0.0.1:{port}?bind=127.0.0.6"}, {"127.0.0.5", "127.0.0.6"}},
        {{"--reboot-url", "tcp://127.0.0.1:{port}?bind=127.0.0.7"}, {"127.0.0.1", "127.0.0.7"}},
        {{"--bind", "127.0.0.8", "--reboot-url", "tcp://127.0.0.1:{port}"}, {"127.0.0.8", "127.0.0.8"}},
    };
    for (const auto& [options, from] : binds) {
        std::vector<std::string> args = {kImage};
        args.insert(args.end(), options.begin(), options.end());
        all.push_back({"bound as case " + std::to_string(all.size()), {}, "QORFW b\n", args, 0, kAny,
                       "", from});
    }
    // The percentages around chunk boundaries.
    for (size_t size : {1, 4095, 4096, 4097, 8191, 8192, 8193, 409600 + 1}) {
        all.push_back({"image of " + std::to_string(size) + " bytes", {}, image(size), {kImage}, 0,
                       receiving(size) + progress(size) + kFlashing + kAny, ""});
    }
    // clang-format on
    return all;
}

// One case, checked where it runs: GoogleTest's assertions may be used from
// any thread.
void upgrade(const Case& c) {
    static_assert(sizeof(off_t) >= 8, "build with _FILE_OFFSET_BITS=64");
    SCOPED_TRACE(c.name);
    TempDir dir;
    const std::string received = dir.file("received.img");
    std::vector<std::string> sim_args = {"--reboot-delay-ms", "500", "--image-out", received};
    sim_args.insert(sim_args.end(), c.sim_args.begin(), c.sim_args.end());
    Sim sim(sim_args);
    const std::string path = dir.write("fw.zpk", c.image);
    ASSERT_TRUE(c.grow_to == 0 || truncate(path.c_str(), c.grow_to) == 0);
    const std::vector<std::pair<std::string, std::string>> values = {
        {"{dir}", dir.path()}, {"{port}", std::to_string(sim.port())}};
    std::vector<std::string> args = {"sysupgrade"};
    for (const std::string& a : c.args) args.push_back(fill(a, values));
    ASSERT_TRUE(!c.twice || sim.run({"sysupgrade", "-c", path}, 120000).status == 0);
    EXPECT_RUN(sim.run(args, 120000), c.status, sim.hello() + c.out, c.err);

    const std::string said = sim.out() + sim.err();
    EXPECT_NE(said.find(fill(c.sim_says, values)), std::string::npos) << said;
    const bool sent = c.status == 0 || c.out.find("Receiving image") != std::string::npos;
    EXPECT_TRUE(sent || said.find("qord-sim upgrade") == std::string::npos) << said;
    EXPECT_TRUE(c.status != 0 || read_file(received) == c.image) << "the image differs";
    static const std::regex connection("qord-sim connection from ([0-9.]+):");
    std::vector<std::string> from;
    for (std::sregex_iterator it(said.begin(), said.end(), connection), end; it != end; ++it) {
        from.push_back((*it)[1]);
    }
    EXPECT_TRUE(c.from.empty() || from == c.from) << testing::PrintToString(from);
}

TEST(Sysupgrade, Cases) {
    REQUIRE_PRIVATE_TMP();
    // Each waits out a reboot; they run side by side.
    std::vector<std::future<void>> runs;
    for (const Case& c : cases()) runs.push_back(std::async(std::launch::async, upgrade, c));
    for (std::future<void>& run : runs) run.get();
    EXPECT_NE(access(kMarker.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace e2e
