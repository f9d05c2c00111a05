// The protocol as the reference peers of the benchmarks speak it, written by
// hand from its description and sharing no code with orvi: the 2-byte
// handshake, frames (count, then big-endian length and bytes per part, in
// wire order), and the envelope messages orvi.Header and orvi.CommandHeader
// in protobuf's wire encoding. Just enough to be the fastest peer the
// protocol allows, with one system call per message each way.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <string>
#include <vector>

namespace raw {

constexpr uint32_t kCommand = 0;    // Header.message_type
constexpr uint32_t kNoHandler = 1;  // Header.message_type
constexpr uint32_t kData = 0;       // CommandHeader.status
constexpr uint32_t kDone = 1;       // CommandHeader.status

const std::string kPrefix = "com.korvane.command.";

struct Header {
    uint32_t type = kCommand;
    uint32_t source = 0;
    uint32_t dest = 0;
    std::string name;  // set on a command's first message only
};

void put_varint(std::string& out, uint64_t v);
// Field `field` of a protobuf message as a varint or as bytes.
void put_varint_field(std::string& out, uint32_t field, uint64_t v);
void put_bytes_field(std::string& out, uint32_t field, const std::string& bytes);

std::string encode_header(const Header& h);
std::string encode_status(uint32_t status);
bool decode_header(const std::string& bytes, Header& h);
bool decode_status(const std::string& bytes, uint32_t& status);
// The varint field `field` of a message; false when it is absent.
bool find_varint(const std::string& bytes, uint32_t field, uint64_t& value);

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
