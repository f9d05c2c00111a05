// Whose turn it is to read a connection's socket: the connection's reader
// thread, or an application thread that waits for its own answer. One at a
// time. A caller takes the turn when it starts waiting; the reader thread
// takes it back only after `idle` has passed with no caller, so that a run of
// commands never hands the socket back and forth.
#pragma once

#include <chrono>
#include <functional>

#include "orvi/mutex.h"

namespace orvi {
namespace simple_socket {

class ReadTurn {
  public:
    explicit ReadTurn(std::chrono::milliseconds idle)
        : m_idle(idle), m_lastCaller(std::chrono::steady_clock::now()) {}

    // Reader thread: waits for its turn; false once stopped. It looks again
    // after each idle spell rather than being told, so that a caller's turn
    // ends without waking it.
    bool reader_begin() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        for (;;) {
            if (m_stopped) return false;
            if (m_callersWaiting == 0 && !m_callerReading) {
                const auto readyAt = m_lastCaller + m_idle;
                if (std::chrono::steady_clock::now() >= readyAt) {
                    m_readerReading = true;
                    return true;
                }
                m_cond.wait_until(lock, readyAt);
            } else {
                m_cond.wait_for(lock, m_idle);
            }
        }
    }
    void reader_end() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_readerReading = false;
        if (m_callersWaiting != 0) m_cond.notify_all();
    }

    // Caller: takes the turn, calling `wake_reader` (with no lock held) when
    // the reader thread has to be brought out of its wait for bytes.
    void caller_begin(const std::function<void()>& wake_reader) EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        ++m_callersWaiting;
        if (m_readerReading) {
            lock.unlock();
            wake_reader();
            lock.lock();
        }
        m_cond.wait(lock,
                    [this]() REQUIRES(m_mutex) { return !m_readerReading && !m_callerReading; });
        --m_callersWaiting;
        m_callerReading = true;
    }
    void caller_end() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_callerReading = false;
        m_lastCaller = std::chrono::steady_clock::now();
        if (m_callersWaiting != 0) m_cond.notify_all();
    }

    void stop() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_stopped = true;
        m_cond.notify_all();
    }

  private:
    const std::chrono::milliseconds m_idle;
    Mutex m_mutex;
    CondVar m_cond;
    bool m_stopped GUARDED_BY(m_mutex) = false;
    bool m_readerReading GUARDED_BY(m_mutex) = false;
    bool m_callerReading GUARDED_BY(m_mutex) = false;
    int m_callersWaiting GUARDED_BY(m_mutex) = 0;
    std::chrono::steady_clock::time_point m_lastCaller GUARDED_BY(m_mutex);
};

}  // namespace simple_socket
}  // namespace orvi
