// SPDX-License-Identifier: Apache-2.0
// Buffer lists: the unit that the engine hands to a transport and gets back.
// Public header: includes only other public headers.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

namespace orvi {

// Non-owning view used for everything that is sent. The bytes must outlive
// the send call.
struct BufferConst {
    BufferConst() = default;
    BufferConst(const void* d, size_t n) : data(static_cast<const char*>(d)), size(n) {}
    const char* data = nullptr;
    size_t size = 0;
};

// Received bytes. The storage is shared, so copies of a message (and
// handlers that keep a buffer past delivery) stay valid.
struct BufferMutable {
    BufferMutable() = default;
    BufferMutable(std::shared_ptr<char[]> s, size_t n) : storage(std::move(s)), size(n) {
        data = storage.get();
    }
    char* data = nullptr;
    std::shared_ptr<char[]> storage;
    size_t size = 0;
};

// An ordered list of at most 255 buffers: the wire carries the count in
// one byte, so a 256th buffer is a programming error, not a runtime one.
template <class Buffer>
class Message {
  public:
    using size_type = uint8_t;
    using container = std::vector<Buffer>;
    using iterator = typename container::iterator;
    using const_iterator = typename container::const_iterator;

    Message() = default;
    explicit Message(size_t n) : m_buffers(n) {
        assert(n <= std::numeric_limits<size_type>::max());
    }

    void push_back(const Buffer& b) {
        assert(m_buffers.size() != std::numeric_limits<size_type>::max());
        m_buffers.push_back(b);
    }
    iterator begin() { return m_buffers.begin(); }
    iterator end() { return m_buffers.end(); }
    const_iterator begin() const { return m_buffers.begin(); }
    const_iterator end() const { return m_buffers.end(); }
    // Full count, not truncated: the framing takes the low eight bits.
    size_t size() const { return m_buffers.size(); }
    Buffer& operator[](size_t i) { return m_buffers[i]; }
    const Buffer& operator[](size_t i) const { return m_buffers[i]; }

  private:
    container m_buffers;
};

using MessageConst = Message<BufferConst>;
using MessageMutable = Message<BufferMutable>;

// Releases the protobuf library's global state at exit; one static instance
// lives in the library.
struct ProtoBufCleanup {
    ~ProtoBufCleanup();
};

}  // namespace orvi
