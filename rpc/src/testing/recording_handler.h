// SPDX-License-Identifier: Apache-2.0
// A TransportHandler that records what a transport reports, with waits that
// give up after a few seconds instead of hanging a test.
#pragma once

#include <string>
#include <vector>

#include "orvi/mutex.h"
#include "orvi/transport.h"

namespace orvi {
namespace testing {

class RecordingHandler : public TransportHandler {
  public:
    unsigned int new_client(Transport& transport) override;
    void delete_client(unsigned int client_id) override;
    void new_message(unsigned int client_id, Message<BufferMutable>& message) override;

    // Each message as its buffers' bytes, in arrival order.
    struct Received {
        unsigned int client;
        std::vector<std::string> buffers;
    };
    bool wait_messages(size_t n, int timeoutMs = 5000);
    bool wait_deleted(size_t n, int timeoutMs = 5000);
    bool wait_clients(size_t n, int timeoutMs = 5000);
    std::vector<Received> messages();
    std::vector<unsigned int> deleted();

  private:
    Mutex m_mutex;
    CondVar m_cond;
    unsigned int m_nextId GUARDED_BY(m_mutex) = 1;
    std::vector<Received> m_messages GUARDED_BY(m_mutex);
    std::vector<unsigned int> m_deleted GUARDED_BY(m_mutex);
};

}  // namespace testing
}  // namespace orvi
