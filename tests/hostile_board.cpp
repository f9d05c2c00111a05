// SPDX-License-Identifier: Apache-2.0
#include "hostile_board.h"

#include <chrono>
#include <stdexcept>

#include "testing/raw_peer.h"

namespace e2e {

void BoardConnection::handshake(char version) {
    if (read(2) != wire::kHello) throw std::runtime_error("bad handshake");
    write(std::string(1, version));
}

wire::Message BoardConnection::next() {
    wire::Message m;
    if (!wire::decode(orvi::testing::read_parts(*this), m) || !m.status)
        throw std::runtime_error("frame without envelope");
    return m;
}

void BoardConnection::answer(const wire::Message& to, uint32_t status,
                             const std::vector<std::string>& bodies, const std::string& text) {
    // Our proxy id is 1000 + the requester's; it is only echoed back.
    const uint32_t from = to.header.source.value_or(0);
    wire::Message m = orvi::testing::reply(1000 + from, from, status, bodies);
    m.text = text;
    write(orvi::testing::frame_of(m));
}

HostileBoard::HostileBoard(Script script, int listening_fd)
    : m_script(std::move(script)), m_listener(listening_fd) {
    m_thread = std::thread(&HostileBoard::serve, this);
}

HostileBoard::~HostileBoard() {
    m_running = false;
    m_thread.join();
}

void HostileBoard::serve() {
    for (int index = 0; m_running;) {
        const int fd = m_listener.accept_one(nullptr, 50);
        if (fd < 0) continue;
        BoardConnection c(fd);
        try {
            m_script(c, index++);
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
        const wire::Message r = c.next();
        if (r.is("system_boot_end")) {
            c.answer(r, kDone, {wire::uint_field(1, 1)});
        } else if (r.is("version")) {
            if (rebooted && gone_at_version) return;
            const std::string n = std::to_string(index);
            c.answer(r, kDone,
                     {wire::bytes_field(1, "v" + n) + wire::bytes_field(2, "magic-" + n)});
        } else if (r.is("sysupgrade")) {
            wire::Fields request;
            wire::parse(r.bodies.at(0), request);
            const size_t size = request.number(2).value_or(0);  // fw_size
            const std::string next = wire::uint_field(1, 0);    // Answer{type: NEXT}
            while (image.size() < size) {
                std::this_thread::sleep_for(std::chrono::milliseconds(chunk_delay_ms));
                if (before_next) before_next(image.size());
                c.answer(r, kData, {next});
                if (after_next) after_next(image.size());
                image += c.next().bodies.at(0);
                if (refuse_at != 0 && image.size() >= refuse_at) {
                    c.answer(r, kException, {}, "image refused");
                    return c.wait_closed();
                }
            }
            if (extra_next) c.answer(r, kData, {next});
            c.answer(r, kDone);
            // The board reboots into the new image once qorc has let go.
            c.wait_closed();
            if (board) board->stop_listening();
            return;
        } else {
            c.answer(r, kException, {}, "unexpected " + r.header.name.value_or(""));
        }
    }
}

}  // namespace e2e
