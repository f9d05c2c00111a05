// SPDX-License-Identifier: Apache-2.0
// Two engines joined in this process with no socket in between, for engine
// tests that need no bytes on a wire: exact, and fast. What one end sends
// reaches the other end's engine in order and as the wire would hand it
// over (the buffers in reverse, an empty message not at all), on a delivery
// thread of that end, as a connection's reader thread would deliver it.
// Closing either end tells both engines that their peer is gone, each after
// the messages it had already been sent.
//
// Threads: send_message and close from any thread; each end delivers on a
// thread of its own, which start_serve starts and stop_serve joins.
#pragma once

#include <deque>
#include <memory>
#include <thread>
#include <utility>

#include "orvi/mutex.h"
#include "orvi/transport.h"

namespace orvi {
namespace testing {

class PipeEnd;

// Both ends of one pipe: hand one to each engine's add_transport.
std::pair<std::shared_ptr<PipeEnd>, std::shared_ptr<PipeEnd>> make_pipe();

class PipeEnd : public Transport, public std::enable_shared_from_this<PipeEnd> {
  public:
    ~PipeEnd() override;
    void start_serve(const std::shared_ptr<TransportHandler>& handler) override;
    void stop_serve() override;
    void send_message(unsigned int client_id, const Message<BufferConst>& message) override;
    // Ends the pipe for both ends.
    void close();
    // Test hook: returns once everything sent to this end so far has been
    // handed to its engine.
    void wait_delivered() EXCLUDES(m_mutex);

  private:
    friend std::pair<std::shared_ptr<PipeEnd>, std::shared_ptr<PipeEnd>> make_pipe();
    struct Item {
        Message<BufferMutable> message;
        bool closed = false;  // the peer is gone; nothing follows
    };
    void deliver(Item item) EXCLUDES(m_mutex);
    void run() EXCLUDES(m_mutex);

    std::weak_ptr<PipeEnd> m_peer;  // set once by make_pipe
    Mutex m_mutex;
    CondVar m_cond;
    std::deque<Item> m_inbox GUARDED_BY(m_mutex);
    bool m_serving GUARDED_BY(m_mutex) = false;
    bool m_delivering GUARDED_BY(m_mutex) = false;
    bool m_closed GUARDED_BY(m_mutex) = false;  // both ways, once either end closed
    std::shared_ptr<TransportHandler> m_handler GUARDED_BY(m_mutex);
    unsigned int m_id GUARDED_BY(m_mutex) = 0;
    std::thread m_thread;  // the owner's
};

}  // namespace testing
}  // namespace orvi
