// SPDX-License-Identifier: Apache-2.0
// The engine's worker threads: they route the messages of a peer whose turn
// was handed to them, because a handler may block (see Protocol). Up to
// `threads` of them, started with the first task.
//
// Threads: submit and close may be called from any thread (the transports'
// threads and the engine's owner); join from the owner only, never from a
// worker or from inside a task.
#pragma once

#include <functional>
#include <list>
#include <thread>
#include <vector>

#include "orvi/mutex.h"

namespace orvi {

class WorkerPool {
  public:
    using Task = std::function<void()>;

    // 0 threads is a programming error.
    explicit WorkerPool(size_t threads);
    // close() and join().
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Runs `task` on a worker, in the order submitted. False, with the task
    // dropped, once closed.
    bool submit(Task task) EXCLUDES(m_mutex);
    // Drops what is queued and takes no more; tasks under way run to their end.
    void close() EXCLUDES(m_mutex);
    // Waits for the worker threads, after close().
    void join() EXCLUDES(m_mutex);

  private:
    void worker() EXCLUDES(m_mutex);

    const size_t m_threadCount;
    Mutex m_mutex;
    CondVar m_cond;
    bool m_open GUARDED_BY(m_mutex) = true;
    std::list<Task> m_queue GUARDED_BY(m_mutex);
    std::vector<std::thread> m_threads GUARDED_BY(m_mutex);  // empty until first needed
};

}  // namespace orvi
