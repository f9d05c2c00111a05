// SPDX-License-Identifier: Apache-2.0
// The simple-socket wire format, in one place.
//
// Handshake, once, right after the TCP connection is up:
//   client -> server   0x01 (lead byte), 0x01 (protocol version)
//   server -> client   0x01 (the version the server accepts)
//
// Frame (ProtocolV1), the same in both directions:
//   | count N : u8 | N x ( length L : u32 big-endian | L data bytes ) |
// The sender walks its buffer list from the LAST buffer to the first; the
// receiver stores them in arrival order. Kept as is: the engines on both
// ends build and read their lists with this reversal in mind.
// A count of 0 is a frame that carries nothing and is not delivered.
// There is no upper bound on L; the receiver allocates what is announced.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orvi {
namespace simple_socket {

constexpr uint8_t kHandshakeLead = 0x01;
constexpr uint8_t kProtocolVersion = 0x01;
constexpr size_t kCountSize = 1;
constexpr size_t kLengthSize = 4;

inline void put_be32(unsigned char* out, uint32_t v) {
    out[0] = static_cast<unsigned char>(v >> 24);
    out[1] = static_cast<unsigned char>(v >> 16);
    out[2] = static_cast<unsigned char>(v >> 8);
    out[3] = static_cast<unsigned char>(v);
}

inline uint32_t get_be32(const unsigned char* in) {
    return (uint32_t(in[0]) << 24) | (uint32_t(in[1]) << 16) | (uint32_t(in[2]) << 8) |
           uint32_t(in[3]);
}

}  // namespace simple_socket
}  // namespace orvi
