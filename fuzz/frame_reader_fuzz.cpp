// SPDX-License-Identifier: Apache-2.0
// The frame decoder three ways over the same bytes: in one piece from
// memory, in small pieces with a stop after every piece (the decoder must
// resume at the same byte), and through the socket reader over a real
// socket. All three must deliver the same frames.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_options.h"
#include "orvi/exceptions.h"
#include "transport/framing.h"
#include "transport/socket_reader.h"

using namespace orvi;
using namespace orvi::simple_socket;

namespace {

using Frames = std::vector<std::vector<std::string>>;

struct Stopped {};

// Hands out at most `piece` bytes per call, then stops like a reader told to.
class PiecewiseSource : public ByteSource {
  public:
    PiecewiseSource(std::string bytes, size_t piece) : m_bytes(std::move(bytes)), m_piece(piece) {}
    void fill(char* dst, size_t n, size_t& filled) override {
        const size_t take = std::min({n - filled, m_piece, m_bytes.size() - m_pos});
        std::copy(m_bytes.data() + m_pos, m_bytes.data() + m_pos + take, dst + filled);
        m_pos += take;
        filled += take;
        if (filled == n) return;
        if (m_pos == m_bytes.size()) throw SimpleSocketException("end");
        throw Stopped{};
    }

  private:
    std::string m_bytes;
    size_t m_piece;
    size_t m_pos = 0;
};

void keep(Frames& out, const Message<BufferMutable>& m) {
    std::vector<std::string> buffers;
    for (const BufferMutable& b : m) buffers.emplace_back(b.data, b.size);
    out.push_back(buffers);
}

Frames in_one_piece(const std::string& bytes) {
    Frames out;
    MemorySource source(bytes);
    FrameDecoder decoder;
    try {
        for (;;) {
            Message<BufferMutable> m;
            if (decoder.read(source, m)) keep(out, m);
        }
    } catch (const SimpleSocketException&) {
    }
    return out;
}

Frames in_stopped_pieces(const std::string& bytes, size_t piece) {
    Frames out;
    PiecewiseSource source(bytes, piece);
    FrameDecoder decoder;
    for (;;) {
        try {
            Message<BufferMutable> m;
            if (decoder.read(source, m)) keep(out, m);
        } catch (const Stopped&) {
        } catch (const SimpleSocketException&) {
            return out;
        }
    }
}

Frames through_a_socket(const std::string& bytes) {
    Frames out;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) __builtin_trap();
    if (!bytes.empty() && ::write(fds[1], bytes.data(), bytes.size()) != ssize_t(bytes.size())) {
        __builtin_trap();
    }
    shutdown(fds[1], SHUT_WR);
    std::atomic<bool> ackOwed{false};
    SocketReader reader(fds[0], ackOwed);
    FrameDecoder decoder;
    try {
        while (!reader.at_end_of_stream()) {
            Message<BufferMutable> m;
            if (decoder.read(reader, m)) keep(out, m);
        }
    } catch (const SimpleSocketException&) {
    }
    close(fds[0]);
    close(fds[1]);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 150000) return 0;  // the socket pair must hold it all
    const size_t piece = 1 + data[0] % 64;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Frames whole = in_one_piece(bytes);
    if (in_stopped_pieces(bytes, piece) != whole) __builtin_trap();
    if (through_a_socket(bytes) != whole) __builtin_trap();
    return 0;
}
