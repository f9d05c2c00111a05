// The pool's ordering rule: a peer's jobs one at a time and in order, other
// peers alongside. Jobs block on gates, so that every interleaving asserted
// here is forced, not timed.
#include "worker_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "testing/thread_count.h"

namespace orvi {
namespace {

using testing::thread_count;

// Opened once; everybody who waits, before or after, goes through.
class Gate {
  public:
    void open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_cond.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [this] { return m_open; });
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_open = false;
};

// Jobs are told apart by their `lost` flag and their peer; each records
// itself, and a job of peer 1 that is not a loss waits on `hold` first.
struct Recorder {
    std::mutex mutex;
    std::vector<std::string> order;
    Gate hold, peer1Started, peer2Ran;
    void run(RoutingJob& job) {
        const std::string name = std::to_string(job.peer) + (job.lost ? "-lost" : "");
        if (job.peer == 1 && !job.lost) {
            peer1Started.open();
            hold.wait();
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(name);
        }
        if (job.peer == 2) peer2Ran.open();
    }
    std::vector<std::string> taken() {
        std::lock_guard<std::mutex> lock(mutex);
        return order;
    }
};

TEST(WorkerPool, APeersJobsRunOneAtATimeInOrderWhileOthersGoOn) {
    Recorder r;
    WorkerPool pool(2, [&](RoutingJob& job) { r.run(job); });
    pool.submit({1, {}, false});
    r.peer1Started.wait();
    // Behind the held job of peer 1, though a worker is free.
    pool.submit({1, {}, true});
    pool.submit({2, {}, false});
    r.peer2Ran.wait();  // peer 2 is not held up by peer 1
    EXPECT_EQ(r.taken(), std::vector<std::string>{"2"});
    r.hold.open();
    pool.close();
    pool.join();
    // close() drops what is queued: the loss may or may not have run, but
    // never before the job it follows.
    const auto order = r.taken();
    ASSERT_GE(order.size(), 2u);
    EXPECT_EQ(order[1], "1");
    if (order.size() == 3) {
        EXPECT_EQ(order[2], "1-lost");
    }
}

TEST(WorkerPool, RunHereOnlyWhenNothingOfThePeerIsUnderWay) {
    Recorder r;
    WorkerPool pool(1, [&](RoutingJob& job) { r.run(job); });
    RoutingJob direct{2, {}, false};
    EXPECT_TRUE(pool.run_here(direct));  // on this thread, at once
    EXPECT_EQ(r.taken(), std::vector<std::string>{"2"});

    pool.submit({1, {}, false});
    r.peer1Started.wait();
    RoutingJob behind{1, {}, true};
    EXPECT_FALSE(pool.run_here(behind));  // peer 1 is busy: the caller must queue it
    pool.submit(std::move(behind));
    RoutingJob other{2, {}, false};
    EXPECT_TRUE(pool.run_here(other));
    r.hold.open();
    pool.close();
    pool.join();
    RoutingJob late{3, {}, false};
    EXPECT_FALSE(pool.run_here(late));  // closed: nothing runs any more
    pool.submit({3, {}, false});
    const auto order = r.taken();
    EXPECT_EQ(std::count(order.begin(), order.end(), "3"), 0);
}

TEST(WorkerPool, ThreadsStartWithTheFirstQueuedJob) {
    const size_t before = testing::thread_count_baseline();
    Gate done;
    WorkerPool pool(3, [&](RoutingJob&) { done.open(); });
    RoutingJob job{1, {}, false};
    EXPECT_TRUE(pool.run_here(job));
    EXPECT_EQ(thread_count(), before);
    pool.submit({1, {}, false});
    done.wait();
    EXPECT_EQ(thread_count(), before + 3);
}

}  // namespace
}  // namespace orvi
