// SPDX-License-Identifier: Apache-2.0
// The protocol written by hand from its description, sharing no code with
// orvi or with generated messages: the 2-byte handshake, the frame (a count,
// then a big-endian length and the bytes of each part, in wire order), and
// orvi.Header and orvi.CommandHeader in protobuf's wire encoding. The
// scripted boards, the engine's tests and the benchmarks' raw peers all
// speak through it, so that the framework is checked against the wire and
// not against itself. No I/O here: callers bring their own sockets.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace wire {

// What a client sends first (leading byte, version 1), and the one byte a
// server that speaks version 1 answers.
const std::string kHello("\x01\x01", 2);
constexpr char kAccepted = 1;

const std::string kPrefix = "com.korvane.command.";

enum MessageType : uint32_t { kCommand = 0, kNoHandler = 1, kReserved = 2 };  // Header.message_type
enum Status : uint32_t { kData = 0, kDone = 1, kException = 2 };  // CommandHeader.status

// Protocol Buffers fields: a varint, or length-delimited bytes.
std::string varint(uint64_t v);
std::string uint_field(int field, uint64_t v);
std::string bytes_field(int field, const std::string& value);

// The fields of a message, the last value of each; the envelope and the
// answers use no other wire types.
struct Fields {
    std::map<int, uint64_t> numbers;
    std::map<int, std::string> texts;
    std::optional<uint64_t> number(int field) const;
    std::optional<std::string> text(int field) const;
};
// False on a truncated field or another wire type.
bool parse(const std::string& bytes, Fields& out);

// orvi.Header. Routing goes by which fields are present, so presence is kept.
struct Header {
    uint32_t type = kCommand;
    std::optional<uint32_t> source;
    std::optional<std::string> name;  // full command name, on a command's first message
    std::optional<uint32_t> dest;
};
std::string encode(const Header& h);  // fields in number order, as protobuf writes them
bool decode(const std::string& bytes, Header& h);

// orvi.CommandHeader.
std::string command_header(uint32_t status, const std::string& message = "");

// One message as it travels: Header, CommandHeader (absent in a no-handler
// reply), then the bodies.
struct Message {
    Header header;
    std::optional<uint32_t> status;
    std::string text;  // CommandHeader.message
    std::vector<std::string> bodies;
    bool is(const std::string& command) const;  // the name is kPrefix + command
};
std::vector<std::string> parts(const Message& m);
bool decode(const std::vector<std::string>& parts, Message& m);

// A frame's bytes for parts in wire order, and the pieces of its length.
std::string frame(const std::vector<std::string>& parts);
void put_be32(uint32_t v, unsigned char out[4]);
uint32_t get_be32(const unsigned char in[4]);

// Reads one frame with read_exact(char* out, size_t n) -> bool, which reads
// exactly n bytes or fails; false when it fails. An empty frame (count 0)
// gives no parts.
template <class ReadExact>
bool read_frame(ReadExact&& read_exact, std::vector<std::string>& parts) {
    unsigned char count = 0;
    if (!read_exact(reinterpret_cast<char*>(&count), 1)) return false;
    parts.resize(count);
    for (std::string& part : parts) {
        unsigned char length[4];
        if (!read_exact(reinterpret_cast<char*>(length), 4)) return false;
        part.resize(get_be32(length));
        if (!read_exact(&part[0], part.size())) return false;
    }
    return true;
}

}  // namespace wire
