// SPDX-License-Identifier: Apache-2.0
// The other end of a connection on plain sockets, speaking through the
// hand-written codec (wire.h), so that the engine and the transports are
// checked against the wire and not against themselves.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "loopback.h"
#include "wire.h"

namespace orvi {
namespace testing {

inline std::string frame_of(const wire::Message& m) {
    return wire::frame(wire::parts(m));
}

// The parts of the next frame, in wire order; throws on a time-out or close.
inline std::vector<std::string> read_parts(support::RawConnection& c) {
    std::vector<std::string> parts;
    wire::read_frame(
        [&](char* out, size_t n) {
            c.read_into(out, n);
            return true;
        },
        parts);
    return parts;
}

// A message of a command already under way, from remote proxy `source` to
// local proxy `dest`.
inline wire::Message reply(uint32_t source, uint32_t dest, uint32_t status,
                           std::vector<std::string> bodies = {}) {
    wire::Message m;
    m.header.source = source;
    m.header.dest = dest;
    m.status = status;
    m.bodies = std::move(bodies);
    return m;
}

// The refusal of a message for remote proxy `dest` (NO_HANDLER).
inline wire::Message refusal(uint32_t dest) {
    wire::Message m;
    m.header.type = wire::kNoHandler;
    m.header.dest = dest;
    return m;
}

// The first message of command `name` from proxy `source`, with one body.
inline wire::Message opening(const std::string& name, uint32_t source, const std::string& body) {
    wire::Message m;
    m.header.source = source;
    m.header.name = name;
    m.status = wire::kData;
    m.bodies = {body};
    return m;
}

// The board's side of a client's handshake: accepts one connection, reads
// the greeting and accepts it.
inline std::unique_ptr<support::RawConnection> accept_client(support::RawListener& listener) {
    auto c = std::make_unique<support::RawConnection>(listener.accept_one());
    c->read(wire::kHello.size());
    c->write(std::string(1, wire::kAccepted));
    return c;
}

// A client of a server on `port`, greeted and accepted.
inline std::unique_ptr<support::RawConnection> greeted_client(unsigned short port) {
    auto c = std::make_unique<support::RawConnection>(support::RawConnection::connect_to(port));
    c->write(wire::kHello);
    if (c->read(1) != std::string(1, wire::kAccepted)) throw std::runtime_error("not accepted");
    return c;
}

}  // namespace testing
}  // namespace orvi
