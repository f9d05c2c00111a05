// SPDX-License-Identifier: Apache-2.0
#include "wire.h"

namespace wire {

std::string varint(uint64_t v) {
    std::string out;
    for (; v >= 0x80; v >>= 7) out.push_back(static_cast<char>((v & 0x7F) | 0x80));
    out.push_back(static_cast<char>(v));
    return out;
}

std::string uint_field(int field, uint64_t v) {
    return varint(uint64_t(field) << 3) + varint(v);
}

std::string bytes_field(int field, const std::string& value) {
    return varint((uint64_t(field) << 3) | 2) + varint(value.size()) + value;
}

namespace {
bool get_varint(const std::string& bytes, size_t& at, uint64_t& v) {
    v = 0;
    for (int shift = 0; at < bytes.size() && shift < 64; shift += 7) {
        const auto b = static_cast<unsigned char>(bytes[at++]);
        v |= uint64_t(b & 0x7F) << shift;
        if (!(b & 0x80)) return true;
    }
    return false;
}
}  // namespace

std::optional<uint64_t> Fields::number(int field) const {
    const auto it = numbers.find(field);
    return it == numbers.end() ? std::nullopt : std::optional<uint64_t>(it->second);
}

std::optional<std::string> Fields::text(int field) const {
    const auto it = texts.find(field);
    return it == texts.end() ? std::nullopt : std::optional<std::string>(it->second);
}

bool parse(const std::string& bytes, Fields& out) {
    out = Fields();
    for (size_t at = 0; at < bytes.size();) {
        uint64_t key = 0, value = 0;
        if (!get_varint(bytes, at, key) || !get_varint(bytes, at, value)) return false;
        const int field = static_cast<int>(key >> 3);
        if ((key & 7) == 0) {
            out.numbers[field] = value;
        } else if ((key & 7) == 2 && value <= bytes.size() - at) {
            out.texts[field] = bytes.substr(at, value);
            at += value;
        } else {
            return false;
        }
    }
    return true;
}

std::string encode(const Header& h) {
    std::string out = uint_field(1, h.type);
    if (h.source) out += uint_field(2, *h.source);
    if (h.name) out += bytes_field(3, *h.name);
    if (h.dest) out += uint_field(4, *h.dest);
    return out;
}

bool decode(const std::string& bytes, Header& h) {
    Fields f;
    if (!parse(bytes, f)) return false;
    h = Header();
    h.type = static_cast<uint32_t>(f.number(1).value_or(kCommand));
    if (auto v = f.number(2)) h.source = static_cast<uint32_t>(*v);
    h.name = f.text(3);
    if (auto v = f.number(4)) h.dest = static_cast<uint32_t>(*v);
    return true;
}

std::string command_header(uint32_t status, const std::string& message) {
    return uint_field(1, status) + (message.empty() ? "" : bytes_field(2, message));
}

bool Message::is(const std::string& command) const {
    return header.name == kPrefix + command;
}

std::vector<std::string> parts(const Message& m) {
    std::vector<std::string> out{encode(m.header)};
    if (m.status) out.push_back(command_header(*m.status, m.text));
    out.insert(out.end(), m.bodies.begin(), m.bodies.end());
    return out;
}

bool decode(const std::vector<std::string>& parts, Message& m) {
    m = Message();
    if (parts.empty() || !decode(parts[0], m.header)) return false;
    if (parts.size() == 1) return true;
    Fields f;
    if (!parse(parts[1], f) || !f.number(1)) return false;
    m.status = static_cast<uint32_t>(*f.number(1));
    m.text = f.text(2).value_or("");
    m.bodies.assign(parts.begin() + 2, parts.end());
    return true;
}

void put_be32(uint32_t v, unsigned char out[4]) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(v >> (24 - 8 * i));
}

uint32_t get_be32(const unsigned char in[4]) {
    return (uint32_t(in[0]) << 24) | (uint32_t(in[1]) << 16) | (uint32_t(in[2]) << 8) | in[3];
}

std::string frame(const std::vector<std::string>& parts) {
    std::string out(1, static_cast<char>(parts.size()));
    for (const std::string& p : parts) {
        unsigned char length[4];
        put_be32(static_cast<uint32_t>(p.size()), length);
        out.append(reinterpret_cast<char*>(length), 4).append(p);
    }
    return out;
}

}  // namespace wire
