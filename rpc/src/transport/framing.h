// SPDX-License-Identifier: Apache-2.0
// Frame encoding and decoding, kept apart from sockets so that both can be
// checked against hand-written bytes. The layout is in frame_format.h.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <string>
#include <vector>

#include "orvi/message.h"

namespace orvi {
namespace simple_socket {

// The scatter list of one frame: count, then length and data of each buffer
// from the last to the first. Data is referenced, never copied, so the
// message's bytes must outlive the encoder.
class FrameEncoder {
  public:
    explicit FrameEncoder(const Message<BufferConst>& message);

    const std::vector<iovec>& pieces() const { return m_pieces; }
    size_t total_size() const { return m_total; }
    // Test hook: the frame as one string, also for diagnostics.
    std::string to_bytes() const;

  private:
    std::vector<unsigned char> m_prefix;  // count byte, then one length per buffer
    std::vector<iovec> m_pieces;
    size_t m_total = 0;
};

// Where the decoder takes its bytes from.
class ByteSource {
  public:
    virtual ~ByteSource() = default;
    // Fills dst[filled, n), advancing `filled` as bytes arrive. On a throw,
    // `filled` says how far it got, so that the caller can resume.
    virtual void fill(char* dst, size_t n, size_t& filled) = 0;
    // Fills exactly n bytes or throws.
    void read_exact(char* dst, size_t n) {
        size_t filled = 0;
        fill(dst, n, filled);
    }
};

// Reads frames one after the other. The decoder keeps its progress across a
// read that throws part-way (a reader stopped in the middle of a frame), so
// that the next call goes on from the same byte and the stream never slips
// out of step. A failure of the stream itself leaves the decoder useless,
// like the connection.
class FrameDecoder {
  public:
    // True with a whole frame in `out`; false for a frame whose count is 0,
    // which carries nothing and is not to be delivered. Each buffer gets one
    // allocation of exactly its announced size; a size that cannot be
    // allocated throws SimpleSocketException.
    bool read(ByteSource& source, Message<BufferMutable>& out);

  private:
    enum class Stage { kCount, kLength, kData };
    void reset();

    Stage m_stage = Stage::kCount;
    unsigned char m_count = 0;
    size_t m_index = 0;
    unsigned char m_length[4] = {0, 0, 0, 0};
    size_t m_filled = 0;  // bytes of the current field already read
    Message<BufferMutable> m_message;
};

// Reads one frame with a decoder of its own (for sources that end with the
// frame, such as bytes in memory).
bool read_frame(ByteSource& source, Message<BufferMutable>& out);

// A ByteSource over bytes in memory; throws SimpleSocketException when asked
// for more than is left, like a peer that closed.
class MemorySource : public ByteSource {
  public:
    explicit MemorySource(std::string bytes) : m_bytes(std::move(bytes)) {}
    void fill(char* dst, size_t n, size_t& filled) override;
    size_t remaining() const { return m_bytes.size() - m_pos; }

  private:
    std::string m_bytes;
    size_t m_pos = 0;
};

}  // namespace simple_socket
}  // namespace orvi
