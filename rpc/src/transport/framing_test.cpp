// SPDX-License-Identifier: Apache-2.0
// Golden bytes here are written by hand from the wire layout in
// transport/frame_format.h, never produced by the code under test.
#include "transport/framing.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include "error_of.h"
#include "orvi/exceptions.h"
#include "testing/raw_peer.h"
#include "testing/recording_handler.h"
#include "transport/simple_socket.h"

namespace orvi {
namespace simple_socket {
namespace {

using support::hex;
using support::to_hex;

MessageConst message_of(const std::vector<std::string>& buffers) {
    MessageConst m;
    for (const std::string& b : buffers) m.push_back(BufferConst(b.data(), b.size()));
    return m;
}

struct Golden {
    const char* name;
    std::vector<std::string> buffers;  // as the sender lists them
    std::string wire;
};

std::vector<Golden> goldens() {
    return {
        // Last buffer first, each behind its own big-endian length.
        {"three buffers",
         {"A", "BB", "CCC"},
         hex("03  00000003 434343  00000002 4242  00000001 41")},
        {"empty message", {}, hex("00")},
        {"zero-length buffer", {""}, hex("01 00000000")},
        {"length 0x100", {std::string(256, 'x')}, hex("01 00000100") + std::string(256, 'x')},
        {"empty buffer between", {"a", "", "b"}, hex("03 00000001 62 00000000 00000001 61")},
    };
}

// Encoded as written by hand, and decoded into arrival order: the sender's
// last buffer first.
TEST(Framing, GoldenFramesBothWays) {
    for (const Golden& g : goldens()) {
        MessageConst m = message_of(g.buffers);
        FrameEncoder frame(m);
        EXPECT_EQ(to_hex(frame.to_bytes()), to_hex(g.wire)) << g.name;
        EXPECT_EQ(frame.total_size(), g.wire.size()) << g.name;
        MemorySource source(g.wire);
        Message<BufferMutable> decoded;
        // An empty frame delivers nothing.
        EXPECT_EQ(read_frame(source, decoded), !g.buffers.empty()) << g.name;
        std::vector<std::string> arrived;
        for (const BufferMutable& b : decoded) arrived.insert(arrived.begin(), {b.data, b.size});
        EXPECT_EQ(arrived, g.buffers) << g.name;
        EXPECT_EQ(source.remaining(), 0u) << g.name;
    }
}

// The same bytes through a real socket: ProtocolV1 must put exactly the
// encoder's layout on the wire, and read back bursts of frames in order.
class ProtocolV1OverSocket : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, m_fds), 0); }
    void TearDown() override {
        close(m_fds[0]);
        if (m_fds[1] >= 0) close(m_fds[1]);
    }
    int m_fds[2];
};

TEST_F(ProtocolV1OverSocket, SendWritesTheGoldenBytesWholeOrInPieces) {
    support::RawConnection peer(dup(m_fds[1]));
    for (bool split : {false, true}) {
        ProtocolV1 protocol(m_fds[0]);
        protocol.set_split_writes(split);
        for (const Golden& g : goldens()) {
            std::vector<std::string> copy = g.buffers;
            protocol.send_message(message_of(copy));
            EXPECT_EQ(to_hex(peer.read(g.wire.size())), to_hex(g.wire)) << g.name << split;
        }
    }
}

TEST_F(ProtocolV1OverSocket, InterruptedWritesResumeWhereTheyStopped) {
    // A blocking send stops short only when a signal interrupts it. Megabytes
    // across several buffers, under a stream of signals, make it stop short
    // many times; each time it must resume at the right byte of the right
    // buffer. Patterned data makes a wrong offset visible.
    std::string all((4 << 20) + 3, '\0');
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i * 31 % 251);
    const std::string a = all.substr(0, 1 << 20), b = all.substr(1 << 20, 2 << 20),
                      c = all.substr(3 << 20);
    const std::string expected = hex("03 00100003") + c + hex("00200000") + b + hex("00100000") + a;

    struct sigaction action {};
    action.sa_handler = [](int) {};  // no SA_RESTART: the send returns early
    struct sigaction previous {};
    sigaction(SIGUSR1, &action, &previous);
    std::atomic<bool> sending{true};
    const pthread_t sender = pthread_self();
    std::thread interrupter([&] {
        while (sending) {
            pthread_kill(sender, SIGUSR1);
            usleep(50);
        }
    });
    std::string received;
    std::thread reader(
        [&] { received = support::RawConnection(dup(m_fds[1])).read(expected.size()); });
    ProtocolV1 protocol(m_fds[0]);
    protocol.send_message(message_of({a, b, c}));
    sending = false;
    interrupter.join();
    reader.join();
    sigaction(SIGUSR1, &previous, nullptr);
    ASSERT_EQ(received.size(), expected.size());
    EXPECT_TRUE(received == expected);
}

// A peer that closes before or in the middle of a frame, or announces more
// than can be allocated: a socket error, never a crash, and nothing delivered.
TEST_F(ProtocolV1OverSocket, UnfinishedOrUnallocatableFramesFailCleanly) {
    for (const char* bytes :
         {"", "02 00000001 61", "01 000000", "02 00000005 6162", "01 ffffffff 616263"}) {
        TearDown();  // a fresh pair for each
        SetUp();
        auto handler = std::make_shared<testing::RecordingHandler>();
        auto info = std::make_shared<InfoClient>(1, handler);
        info->m_fd = dup(m_fds[0]);
        info->open(std::unique_ptr<ProtocolV1>(new ProtocolV1(info->m_fd)));
        support::RawConnection(m_fds[1]).write(hex(bytes));  // and closes its end
        m_fds[1] = -1;
        const std::string what = support::error_of<SimpleSocketException>([&] {
            CallerTurn turn(info->m_turn);
            info->m_protocol->recv_message(info);
        });
        EXPECT_TRUE(what.rfind("Failed to read data from server: ", 0) == 0 ||
                    what.rfind("Failed to allocate ", 0) == 0)
            << bytes << ": " << what;
        EXPECT_TRUE(handler->messages().empty());
    }
}

TEST(SimpleSocketWrite, AClosedPeerFails) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    close(fds[1]);
    char c;
    EXPECT_EQ(support::error_of<SimpleSocketException>([&] { write(fds[0], "x", 1); }),
              "Failed to send data to server");
    EXPECT_THROW(read(fds[0], &c, 1), SimpleSocketException);
    close(fds[0]);
}

}  // namespace
}  // namespace simple_socket
}  // namespace orvi
