// SPDX-License-Identifier: Apache-2.0
// The least a client can do: connect, run the 2-byte handshake, exit. The
// reference for how fast a one-shot qorc run could possibly be.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: handshake_probe PORT\n");
        return 2;
    }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[1])));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return 1;
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const char hello[2] = {1, 1};
    char answer = 0;
    if (write(fd, hello, 2) != 2 || read(fd, &answer, 1) != 1 || answer != 1) return 1;
    close(fd);
    return 0;
}
