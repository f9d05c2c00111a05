// SPDX-License-Identifier: Apache-2.0
// One connected stream socket: blocking read/write loops, the connection
// record with its read turn, and the ProtocolV1 framing object. Byte layout:
// frame_format.h.
#pragma once

#include <atomic>
#include <memory>

#include "orvi/exceptions.h"
#include "orvi/message.h"
#include "orvi/mutex.h"
#include "orvi/transport.h"
#include "transport/framing.h"
#include "transport/read_turn.h"
#include "transport/socket_reader.h"

namespace orvi {
namespace simple_socket {

class ProtocolBase;
class ProtocolV1;

// The time-out text. Kept as is: users and scripts match it, spelling
// included.
inline constexpr char kTimeoutText[] = "Timeout occured";

// Writes all bytes or throws "Failed to send data to server". Never raises
// SIGPIPE.
void write(int fd, const char* data, unsigned int size);
// Reads exactly size bytes or throws "Failed to read data from server: ...".
void read(int fd, char* data, int size);

// Client side of the version handshake: sends lead byte and version, expects
// the version back. Throws "Failed to connect, socket protocol mismatch", or
// "Timeout occured" when no answer comes within answer_timeout_ms (-1: wait
// for as long as it takes).
void client_handshake(int fd, int answer_timeout_ms = -1);

// One connected socket: its descriptor, the handler it reports to, its
// framing, and its read side, which only the holder of m_turn may use.
// Always held by shared_ptr; dropping the last reference tells the handler
// that the client is gone and closes the socket.
class InfoClient {
  public:
    InfoClient(unsigned int id, const std::shared_ptr<TransportHandler>& handler);
    ~InfoClient();
    InfoClient(const InfoClient&) = delete;
    InfoClient& operator=(const InfoClient&) = delete;

    // Gives the connected descriptor m_fd its framing and read side; once,
    // before anyone reads or sends.
    void open(std::unique_ptr<ProtocolV1> protocol);

    // Writes one frame under m_sendMutex, so that frames from several threads
    // never interleave on the wire. Any thread.
    void send(const Message<BufferConst>& message) EXCLUDES(m_sendMutex);

    int m_fd = -1;
    unsigned int m_id;
    // Used by the thread that reads this connection, which sets it once the
    // peer is admitted. The server's reader takes it back when the peer goes,
    // to tell the handler itself; otherwise the destructor tells it.
    std::shared_ptr<TransportHandler> m_handler;
    std::unique_ptr<ProtocolBase> m_protocol;
    Mutex m_sendMutex;

    // Whose turn it is to read. The read side below is guarded by it: a
    // frame that one holder began is finished by the next, from the same
    // byte.
    ReadTurn m_turn;
    std::unique_ptr<SocketReader> m_reader PT_GUARDED_BY(m_turn);
    FrameDecoder m_decoder GUARDED_BY(m_turn);

  private:
    // Set when bytes come in, cleared by each send.
    std::atomic<bool> m_ackOwed{false};
};

// The framing of one protocol version.
class ProtocolBase {
  public:
    virtual ~ProtocolBase() = default;
    // Writes one whole frame. Callers serialise sends (InfoClient::send).
    virtual void send_message(const Message<BufferConst>& message) = 0;
    // Reads one whole frame through the record's read side and hands it to
    // the record's handler.
    virtual void recv_message(const std::shared_ptr<InfoClient>& info) REQUIRES(info->m_turn) = 0;
};

// Framing of protocol version 1. Does not own the descriptor.
class ProtocolV1 : public ProtocolBase {
  public:
    explicit ProtocolV1(int fd) : m_fd(fd) {}

    void send_message(const Message<BufferConst>& message) override;
    void recv_message(const std::shared_ptr<InfoClient>& info) REQUIRES(info->m_turn) override;
    // Write the count, each length and each data block with a write of its
    // own, as some peers do; the bytes on the wire are the same.
    void set_split_writes(bool on) { m_splitWrites = on; }

  private:
    const int m_fd;
    bool m_splitWrites = false;
};

}  // namespace simple_socket
}  // namespace orvi
