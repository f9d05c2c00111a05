// qorc sysupgrade end to end, against qord-sim. The binary has a /tmp of its
// own, so the marker file /tmp/qor_sysupgrade is never shared.
#include <unistd.h>

#include <gtest/gtest.h>
#include <cmath>
#include <future>
#include <regex>

#include "harness.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

const std::string kMarker = "/tmp/qor_sysupgrade";

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

struct Upgrade {
    TempDir dir;
    std::unique_ptr<Sim> sim;
    std::string image_out;

    explicit Upgrade(std::vector<std::string> args = {}) {
        image_out = dir.file("received.img");
        args.insert(args.end(), {"--reboot-delay-ms", "500", "--image-out", image_out});
        sim.reset(new Sim(args));
    }
    std::string hello() const { return "Try to connect to " + sim->address() + "\n"; }
    std::string receiving(size_t size) const {
        return "Upgrading...\nReceiving image of " + std::to_string(size) + " bytes\n";
    }
    Result run(const std::string& path, std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"--url", sim->address(), "sysupgrade", path};
        args.insert(args.end(), extra.begin(), extra.end());
        return run_qorc(args, 120000);
    }
};

const std::string kFlashing = "\nVerifying image\nWriting image to flash\n";

TEST(Sysupgrade, FullSuccessHoldsTheMarkerAndDeliversTheImage) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u;
    const std::string bytes = image(5017, "9.9.9");
    const std::string path = u.dir.write("fw.zpk", bytes);

    Process qorc(qorc_binary(), {"--url", u.sim->address(), "sysupgrade", "-c", path},
                 u.dir.file("out"), u.dir.file("err"));
    std::string marker;
    for (int i = 0; i < 2000 && marker.empty() && qorc.running(); ++i) {
        marker = read_file(kMarker);
        usleep(2000);
    }
    EXPECT_EQ(marker, std::to_string(qorc.pid()));
    EXPECT_EQ(qorc.wait(120000), 0);
    EXPECT_FALSE(file_exists(kMarker));

    EXPECT_EQ(read_file(u.dir.file("out")),
              u.hello() + u.receiving(5017) + "\r81 % \r100 % " + kFlashing +
                  "Rebooting...Reboot done\nUpgraded to 9.9.9\nUpgrade done with success\n");
    EXPECT_EQ(read_file(u.dir.file("err")), "");
    EXPECT_EQ(read_file(u.image_out), bytes);
    EXPECT_NE(u.sim->out().find("5017 bytes, keep_config=1, not_save_config=0"), std::string::npos);

    // The same image again: the board still runs it afterwards.
    const Result again = u.run(path, {"-n"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.out, u.hello() + u.receiving(5017) + "\r81 % \r100 % " + kFlashing +
                             "Rebooting...Reboot done\nUpgrade failed\n");
    EXPECT_EQ(again.err, "Error: Failed to upgrade board\n");
    EXPECT_NE(u.sim->out().find("keep_config=0, not_save_config=1"), std::string::npos);
    EXPECT_FALSE(file_exists(kMarker));
}

TEST(Sysupgrade, RebootToAnotherAddressWithDotsWhileBooting) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u({"--reboot-listen", "127.0.0.2", "--boot-time-ms", "6500"});
    const std::string bytes = image(4096);
    const std::string path = u.dir.write("fw.zpk", bytes);
    const std::string port = std::to_string(u.sim->port());
    const Result r = u.run(path, {"--reboot-url", "127.0.0.2:" + port});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    const std::string head =
        u.hello() + u.receiving(4096) + "\r100 % " + kFlashing + "Rebooting...";
    ASSERT_EQ(r.out.substr(0, head.size()), head);
    EXPECT_TRUE(std::regex_match(r.out.substr(head.size()),
                                 std::regex("\\.{1,5}\nReboot done\nUpgraded to image-[0-9a-f]{8}\n"
                                            "Upgrade done with success\n")))
        << r.out.substr(head.size());
    EXPECT_NE(u.sim->out().find("back on 127.0.0.2:" + port), std::string::npos);
    EXPECT_EQ(read_file(u.image_out), bytes);
}

TEST(Sysupgrade, UnusableImagesFailBeforeSending) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u;
    const Result empty = u.run(u.dir.write("empty.zpk", ""));
    EXPECT_EQ(empty.status, 1);
    EXPECT_EQ(empty.out, u.hello() + "Upgrading...\nUpgrade failed\n");
    EXPECT_EQ(empty.err, "Error: Error, file is empty!\n");

    for (const std::string& path : {u.dir.file("missing.zpk"), u.dir.path()}) {
        const Result r = u.run(path);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, u.hello() + "Upgrading...\nUpgrade failed\n");
        EXPECT_EQ(r.err, "Error: Failed to open file\n");
    }
    // A reboot address no transport serves stops everything up front.
    const Result udp = u.run(u.dir.write("ok.zpk", "x"), {"--reboot-url", "udp://127.0.0.1:1"});
    EXPECT_EQ(udp.status, 1);
    EXPECT_EQ(udp.out, u.hello());
    EXPECT_EQ(udp.err, "Error: Unsupported reboot url udp://127.0.0.1:1\n");

    // Larger than its 32-bit size field can say (a sparse file).
    const std::string huge = u.dir.file("huge.zpk");
    // A 32-bit off_t would wrap this size round to 1 byte.
    static_assert(sizeof(off_t) >= 8, "build with _FILE_OFFSET_BITS=64");
    const off_t hugeSize = static_cast<off_t>(4LL << 30) + 1;
    ASSERT_EQ(truncate(u.dir.write("huge.zpk", "x").c_str(), hugeSize), 0);
    const Result big = u.run(huge);
    EXPECT_EQ(big.status, 1);
    EXPECT_EQ(big.err, "Error: Error, file is larger than 4 GiB!\n");

    EXPECT_FALSE(file_exists(kMarker));
    EXPECT_EQ(u.sim->out().find("qord-sim upgrade"), std::string::npos);
}

TEST(Sysupgrade, RefusalBeforeTheLastChunk) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u({"--refuse-chunk", "2"});
    const Result r = u.run(u.dir.write("fw.zpk", image(3 * 4096)));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, u.hello() + u.receiving(3 * 4096) + "\r33 % \r66 % \nUpgrade failed\n");
    EXPECT_EQ(r.err, "Error: image refused at chunk 2\n");
    EXPECT_FALSE(file_exists(kMarker));
}

TEST(Sysupgrade, DropAfterTheLastChunkIsTakenAsTheReboot) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u({"--drop-after-last-chunk"});
    const std::string bytes = image(4097, "5.0");
    const Result r = u.run(u.dir.write("fw.zpk", bytes));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, u.hello() + u.receiving(4097) + "\r99 % \r100 % " +
                         "Skipped error as everything has been sent: Connection lost\n"
                         "Rebooting...Reboot done\nUpgraded to 5.0\nUpgrade done with success\n");
    EXPECT_EQ(r.err, "Worker got exception: Failed to read data from server: Success\n");
    EXPECT_EQ(read_file(u.image_out), bytes);
}

TEST(Sysupgrade, BoardThatNeverReturns) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u({"--never-return"});
    const Result r = u.run(u.dir.write("fw.zpk", image(10)), {"-t", "3"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, u.hello() + u.receiving(10) + "\r100 % " + kFlashing +
                         "Rebooting.....\nReboot failed\n");
    EXPECT_EQ(r.err, "Error: board failed to reboot\n");
    EXPECT_FALSE(file_exists(kMarker));
}

TEST(Sysupgrade, BoardWithoutVersionService) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u({"--no-version"});
    const Result r = u.run(u.dir.write("fw.zpk", image(1)));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, u.hello() + u.receiving(1) + "\r100 % " + kFlashing +
                         "Rebooting...Reboot done\n"
                         "Warning: system upgrade validation failed, firmwares do not support "
                         "version service\nUpgrade done with success\n");
    EXPECT_EQ(r.err, "");
}

TEST(Sysupgrade, BoardWithOnlyTheBlockingBootEnd) {
    REQUIRE_PRIVATE_TMP();
    Upgrade u({"--only-wait-boot-end", "--boot-time-ms", "6500"});
    const Result r = u.run(u.dir.write("fw.zpk", image(100, "7.1")));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, u.hello() + u.receiving(100) + "\r100 % " + kFlashing +
                         "Rebooting...Reboot done\nUpgraded to 7.1\nUpgrade done with success\n");
    EXPECT_EQ(r.err, "");
    EXPECT_NE(u.sim->err().find("there is no command handler for "
                                "\"com.korvane.command.system_boot_end\""),
              std::string::npos);
}

TEST(Sysupgrade, PercentagesAroundChunkBoundaries) {
    REQUIRE_PRIVATE_TMP();
    // One board each, run side by side: each upgrade waits five seconds for
    // the reboot.
    const std::vector<size_t> sizes = {1, 4095, 4096, 4097, 8191, 8192, 8193, 409600 + 1};
    std::vector<std::unique_ptr<Upgrade>> boards;
    std::vector<std::future<Result>> runs;
    for (size_t size : sizes) {
        boards.emplace_back(new Upgrade());
        Upgrade* u = boards.back().get();
        const std::string path = u->dir.write("fw.zpk", image(size));
        runs.push_back(std::async(std::launch::async, [u, path] { return u->run(path); }));
    }
    for (size_t i = 0; i < sizes.size(); ++i) {
        const Result r = runs[i].get();
        EXPECT_EQ(r.status, 0) << sizes[i] << ": " << r.err << boards[i]->sim->err();
        const std::string head = boards[i]->hello() + boards[i]->receiving(sizes[i]);
        const std::string expected = head + progress(sizes[i]) + kFlashing;
        EXPECT_EQ(r.out.substr(0, expected.size()), expected) << sizes[i];
    }
    EXPECT_EQ(progress(4097), "\r99 % \r100 % ");
    EXPECT_EQ(progress(8193), "\r49 % \r99 % \r100 % ");
}

}  // namespace
}  // namespace e2e
