// The engine's worker pool: the incoming queue and the loop that routes it,
// one message of a client at a time.
#include <string>

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
    enqueue(ClientMessage{id, std::move(message)});
}

void Protocol::enqueue(ClientMessage item) {
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_queue.push_back(std::move(item));
        m_queued.store(m_queue.size(), std::memory_order_release);
    }
    m_queueCond.notify_one();
}

std::list<Protocol::ClientMessage>::iterator Protocol::next_eligible(unsigned int index) {
    for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
        bool taken = false;
        for (const WorkerInfo& w : m_workers) {
            if (w.index != index && w.busy && w.client == it->client) {
                taken = true;
                break;
            }
        }
        if (!taken) return it;
    }
    return m_queue.end();
}

void Protocol::worker(unsigned int index) {
    std::unique_lock<std::mutex> lock(m_queueMutex);
    // Spin only right after work: an idle engine parks at once.
    bool spun = true;
    while (m_running) {
        auto it = next_eligible(index);
        if (it == m_queue.end()) {
            m_workers[index].busy = false;
            m_workers[index].client = 0;
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
        m_workers[index].busy = true;
        m_workers[index].client = item.client;
        lock.unlock();
        t_proxyFinished = false;
        try {
            if (item.lost) {
                client_gone(item.client);
            } else {
                process_message(item.client, item.message);
            }
        } catch (const std::exception& e) {
            log_error("Exception while processing message for client " +
                      std::to_string(item.client) + ": " + e.what());
        } catch (...) {
            log_error("Unknown exception while processing message for client " +
                      std::to_string(item.client));
        }
        item.message = Message<BufferMutable>();
        // Spin for the next message only while a command is still running.
        spun = t_proxyFinished;
        lock.lock();
    }
}

}  // namespace orvi
