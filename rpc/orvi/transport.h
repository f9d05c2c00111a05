// SPDX-License-Identifier: Apache-2.0
// The interfaces between the engine and any transport.
// Public header: includes only other public headers.
#pragma once

#include <functional>
#include <memory>

#include "orvi/message.h"

namespace orvi {

class Transport;

// Told by the engine around a process fork.
enum class Fork { PREPARE, PARENT, CHILD };

// How a transport reports to the engine. new_client runs on the thread that
// starts serving (client side) or on the accepting thread (server side);
// new_message and delete_client run on the connection's reader thread (or a
// caller in read_until), or on whichever thread drops the last reference to a
// connection record.
// delete_client may be told twice for one id and must tolerate it.
class TransportHandler {
  public:
    virtual ~TransportHandler() = default;
    virtual unsigned int new_client(Transport& transport) = 0;
    virtual void delete_client(unsigned int client_id) = 0;
    virtual void new_message(unsigned int client_id, Message<BufferMutable>& message) = 0;
};

// Always held through std::shared_ptr.
class Transport {
  public:
    virtual ~Transport() = default;
    virtual void start_serve(const std::shared_ptr<TransportHandler>& handler) = 0;
    virtual void stop_serve() = 0;
    virtual bool is_client() const { return false; }
    virtual bool is_server() const { return false; }
    virtual void send_message(unsigned int client_id, const Message<BufferConst>& message) = 0;
    virtual void notify_fork(Fork) {}
    // Reads and delivers incoming messages on the calling thread until
    // done() is true, for a caller that waits for its answer and whose engine
    // routes on the reading thread. False, with nothing done, when the
    // transport does not offer it (the caller then waits as usual).
    virtual bool read_until(const std::function<bool()>& done) {
        (void)done;
        return false;
    }
};

// A transport with exactly one peer; the client id of a send is ignored.
class TransportClient : public Transport {
  public:
    bool is_client() const override { return true; }
    void send_message(unsigned int, const Message<BufferConst>& message) override {
        send_message(message);
    }
    // Whole seconds; below 1 sets no limit of its own.
    virtual void connect(int timeout) = 0;
    virtual void disconnect() = 0;
    virtual void send_message(const Message<BufferConst>& message) = 0;
};

}  // namespace orvi
