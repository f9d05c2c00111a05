// SPDX-License-Identifier: Apache-2.0
#include "transport/link_liveness.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace orvi {
namespace simple_socket {

namespace {

bool set_int(int fd, int level, int name, long long value) {
    const int v = static_cast<int>(value);
    return setsockopt(fd, level, name, &v, sizeof v) == 0;
}

}  // namespace

bool watch_link_liveness(int fd) {
    using L = LinkLiveness;
    using std::chrono::milliseconds;
    // Every option is tried, so that one that fails costs only itself.
    const bool keepalive = set_int(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    const bool idle = set_int(fd, IPPROTO_TCP, TCP_KEEPIDLE, L::kIdle.count());
    const bool interval = set_int(fd, IPPROTO_TCP, TCP_KEEPINTVL, L::kInterval.count());
    const bool probes = set_int(fd, IPPROTO_TCP, TCP_KEEPCNT, L::kProbes);
    const bool user = set_int(fd, IPPROTO_TCP, TCP_USER_TIMEOUT,
                              std::chrono::duration_cast<milliseconds>(L::kUserTimeout).count());
    return keepalive && idle && interval && probes && user;
}

}  // namespace simple_socket
}  // namespace orvi
