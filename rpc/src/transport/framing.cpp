#include "transport/framing.h"

#include <cstring>
#include <new>

#include "orvi/exceptions.h"
#include "orvi/frame_format.h"

namespace orvi {
namespace simple_socket {

FrameEncoder::FrameEncoder(const Message<BufferConst>& message) {
    const size_t n = message.size();
    m_prefix.resize(kCountSize + n * kLengthSize);
    m_pieces.reserve(1 + 2 * n);

    // The count carries the low eight bits, as it stands.
    m_prefix[0] = static_cast<unsigned char>(n & 0xFF);
    m_pieces.push_back(iovec{m_prefix.data(), kCountSize});
    m_total = kCountSize;

    unsigned char* length = m_prefix.data() + kCountSize;
    for (size_t i = n; i-- > 0;) {
        const BufferConst& b = message[i];
        put_be32(length, static_cast<uint32_t>(b.size));
        m_pieces.push_back(iovec{length, kLengthSize});
        length += kLengthSize;
        if (b.size != 0) m_pieces.push_back(iovec{const_cast<char*>(b.data), b.size});
        m_total += kLengthSize + b.size;
    }
}

std::string FrameEncoder::to_bytes() const {
    std::string out;
    out.reserve(m_total);
    for (const iovec& v : m_pieces) out.append(static_cast<const char*>(v.iov_base), v.iov_len);
    return out;
}

namespace {

std::shared_ptr<char[]> allocate(uint32_t size) {
    char* p = new (std::nothrow) char[size == 0 ? 1 : size];
    if (p == nullptr) {
        throw SimpleSocketException("Failed to allocate " + std::to_string(size) +
                                    " bytes for a received buffer");
    }
    return std::shared_ptr<char[]>(p);
}

}  // namespace

bool read_frame(ByteSource& source, Message<BufferMutable>& out) {
    unsigned char count = 0;
    source.read_exact(reinterpret_cast<char*>(&count), kCountSize);
    if (count == 0) return false;

    Message<BufferMutable> message(count);
    for (size_t i = 0; i < count; ++i) {
        unsigned char length[kLengthSize];
        source.read_exact(reinterpret_cast<char*>(length), kLengthSize);
        const uint32_t size = get_be32(length);
        BufferMutable buffer(allocate(size), size);
        source.read_exact(buffer.data, size);
        message[i] = std::move(buffer);
    }
    out = std::move(message);
    return true;
}

void MemorySource::read_exact(char* dst, size_t n) {
    if (n > remaining()) throw SimpleSocketException("Failed to read data from server: Success");
    if (n != 0) std::memcpy(dst, m_bytes.data() + m_pos, n);
    m_pos += n;
}

}  // namespace simple_socket
}  // namespace orvi
