// SPDX-License-Identifier: Apache-2.0
#include "transport/framing.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "orvi/exceptions.h"
#include "transport/frame_format.h"

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

bool FrameDecoder::read(ByteSource& source, Message<BufferMutable>& out) {
    for (;;) {
        switch (m_stage) {
            case Stage::kCount:
                source.fill(reinterpret_cast<char*>(&m_count), kCountSize, m_filled);
                m_filled = 0;
                if (m_count == 0) return false;
                m_message = Message<BufferMutable>(m_count);
                m_index = 0;
                m_stage = Stage::kLength;
                break;
            case Stage::kLength: {
                source.fill(reinterpret_cast<char*>(m_length), kLengthSize, m_filled);
                m_filled = 0;
                const uint32_t size = get_be32(m_length);
                m_message[m_index] = BufferMutable(allocate(size), size);
                m_stage = Stage::kData;
                break;
            }
            case Stage::kData: {
                BufferMutable& buffer = m_message[m_index];
                source.fill(buffer.data, buffer.size, m_filled);
                m_filled = 0;
                if (++m_index < m_count) {
                    m_stage = Stage::kLength;
                    break;
                }
                out = std::move(m_message);
                reset();
                return true;
            }
        }
    }
}

void FrameDecoder::reset() {
    m_stage = Stage::kCount;
    m_filled = 0;
    m_index = 0;
    m_message = Message<BufferMutable>();
}

bool read_frame(ByteSource& source, Message<BufferMutable>& out) {
    FrameDecoder decoder;
    return decoder.read(source, out);
}

void MemorySource::fill(char* dst, size_t n, size_t& filled) {
    const size_t want = n - filled;
    const size_t take = std::min(want, remaining());
    if (take != 0) std::memcpy(dst + filled, m_bytes.data() + m_pos, take);
    m_pos += take;
    filled += take;
    if (take < want) throw SimpleSocketException("Failed to read data from server: Success");
}

}  // namespace simple_socket
}  // namespace orvi
