// Runs the engine's routing jobs, keyed by peer: a peer's jobs one at a
// time, in the order they came; different peers' jobs side by side on up to
// `threads` worker threads, which start with the first job that has to wait.
//
// Threads: run_here, submit and close may be called from any thread (the
// transports' threads and the engine's owner); join from the owner only,
// never from a worker or from inside a job.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <thread>
#include <vector>

#include "orvi/message.h"
#include "orvi/mutex.h"

namespace orvi {

// One message received from a peer, or the peer's loss.
struct RoutingJob {
    unsigned int peer = 0;
    Message<BufferMutable> message;
    bool lost = false;  // the loss, in order behind the peer's messages
};

class WorkerPool {
  public:
    using Job = RoutingJob;
    using Route = std::function<void(Job&)>;

    // `route` runs each job, on whichever thread takes it; it must not throw.
    WorkerPool(size_t threads, Route route);
    // close() and join().
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Runs `job` on this thread when nothing of its peer is queued or being
    // run, and returns true; otherwise returns false, `job` untouched.
    bool run_here(Job& job) EXCLUDES(m_mutex);
    // Queues `job` behind those of its peer. Dropped once closed.
    void submit(Job job) EXCLUDES(m_mutex);
    // Drops what is queued and takes no more; jobs under way run to their end.
    void close() EXCLUDES(m_mutex);
    // Waits for the worker threads, after close().
    void join() EXCLUDES(m_mutex);

  private:
    // What is under way for one peer; absent when nothing is.
    struct Load {
        size_t queued = 0;
        bool running = false;
    };
    void worker() EXCLUDES(m_mutex);
    void finish_locked(unsigned int peer) REQUIRES(m_mutex);
    std::list<Job>::iterator next_eligible_locked() REQUIRES(m_mutex);

    const size_t m_threadCount;
    const Route m_route;
    Mutex m_mutex;
    CondVar m_cond;
    bool m_open GUARDED_BY(m_mutex) = true;
    std::list<Job> m_queue GUARDED_BY(m_mutex);
    std::map<unsigned int, Load> m_load GUARDED_BY(m_mutex);
    std::vector<std::thread> m_threads GUARDED_BY(m_mutex);  // empty until first needed
};

}  // namespace orvi
