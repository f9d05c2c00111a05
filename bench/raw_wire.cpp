// SPDX-License-Identifier: Apache-2.0
#include "raw_wire.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace raw {

bool FrameReader::read_exact(char* out, size_t n) {
    while (n > 0) {
        if (m_begin == m_end) {
            // Mid-frame, a peer that writes a frame in pieces with Nagle on
            // sends the rest only once the first piece is acknowledged.
            if (m_midFrame) {
                const int one = 1;
                setsockopt(m_fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
            }
            const ssize_t got = read(m_fd, m_buffer.data(), m_buffer.size());
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return false;
            m_begin = 0;
            m_end = static_cast<size_t>(got);
        }
        const size_t take = std::min(n, m_end - m_begin);
        std::memcpy(out, m_buffer.data() + m_begin, take);
        m_begin += take;
        out += take;
        n -= take;
    }
    return true;
}

bool FrameReader::next(std::vector<std::string>& parts) {
    m_midFrame = false;
    return wire::read_frame(
        [this](char* out, size_t n) {
            const bool done = read_exact(out, n);
            m_midFrame = true;
            return done;
        },
        parts);
}

bool write_frame(int fd, const std::vector<iovec>& parts, bool split) {
    unsigned char count = static_cast<unsigned char>(parts.size());
    std::vector<unsigned char> lengths(4 * parts.size());
    std::vector<iovec> pieces{{&count, 1}};
    for (size_t i = 0; i < parts.size(); ++i) {
        const uint32_t n = static_cast<uint32_t>(parts[i].iov_len);
        wire::put_be32(n, &lengths[4 * i]);
        pieces.push_back({&lengths[4 * i], 4});
        pieces.push_back(parts[i]);
    }
    if (split) {
        for (const iovec& p : pieces) {
            if (write(fd, p.iov_base, p.iov_len) != static_cast<ssize_t>(p.iov_len)) return false;
        }
        return true;
    }
    for (size_t first = 0;;) {
        while (first < pieces.size() && pieces[first].iov_len == 0) ++first;
        if (first == pieces.size()) break;
        const ssize_t n = writev(fd, &pieces[first], static_cast<int>(pieces.size() - first));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        // Past what was written; usually the whole frame at once.
        for (size_t left = static_cast<size_t>(n); left > 0 && first < pieces.size();) {
            const size_t take = std::min(left, pieces[first].iov_len);
            pieces[first].iov_base = static_cast<char*>(pieces[first].iov_base) + take;
            pieces[first].iov_len -= take;
            left -= take;
            if (pieces[first].iov_len == 0) ++first;
        }
    }
    return true;
}

}  // namespace raw
