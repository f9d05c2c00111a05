// A TransportHandler that records what a transport reports, with waits that
// give up after a few seconds instead of hanging a test.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

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
    unsigned int clients();

  private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    unsigned int m_nextId = 1;
    std::vector<Received> m_messages;
    std::vector<unsigned int> m_deleted;
};

}  // namespace testing
}  // namespace orvi
