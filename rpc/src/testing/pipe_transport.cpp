// SPDX-License-Identifier: Apache-2.0
#include "testing/pipe_transport.h"

#include <cstring>

namespace orvi {
namespace testing {

std::pair<std::shared_ptr<PipeEnd>, std::shared_ptr<PipeEnd>> make_pipe() {
    std::shared_ptr<PipeEnd> a(new PipeEnd), b(new PipeEnd);
    a->m_peer = b;
    b->m_peer = a;
    return {a, b};
}

PipeEnd::~PipeEnd() {
    stop_serve();
}

void PipeEnd::start_serve(const std::shared_ptr<TransportHandler>& handler) {
    const unsigned int id = handler->new_client(*this);
    {
        MutexLock lock(m_mutex);
        m_handler = handler;
        m_id = id;
        m_serving = true;
    }
    m_thread = std::thread(&PipeEnd::run, this);
}

void PipeEnd::stop_serve() {
    {
        MutexLock lock(m_mutex);
        m_serving = false;
    }
    m_cond.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

void PipeEnd::send_message(unsigned int, const Message<BufferConst>& message) {
    std::shared_ptr<PipeEnd> peer = m_peer.lock();
    if (!peer || message.size() == 0) return;
    // The wire carries the list from its last buffer to its first.
    Message<BufferMutable> copy;
    for (size_t i = message.size(); i-- > 0;) {
        const BufferConst& b = message[i];
        std::shared_ptr<char[]> bytes(new char[b.size == 0 ? 1 : b.size]);
        if (b.size != 0) std::memcpy(bytes.get(), b.data, b.size);
        copy.push_back(BufferMutable(std::move(bytes), b.size));
    }
    peer->deliver({std::move(copy), false});
}

void PipeEnd::close() {
    if (std::shared_ptr<PipeEnd> peer = m_peer.lock()) peer->deliver({{}, true});
    deliver({{}, true});
}

void PipeEnd::deliver(Item item) {
    {
        MutexLock lock(m_mutex);
        if (m_closed) return;
        m_closed = item.closed;
        m_inbox.push_back(std::move(item));
    }
    m_cond.notify_all();
}

void PipeEnd::run() {
    MutexLock lock(m_mutex);
    for (;;) {
        m_cond.wait(lock, [this]() REQUIRES(m_mutex) { return !m_serving || !m_inbox.empty(); });
        if (!m_serving) return;
        Item item = std::move(m_inbox.front());
        m_inbox.pop_front();
        std::shared_ptr<TransportHandler> handler = m_handler;
        const unsigned int id = m_id;
        m_delivering = true;
        lock.unlock();
        if (item.closed) {
            handler->delete_client(id);
        } else {
            handler->new_message(id, item.message);
        }
        lock.lock();
        m_delivering = false;
        m_cond.notify_all();
    }
}

void PipeEnd::wait_delivered() {
    MutexLock lock(m_mutex);
    m_cond.wait(lock, [this]() REQUIRES(m_mutex) { return m_inbox.empty() && !m_delivering; });
}

}  // namespace testing
}  // namespace orvi
