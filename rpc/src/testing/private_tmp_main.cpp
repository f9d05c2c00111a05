// SPDX-License-Identifier: Apache-2.0
// main() for test binaries that need a private /tmp (see private_tmp.h).
//
// The process re-executes itself through unshare(1) into a new mount
// namespace, then mounts a fresh tmpfs on /tmp there. Re-executing, rather
// than calling unshare(2) here, also works when a sanitizer runtime has
// already started a thread, which makes unshare(2) refuse. A source or build
// tree that lives under /tmp is bound back at its own path, so that the
// tests still find the binaries they run.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "testing/emulator.h"
#include "testing/private_tmp.h"

namespace orvi {
namespace testing {

namespace {

const char* const kEnv = "QORC_TEST_PRIVATE_TMP";
bool g_privateTmp = false;

void reexec_in_new_mount_namespace(int argc, char** argv) {
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return;
    self[n] = '\0';
    setenv(kEnv, "1", 1);
    const std::vector<std::string> emulator = emulator_command();
    std::vector<const char*> args = {"unshare", "--mount", "--propagation", "private"};
    for (const std::string& word : emulator) args.push_back(word.c_str());
    args.push_back(self);
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    execv("/usr/bin/unshare", const_cast<char* const*>(args.data()));
    // Only reached when unshare(1) is missing: go on with the shared /tmp.
    unsetenv(kEnv);
}

bool under_tmp(const std::string& path) {
    return path.compare(0, 5, "/tmp/") == 0;
}

// In the new namespace: a fresh /tmp, with `keep` bound back where it was.
bool mount_private_tmp(const std::vector<std::string>& keep) {
    const int old = open("/tmp", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (old < 0) return false;
    bool ok = mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777,size=1g") == 0;
    for (const std::string& path : keep) {
        if (!ok || !under_tmp(path)) continue;
        std::error_code ec;
        std::filesystem::create_directories(path, ec);
        const std::string source = "/proc/self/fd/" + std::to_string(old) + path.substr(4);
        ok = mount(source.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
    }
    close(old);
    return ok;
}

}  // namespace

bool has_private_tmp() {
    return g_privateTmp;
}

}  // namespace testing
}  // namespace orvi

int main(int argc, char** argv) {
    using namespace orvi::testing;
    if (getenv(kEnv) == nullptr && geteuid() == 0) reexec_in_new_mount_namespace(argc, argv);
    if (getenv(kEnv) != nullptr) {
        g_privateTmp = mount_private_tmp({QORC_SOURCE_ROOT, QORC_BUILD_ROOT});
        if (!g_privateTmp) std::cerr << "could not set up a private /tmp\n";
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
