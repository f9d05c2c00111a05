// A scripted board for end-to-end tests, written with plain sockets and
// envelope bytes encoded here by hand, not with this project's engine or
// generated messages, so that qorc is checked against the wire. Its scripts
// misbehave the ways real boards do: answer and hang up, answer inside the
// DONE, ask for one chunk too many, come back deaf after a reboot.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "loopback.h"

namespace e2e {

// Protocol Buffers wire encoding, as much as the envelope and answers need.
std::string pb_uint(int field, uint64_t value);             // varint field
std::string pb_bytes(int field, const std::string& value);  // length-delimited field
struct PbFields {
    std::map<int, uint64_t> numbers;
    std::map<int, std::string> texts;
};
PbFields pb_parse(const std::string& bytes);

// Command header states and the qor answers the scripts send.
enum CommandStatus { kData = 0, kDone = 1, kException = 2 };
std::string fw_config_mode_answer(bool is_fff);
std::string device_get_answer(int status);  // 0 OK, 1 not found, 2 lost
std::string boot_end_answer(bool done);
std::string version_answer(const std::string& version, const std::string& magic);
std::string upgrade_next();
std::string upgrade_log(const std::string& text);

// One frame from qorc, its envelope decoded.
struct Request {
    std::string name;  // empty once the board's proxy is known
    uint32_t source = 0;
    int status = -1;
    std::vector<std::string> bodies;
    bool is(const std::string& command) const;  // name ends with "." + command
};

// One accepted connection. Reads fail (std::runtime_error) when qorc hangs
// up or stays silent for 10 s, which ends the script for that connection.
class BoardConnection {
  public:
    explicit BoardConnection(int fd) : m_conn(fd, 10000) {}

    // Reads the two handshake bytes and answers with `version`.
    void handshake(unsigned char version = 1);
    Request next();
    // Header (to the requester), command header, then the bodies, in one frame.
    void answer(const Request& to, int status, const std::vector<std::string>& bodies = {},
                const std::string& text = "");
    // Waits until qorc closes the connection.
    void wait_closed() { m_conn.drain(); }
    void close() { m_conn.close(); }

  private:
    support::RawConnection m_conn;
};

// Accepts connections on 127.0.0.1 one after another and runs the script on
// each, given the connection's index from 0, on a thread of its own.
class HostileBoard {
  public:
    using Script = std::function<void(BoardConnection&, int index)>;
    explicit HostileBoard(Script script);
    ~HostileBoard();
    std::string address() const { return "127.0.0.1:" + m_listener.port_text(); }
    // Later connections are refused.
    void stop_listening() { m_listener.shutdown(); }
    int connections() const { return m_connections; }

  private:
    void serve();

    Script m_script;
    support::RawListener m_listener;
    std::atomic<bool> m_running{true};
    std::atomic<int> m_connections{0};
    std::thread m_thread;
};

// The board's side of an upgrade, over as many connections as it takes.
// Every connection answers the boot-end poll with done and the version with
// "magic-N" for its index N. On the connection that receives the image:
class UpgradeScript {
  public:
    std::string image;               // what arrived, chunk after chunk
    int chunk_delay_ms = 0;          // pause before each NEXT
    bool extra_next = false;         // one NEXT more after the last chunk
    size_t refuse_at = 0;            // set: refuse the image once this many bytes arrived
    bool deaf_after_reboot = false;  // later connections never answer the handshake
    bool gone_at_version = false;    // later connections hang up when asked it
    HostileBoard* board = nullptr;   // set: refuse connections after the reboot
    // Called with the bytes received so far, before and after each NEXT is
    // sent. They may pause, or throw std::runtime_error to end the script
    // there: a board that died.
    std::function<void(size_t)> before_next;
    std::function<void(size_t)> after_next;

    void operator()(BoardConnection& c, int index);
};

}  // namespace e2e
