// The kernel's watch over a client connection, read back from the socket
// that the client transport connected.
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "loopback.h"
#include "orvi/transport_simple_socket_client.h"

namespace orvi {
namespace {

// This process's descriptor connected to 127.0.0.1:port, or -1.
int connected_to(unsigned short port) {
    int found = -1;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* e = dir ? readdir(dir) : nullptr) {
        const int fd = atoi(e->d_name);
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == port) {
            found = fd;
        }
    }
    if (dir) closedir(dir);
    return found;
}

int option(int fd, int level, int name) {
    int value = -1;
    socklen_t len = sizeof value;
    return getsockopt(fd, level, name, &value, &len) == 0 ? value : -1;
}

TEST(LinkLiveness, TheClientTransportsConnectionsAreWatched) {
    support::RawListener listener;
    TransportSimpleSocketClient t("127.0.0.1", listener.port_text());
    std::thread board([&] {
        support::RawConnection c(listener.accept_one());
        c.read(2);
        c.write(std::string(1, '\x01'));
        c.drain();
    });
    t.connect(1);
    const int fd = connected_to(listener.port());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(option(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_KEEPIDLE), 10);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_KEEPINTVL), 5);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_KEEPCNT), 3);
    EXPECT_EQ(option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT), 30000);
    t.disconnect();
    board.join();
}

}  // namespace
}  // namespace orvi
