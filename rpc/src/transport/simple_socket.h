// One connected stream socket: blocking read/write loops, the connection
// record and the ProtocolV1 framing object. Byte layout: frame_format.h.
#pragma once

#include <memory>

#include "orvi/exceptions.h"
#include "orvi/message.h"
#include "orvi/mutex.h"
#include "orvi/transport.h"

namespace orvi {
namespace simple_socket {

class SocketReader;
class FrameDecoder;
class InfoClient;

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

class ProtocolBase {
  public:
    virtual ~ProtocolBase() = default;
    // Writes one whole frame.
    virtual void send_message(const Message<BufferConst>& message) = 0;
    // Reads one whole frame and hands it to the record's handler.
    virtual void recv_message(const std::shared_ptr<InfoClient>& info) = 0;
    // Bytes received but not yet framed; the reader must drain them before
    // it polls again.
    virtual size_t buffered() const { return 0; }
    // A descriptor whose readiness interrupts a blocked read.
    virtual void set_wake_fd(int) {}
    virtual void set_quick_ack(bool) {}
    // Called by the reader before it blocks waiting for the next frame.
    virtual void before_blocking() {}
    // Reads block in the receive itself (see SocketReader::set_blocking).
    virtual void set_blocking_reads(bool) {}
    // Write the count, each length and each data block with a write of its
    // own, as some peers do; the bytes on the wire are the same.
    virtual void set_split_writes(bool) {}
};

// Framing of protocol version 1. Does not own the descriptor.
class ProtocolV1 : public ProtocolBase {
  public:
    explicit ProtocolV1(int fd);
    ~ProtocolV1() override;

    void send_message(const Message<BufferConst>& message) override;
    void recv_message(const std::shared_ptr<InfoClient>& info) override;
    size_t buffered() const override;
    void set_wake_fd(int fd) override;
    void set_quick_ack(bool on) override;
    void before_blocking() override;
    void set_blocking_reads(bool on) override;
    void set_split_writes(bool on) override { m_splitWrites = on; }
    // True when the peer closed between two frames.
    bool at_end_of_stream();
    // Raw bytes through the same buffer, for the server's handshake.
    void read_exact(char* dst, size_t n);
    // See SocketReader::set_wait_limit_ms.
    void set_wait_limit_ms(int ms);

  private:
    int m_fd;
    bool m_splitWrites = false;
    // Used by the reader thread only. The decoder keeps a frame that a stop
    // interrupted, so that serving again resumes at the same byte.
    std::unique_ptr<SocketReader> m_reader;
    std::unique_ptr<FrameDecoder> m_decoder;
};

// State of one connected socket. Always held by shared_ptr; dropping the last
// reference tells the handler that the client is gone and closes the socket.
class InfoClient {
  public:
    InfoClient(unsigned int id, const std::shared_ptr<TransportHandler>& handler);
    ~InfoClient();
    InfoClient(const InfoClient&) = delete;
    InfoClient& operator=(const InfoClient&) = delete;

    // Writes one frame under m_sendMutex, so that frames from several threads
    // never interleave on the wire.
    void send(const Message<BufferConst>& message);

    int m_fd = -1;
    unsigned int m_id;
    // Used by the thread that reads this connection, which sets it once the
    // peer is admitted. The server's reader takes it back when the peer goes,
    // to tell the handler itself; otherwise the destructor tells it.
    std::shared_ptr<TransportHandler> m_handler;
    std::unique_ptr<ProtocolBase> m_protocol;
    Mutex m_sendMutex;
};

}  // namespace simple_socket
}  // namespace orvi
