#include "raw_wire.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace raw {

void put_varint(std::string& out, uint64_t v) {
    while (v >= 0x80) {
        out.push_back(static_cast<char>((v & 0x7F) | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<char>(v));
}

void put_varint_field(std::string& out, uint32_t field, uint64_t v) {
    put_varint(out, uint64_t(field) << 3);  // wire type 0
    put_varint(out, v);
}

void put_bytes_field(std::string& out, uint32_t field, const std::string& bytes) {
    put_varint(out, (uint64_t(field) << 3) | 2);
    put_varint(out, bytes.size());
    out += bytes;
}

std::string encode_header(const Header& h) {
    std::string out;
    put_varint_field(out, 1, h.type);
    put_varint_field(out, 2, h.source);
    if (!h.name.empty()) put_bytes_field(out, 3, h.name);
    if (h.dest != 0) put_varint_field(out, 4, h.dest);
    return out;
}

std::string encode_status(uint32_t status) {
    std::string out;
    put_varint_field(out, 1, status);
    return out;
}

namespace {

bool get_varint(const char*& p, const char* end, uint64_t& v) {
    v = 0;
    for (int shift = 0; p < end && shift < 64; shift += 7) {
        const unsigned char b = static_cast<unsigned char>(*p++);
        v |= uint64_t(b & 0x7F) << shift;
        if (!(b & 0x80)) return true;
    }
    return false;
}

// Calls on_field(field, wire type, varint value, bytes) for every field.
template <class F>
bool walk(const std::string& bytes, F on_field) {
    const char* p = bytes.data();
    const char* end = p + bytes.size();
    while (p < end) {
        uint64_t key = 0, value = 0;
        if (!get_varint(p, end, key)) return false;
        std::string data;
        switch (key & 7) {
            case 0:
                if (!get_varint(p, end, value)) return false;
                break;
            case 2:
                if (!get_varint(p, end, value) || value > uint64_t(end - p)) return false;
                data.assign(p, value);
                p += value;
                break;
            default:
                return false;  // the envelope uses nothing else
        }
        on_field(static_cast<uint32_t>(key >> 3), static_cast<uint32_t>(key & 7), value, data);
    }
    return true;
}

}  // namespace

bool decode_header(const std::string& bytes, Header& h) {
    h = Header();
    return walk(bytes, [&](uint32_t field, uint32_t, uint64_t value, const std::string& data) {
        if (field == 1) h.type = static_cast<uint32_t>(value);
        if (field == 2) h.source = static_cast<uint32_t>(value);
        if (field == 3) h.name = data;
        if (field == 4) h.dest = static_cast<uint32_t>(value);
    });
}

bool decode_status(const std::string& bytes, uint32_t& status) {
    uint64_t value = 0;
    if (!find_varint(bytes, 1, value)) return false;
    status = static_cast<uint32_t>(value);
    return true;
}

bool find_varint(const std::string& bytes, uint32_t field, uint64_t& value) {
    bool found = false;
    walk(bytes, [&](uint32_t f, uint32_t type, uint64_t v, const std::string&) {
        if (f == field && type == 0) {
            value = v;
            found = true;
        }
    });
    return found;
}

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
    unsigned char count = 0;
    m_midFrame = false;
    if (!read_exact(reinterpret_cast<char*>(&count), 1)) return false;
    m_midFrame = true;
    parts.resize(count);
    for (std::string& part : parts) {
        unsigned char be[4];
        if (!read_exact(reinterpret_cast<char*>(be), 4)) return false;
        const uint32_t length = (uint32_t(be[0]) << 24) | (uint32_t(be[1]) << 16) |
                                (uint32_t(be[2]) << 8) | uint32_t(be[3]);
        part.resize(length);
        if (!read_exact(&part[0], length)) return false;
    }
    return true;
}

bool write_frame(int fd, const std::vector<iovec>& parts, bool split) {
    unsigned char count = static_cast<unsigned char>(parts.size());
    std::vector<unsigned char> lengths(4 * parts.size());
    std::vector<iovec> pieces{{&count, 1}};
    for (size_t i = 0; i < parts.size(); ++i) {
        const uint32_t n = static_cast<uint32_t>(parts[i].iov_len);
        unsigned char* be = &lengths[4 * i];
        be[0] = static_cast<unsigned char>(n >> 24);
        be[1] = static_cast<unsigned char>(n >> 16);
        be[2] = static_cast<unsigned char>(n >> 8);
        be[3] = static_cast<unsigned char>(n);
        pieces.push_back({be, 4});
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
