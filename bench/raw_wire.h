// SPDX-License-Identifier: Apache-2.0
// The socket side of the benchmarks' reference peers, over the hand-written
// codec (wire.h): just enough to be the fastest peer the protocol allows,
// with one system call per message each way.
#pragma once

#include <sys/uio.h>

#include <string>
#include <vector>

#include "wire.h"

namespace raw {

// Reads frames from a socket through a 64 KiB buffer: a frame's parts, in
// wire order (the Header first). False when the peer closes or on error.
class FrameReader {
  public:
    explicit FrameReader(int fd) : m_fd(fd), m_buffer(64 << 10) {}
    bool next(std::vector<std::string>& parts);
    bool read_exact(char* out, size_t n);

  private:
    int m_fd;
    std::vector<char> m_buffer;
    size_t m_begin = 0, m_end = 0;
    bool m_midFrame = false;  // a frame's first byte is read, not its last
};

// Writes one frame of the given parts (wire order) with a single writev, or
// with one write per piece when `split`, as some boards do.
bool write_frame(int fd, const std::vector<iovec>& parts, bool split = false);
inline iovec piece(const std::string& s) {
    return iovec{const_cast<char*>(s.data()), s.size()};
}

}  // namespace raw
