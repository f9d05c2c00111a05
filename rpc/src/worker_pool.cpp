#include "worker_pool.h"

#include <cassert>
#include <utility>

namespace orvi {

WorkerPool::WorkerPool(size_t threads, Route route)
    : m_threadCount(threads), m_route(std::move(route)) {
    assert(threads != 0);
}

WorkerPool::~WorkerPool() {
    close();
    join();
}

bool WorkerPool::run_here(Job& job) {
    {
        MutexLock lock(m_mutex);
        if (!m_open) return false;
        Load& load = m_load[job.peer];
        if (load.running || load.queued != 0) return false;
        load.running = true;
    }
    m_route(job);
    MutexLock lock(m_mutex);
    finish_locked(job.peer);
    return true;
}

void WorkerPool::submit(Job job) {
    {
        MutexLock lock(m_mutex);
        if (!m_open) return;
        if (m_threads.empty()) {
            for (size_t i = 0; i < m_threadCount; ++i)
                m_threads.emplace_back(&WorkerPool::worker, this);
        }
        ++m_load[job.peer].queued;
        m_queue.push_back(std::move(job));
    }
    m_cond.notify_one();
}

void WorkerPool::close() {
    {
        MutexLock lock(m_mutex);
        m_open = false;
        m_queue.clear();
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

void WorkerPool::finish_locked(unsigned int peer) {
    auto it = m_load.find(peer);
    if (it == m_load.end()) return;
    it->second.running = false;
    // Jobs that came while this one ran wait for a worker.
    if (it->second.queued == 0) {
        m_load.erase(it);
    } else {
        m_cond.notify_one();
    }
}

std::list<WorkerPool::Job>::iterator WorkerPool::next_eligible_locked() {
    for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
        if (!m_load[it->peer].running) return it;
    }
    return m_queue.end();
}

void WorkerPool::worker() {
    MutexLock lock(m_mutex);
    while (m_open) {
        auto it = next_eligible_locked();
        if (it == m_queue.end()) {
            m_cond.wait(lock);
            continue;
        }
        Job job = std::move(*it);
        m_queue.erase(it);
        Load& load = m_load[job.peer];
        --load.queued;
        load.running = true;
        lock.unlock();
        m_route(job);
        // Released here, not on the next wait: a message can be large.
        job.message = Message<BufferMutable>();
        lock.lock();
        if (m_open) finish_locked(job.peer);
    }
}

}  // namespace orvi
