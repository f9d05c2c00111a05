#include "hostile_board.h"

#include <chrono>
#include <stdexcept>

namespace e2e {

namespace {

std::string varint(uint64_t v) {
    std::string out;
    while (v >= 0x80) {
        out.push_back(static_cast<char>((v & 0x7F) | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<char>(v));
    return out;
}

uint64_t read_varint(const std::string& bytes, size_t& pos) {
    uint64_t v = 0;
    for (int shift = 0; pos < bytes.size() && shift < 64; shift += 7) {
        const auto b = static_cast<unsigned char>(bytes[pos++]);
        v |= uint64_t(b & 0x7F) << shift;
        if (!(b & 0x80)) return v;
    }
    throw std::runtime_error("bad varint");
}

std::string be32(uint32_t v) {
    return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
            static_cast<char>(v)};
}

}  // namespace

std::string pb_uint(int field, uint64_t value) {
    return varint(uint64_t(field) << 3) + varint(value);
}

std::string pb_bytes(int field, const std::string& value) {
    return varint((uint64_t(field) << 3) | 2) + varint(value.size()) + value;
}

PbFields pb_parse(const std::string& bytes) {
    PbFields f;
    size_t pos = 0;
    while (pos < bytes.size()) {
        const uint64_t key = read_varint(bytes, pos);
        const int field = static_cast<int>(key >> 3);
        if ((key & 7) == 0) {
            f.numbers[field] = read_varint(bytes, pos);
        } else if ((key & 7) == 2) {
            const size_t n = read_varint(bytes, pos);
            if (n > bytes.size() - pos) throw std::runtime_error("bad length");
            f.texts[field] = bytes.substr(pos, n);
            pos += n;
        } else {
            throw std::runtime_error("unexpected wire type");
        }
    }
    return f;
}

std::string fw_config_mode_answer(bool is_fff) {
    return pb_uint(1, is_fff ? 1 : 0);
}
std::string device_get_answer(int status) {
    return pb_uint(1, static_cast<uint64_t>(status));
}
std::string boot_end_answer(bool done) {
    return pb_uint(1, done ? 1 : 0);
}
std::string version_answer(const std::string& version, const std::string& magic) {
    return pb_bytes(1, version) + pb_bytes(2, magic);
}
std::string upgrade_next() {
    return pb_uint(1, 0);
}
std::string upgrade_log(const std::string& text) {
    return pb_uint(1, 1) + pb_bytes(2, text);
}

bool Request::is(const std::string& command) const {
    const std::string suffix = "." + command;
    return name.size() >= suffix.size() &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void BoardConnection::handshake(unsigned char version) {
    if (m_conn.read(2) != std::string("\x01\x01", 2)) throw std::runtime_error("bad handshake");
    m_conn.write(std::string(1, static_cast<char>(version)));
}

Request BoardConnection::next() {
    const auto count = static_cast<unsigned char>(m_conn.read(1)[0]);
    std::vector<std::string> buffers;
    for (unsigned i = 0; i < count; ++i) {
        const std::string len = m_conn.read(4);
        const uint32_t n = (uint32_t(uint8_t(len[0])) << 24) | (uint32_t(uint8_t(len[1])) << 16) |
                           (uint32_t(uint8_t(len[2])) << 8) | uint32_t(uint8_t(len[3]));
        buffers.push_back(m_conn.read(n));
    }
    if (buffers.size() < 2) throw std::runtime_error("frame without envelope");
    // Wire order: Header, CommandHeader, then the bodies.
    const PbFields header = pb_parse(buffers[0]);
    const PbFields command = pb_parse(buffers[1]);
    Request r;
    r.name = header.texts.count(3) ? header.texts.at(3) : "";
    r.source = static_cast<uint32_t>(header.numbers.count(2) ? header.numbers.at(2) : 0);
    r.status = command.numbers.count(1) ? static_cast<int>(command.numbers.at(1)) : -1;
    r.bodies.assign(buffers.begin() + 2, buffers.end());
    return r;
}

void BoardConnection::answer(const Request& to, int status, const std::vector<std::string>& bodies,
                             const std::string& text) {
    // Our proxy id is 1000 + the requester's; it is only echoed back.
    std::vector<std::string> buffers = {
        pb_uint(1, 0) + pb_uint(2, 1000 + to.source) + pb_uint(4, to.source),
        pb_uint(1, static_cast<uint64_t>(status)) + (text.empty() ? "" : pb_bytes(2, text))};
    buffers.insert(buffers.end(), bodies.begin(), bodies.end());
    std::string frame(1, static_cast<char>(buffers.size()));
    for (const std::string& b : buffers) frame += be32(static_cast<uint32_t>(b.size())) + b;
    m_conn.write(frame);
}

HostileBoard::HostileBoard(Script script) : m_script(std::move(script)) {
    m_thread = std::thread(&HostileBoard::serve, this);
}

HostileBoard::~HostileBoard() {
    m_running = false;
    m_thread.join();
}

void HostileBoard::serve() {
    while (m_running) {
        const int fd = m_listener.accept_one(nullptr, 50);
        if (fd < 0) continue;
        BoardConnection c(fd);
        try {
            m_script(c, m_connections++);
        } catch (const std::runtime_error&) {
            // qorc hung up or went silent: that connection is over.
        }
    }
}

void UpgradeScript::operator()(BoardConnection& c, int index) {
    const bool rebooted = !image.empty();
    if (rebooted && deaf_after_reboot) return c.wait_closed();
    c.handshake();
    for (;;) {
        const Request r = c.next();
        if (r.is("system_boot_end")) {
            c.answer(r, kDone, {boot_end_answer(true)});
        } else if (r.is("version")) {
            if (rebooted && gone_at_version) return;
            c.answer(
                r, kDone,
                {version_answer("v" + std::to_string(index), "magic-" + std::to_string(index))});
        } else if (r.is("sysupgrade")) {
            const size_t size = pb_parse(r.bodies.at(0)).numbers.at(2);
            while (image.size() < size) {
                std::this_thread::sleep_for(std::chrono::milliseconds(chunk_delay_ms));
                if (before_next) before_next(image.size());
                c.answer(r, kData, {upgrade_next()});
                if (after_next) after_next(image.size());
                image += c.next().bodies.at(0);
                if (refuse_at != 0 && image.size() >= refuse_at) {
                    c.answer(r, kException, {}, "image refused");
                    return c.wait_closed();
                }
            }
            if (extra_next) c.answer(r, kData, {upgrade_next()});
            c.answer(r, kDone);
            // The board reboots into the new image once qorc has let go.
            c.wait_closed();
            if (board) board->stop_listening();
            return;
        } else {
            c.answer(r, kException, {}, "unexpected " + r.name);
        }
    }
}

}  // namespace e2e
