// SPDX-License-Identifier: Apache-2.0
// How long a client connection may go without a sign of life from its peer
// before the kernel ends it. A board that loses power, or whose cable is
// pulled, sends neither FIN nor RST: without these limits a blocked read
// waits forever and a blocked write for the kernel's retransmission budget,
// about a quarter of an hour.
#pragma once

#include <chrono>

namespace orvi {
namespace simple_socket {

struct LinkLiveness {
    // Keepalive: the first probe after this long without traffic, then one
    // every interval; this many unanswered probes end the connection.
    static constexpr std::chrono::seconds kIdle{10};
    static constexpr std::chrono::seconds kInterval{5};
    static constexpr int kProbes = 3;
    // Sent data (a request, a chunk, a keepalive probe) may stay unanswered
    // this long. It also ends a connection whose peer keeps its receive
    // window shut: a peer that stops reading for longer counts as gone.
    static constexpr std::chrono::seconds kUserTimeout{30};
};

// Sets the limits above on a connected TCP socket. Kernel socket options
// only: nothing changes on the wire while the peer answers. False when one
// of them could not be set (the connection still works, without the bound).
bool watch_link_liveness(int fd);

}  // namespace simple_socket
}  // namespace orvi
