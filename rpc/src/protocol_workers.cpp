// The engine's routing of incoming messages: directly on the transport's
// thread when the peer has nothing under way, otherwise through the queue
// and the worker pool, one message of a peer at a time.
#include <climits>
#include <string>

#include "header.pb.h"
#include "orvi/log_line.h"
#include "orvi/protocol.h"
#include "orvi/spin_wait.h"
#include "protocol_workers.h"

namespace orvi {

namespace {
// Set when a proxy finishes on this thread: the worker that routed the
// message then knows the conversation is over and parks without spinning.
thread_local bool t_proxyFinished = false;
}  // namespace

void note_proxy_finished() {
    t_proxyFinished = true;
}

void Protocol::new_message(unsigned int id, Message<BufferMutable>& message) {
    ClientMessage item{id, std::move(message)};
    if (!route_directly(item)) enqueue(std::move(item));
}

bool Protocol::route_directly(ClientMessage& item) {
    const DirectDispatch mode = m_direct.load();
    if (mode == DirectDispatch::kNever) return false;
    if (mode == DirectDispatch::kFollowOn) {
        // Only a message to a proxy that exists: an opening message may
        // start a command that blocks its thread, and a loss may reach one.
        if (item.lost || item.message.size() == 0) return false;
        Header header;
        const BufferMutable& first = item.message[0];
        if (first.size > INT_MAX ||
            !header.ParseFromArray(first.data, static_cast<int>(first.size)) ||
            header.message_type() != Header::COMMAND || !header.has_proxy_dest()) {
            return false;
        }
        std::lock_guard<std::mutex> clients(m_clientsMutex);
        std::shared_ptr<ClientInfo> client = find_client_locked(item.client);
        if (!client) return false;
        std::lock_guard<std::mutex> lock(client->mutex);
        if (client->proxyMap.count(header.proxy_dest()) == 0) return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        if (!m_running) return false;
        ClientLoad& load = m_load[item.client];
        if (load.routing || load.queued != 0) return false;
        load.routing = true;
    }
    route(item);
    std::lock_guard<std::mutex> lock(m_queueMutex);
    finish_routing_locked(item.client);
    return true;
}

void Protocol::route(ClientMessage& item) {
    try {
        if (item.lost) {
            client_gone(item.client);
        } else {
            process_message(item.client, item.message);
        }
    } catch (const std::exception& e) {
        log_error("Exception while processing message for client " + std::to_string(item.client) +
                  ": " + e.what());
    } catch (...) {
        log_error("Unknown exception while processing message for client " +
                  std::to_string(item.client));
    }
    item.message = Message<BufferMutable>();
}

void Protocol::finish_routing_locked(unsigned int client) {
    auto it = m_load.find(client);
    it->second.routing = false;
    // Messages that came while this one was routed wait for a worker.
    if (it->second.queued == 0) {
        m_load.erase(it);
    } else {
        m_queueCond.notify_one();
    }
}

void Protocol::enqueue(ClientMessage item) {
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        if (!m_running) return;
        start_workers_locked();
        ++m_load[item.client].queued;
        m_queue.push_back(std::move(item));
        m_queued.store(m_queue.size(), std::memory_order_release);
    }
    m_queueCond.notify_one();
}

void Protocol::start_workers_locked() {
    if (!m_workers.empty()) return;
    for (size_t i = 0; i < m_workerCount; ++i) m_workers.emplace_back(&Protocol::worker, this);
}

std::list<Protocol::ClientMessage>::iterator Protocol::next_eligible() {
    for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
        if (!m_load[it->client].routing) return it;
    }
    return m_queue.end();
}

void Protocol::worker() {
    std::unique_lock<std::mutex> lock(m_queueMutex);
    // Spin only right after work: an idle engine parks at once.
    bool spun = true;
    while (m_running) {
        auto it = next_eligible();
        if (it == m_queue.end()) {
            if (!spun && m_spinMicros > 0 && m_queue.empty()) {
                // The next message of a conversation usually follows within
                // a round trip: watch for it briefly before parking.
                spun = true;
                lock.unlock();
                spin_until(
                    [this] {
                        return m_queued.load(std::memory_order_acquire) != 0 ||
                               m_stopping.load(std::memory_order_acquire);
                    },
                    std::chrono::microseconds(m_spinMicros));
                lock.lock();
                continue;
            }
            spun = false;
            m_queueCond.wait(lock);
            continue;
        }
        ClientMessage item = std::move(*it);
        m_queue.erase(it);
        m_queued.store(m_queue.size(), std::memory_order_release);
        ClientLoad& load = m_load[item.client];
        --load.queued;
        load.routing = true;
        lock.unlock();
        t_proxyFinished = false;
        route(item);
        // Spin for the next message only while a command is still running.
        spun = t_proxyFinished;
        lock.lock();
        if (m_running) finish_routing_locked(item.client);
    }
}

}  // namespace orvi
