// SPDX-License-Identifier: Apache-2.0
#include "worker_pool.h"

#include <cassert>
#include <utility>

namespace orvi {

WorkerPool::WorkerPool(size_t threads) : m_threadCount(threads) {
    assert(threads != 0);
}

WorkerPool::~WorkerPool() {
    close();
    join();
}

bool WorkerPool::submit(Task task) {
    {
        MutexLock lock(m_mutex);
        if (!m_open) return false;
        if (m_threads.empty()) {
            for (size_t i = 0; i < m_threadCount; ++i)
                m_threads.emplace_back(&WorkerPool::worker, this);
        }
        m_queue.push_back(std::move(task));
    }
    m_cond.notify_one();
    return true;
}

void WorkerPool::close() {
    std::list<Task> dropped;
    {
        MutexLock lock(m_mutex);
        m_open = false;
        dropped.swap(m_queue);
    }
    m_cond.notify_all();
}

void WorkerPool::join() {
    std::vector<std::thread> threads;
    {
        MutexLock lock(m_mutex);
        threads.swap(m_threads);
    }
    for (std::thread& t : threads) t.join();
}

void WorkerPool::worker() {
    MutexLock lock(m_mutex);
    while (m_open) {
        if (m_queue.empty()) {
            m_cond.wait(lock);
            continue;
        }
        Task task = std::move(m_queue.front());
        m_queue.pop_front();
        lock.unlock();
        task();
        // Released here, not on the next wait: it may hold a large message.
        task = nullptr;
        lock.lock();
    }
}

}  // namespace orvi
