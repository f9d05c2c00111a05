// main() for test binaries that need a private /tmp (see private_tmp.h).
//
// The process re-executes itself through unshare(1) into a new mount
// namespace whose /tmp is a fresh tmpfs. Re-executing, rather than calling
// unshare(2) here, also works when a sanitizer runtime has already started a
// thread, which makes unshare(2) refuse.
#include <sys/statfs.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <linux/magic.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testing/private_tmp.h"

namespace orvi {
namespace testing {

namespace {

const char* const kEnv = "QORC_TEST_PRIVATE_TMP";
bool g_privateTmp = false;

bool tmp_is_fresh_tmpfs() {
    struct statfs fs;
    return statfs("/tmp", &fs) == 0 && fs.f_type == TMPFS_MAGIC;
}

void reexec_in_private_tmp(int argc, char** argv) {
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return;
    self[n] = '\0';
    setenv(kEnv, "1", 1);
    std::vector<const char*> args = {
        "unshare",
        "--mount",
        "--propagation",
        "private",
        "/bin/sh",
        "-c",
        "mount -t tmpfs -o mode=1777,size=1g tmpfs /tmp && exec \"$0\" \"$@\"",
        self};
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    execv("/usr/bin/unshare", const_cast<char* const*>(args.data()));
    // Only reached when unshare(1) is missing: go on with the shared /tmp.
    unsetenv(kEnv);
}

}  // namespace

bool has_private_tmp() {
    return g_privateTmp;
}

}  // namespace testing
}  // namespace orvi

int main(int argc, char** argv) {
    using namespace orvi::testing;
    if (getenv(kEnv) == nullptr && geteuid() == 0) reexec_in_private_tmp(argc, argv);
    g_privateTmp = getenv(kEnv) != nullptr && tmp_is_fresh_tmpfs();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
