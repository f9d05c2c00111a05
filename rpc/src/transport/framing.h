// Frame encoding and decoding, kept apart from sockets so that both can be
// checked against hand-written bytes. The layout is in orvi/frame_format.h.
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
    // The frame as one string; for tests and diagnostics.
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
    // Fills exactly n bytes or throws.
    virtual void read_exact(char* dst, size_t n) = 0;
};

// Reads one frame. Returns false for a frame whose count is 0: it carries
// nothing and is not to be delivered. Each buffer gets one allocation of
// exactly its announced size; a size that cannot be allocated throws
// SimpleSocketException.
bool read_frame(ByteSource& source, Message<BufferMutable>& out);

// A ByteSource over bytes in memory; throws SimpleSocketException when asked
// for more than is left, like a peer that closed.
class MemorySource : public ByteSource {
  public:
    explicit MemorySource(std::string bytes) : m_bytes(std::move(bytes)) {}
    void read_exact(char* dst, size_t n) override;
    size_t remaining() const { return m_bytes.size() - m_pos; }

  private:
    std::string m_bytes;
    size_t m_pos = 0;
};

}  // namespace simple_socket
}  // namespace orvi
