// SPDX-License-Identifier: Apache-2.0
// Whose turn it is to read a connection's socket: the connection's reader
// thread, or an application thread that waits for its own answer; on the
// server side, the connection's one reader thread. One at a time. A caller
// takes the turn when it starts waiting; the reader thread takes it back
// only after `idle` has passed with no caller, so that a run of commands
// never hands the socket back and forth.
//
// The turn is a capability that clang's -Wthread-safety checks: the read
// side of a connection (InfoClient) is guarded by it, so reading without
// the turn fails the build.
#pragma once

#include <chrono>
#include <functional>

#include "orvi/mutex.h"

namespace orvi {
namespace simple_socket {

class CAPABILITY("turn") ReadTurn {
  public:
    explicit ReadTurn(std::chrono::milliseconds idle = std::chrono::milliseconds(20))
        : m_idle(idle), m_lastCaller(std::chrono::steady_clock::now()) {}
    ReadTurn(const ReadTurn&) = delete;
    ReadTurn& operator=(const ReadTurn&) = delete;

    // Reader thread: waits for its turn; false once stopped. It looks again
    // after each idle spell rather than being told, so that a caller's turn
    // ends without waking it.
    bool reader_begin() TRY_ACQUIRE(true) EXCLUDES(m_mutex) {
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
    void reader_end() RELEASE() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_readerReading = false;
        if (m_callersWaiting != 0) m_cond.notify_all();
    }

    // Caller: takes the turn, calling `wake_reader` (if set, with no lock
    // held) when the reader thread has to be brought out of its wait for
    // bytes.
    void caller_begin(const std::function<void()>& wake_reader) ACQUIRE() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        ++m_callersWaiting;
        if (m_readerReading && wake_reader) {
            lock.unlock();
            wake_reader();
            lock.lock();
        }
        m_cond.wait(lock,
                    [this]() REQUIRES(m_mutex) { return !m_readerReading && !m_callerReading; });
        --m_callersWaiting;
        m_callerReading = true;
    }
    void caller_end() RELEASE() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_callerReading = false;
        m_lastCaller = std::chrono::steady_clock::now();
        if (m_callersWaiting != 0) m_cond.notify_all();
    }

    // Ends the reader thread's turns until start().
    void stop() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_stopped = true;
        m_cond.notify_all();
    }
    void start() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_stopped = false;
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

// Holds the turn as a caller for its scope.
class SCOPED_CAPABILITY CallerTurn {
  public:
    explicit CallerTurn(ReadTurn& turn, const std::function<void()>& wake_reader = nullptr)
        ACQUIRE(turn)
        : m_turn(turn) {
        m_turn.caller_begin(wake_reader);
    }
    ~CallerTurn() RELEASE() { m_turn.caller_end(); }
    CallerTurn(const CallerTurn&) = delete;
    CallerTurn& operator=(const CallerTurn&) = delete;

  private:
    ReadTurn& m_turn;
};

// Holds, for its scope, the turn that reader_begin() gave the reader thread.
class SCOPED_CAPABILITY ReaderTurn {
  public:
    explicit ReaderTurn(ReadTurn& turn) REQUIRES(turn) : m_turn(turn) {}
    ~ReaderTurn() RELEASE() { m_turn.reader_end(); }
    ReaderTurn(const ReaderTurn&) = delete;
    ReaderTurn& operator=(const ReaderTurn&) = delete;

  private:
    ReadTurn& m_turn;
};

}  // namespace simple_socket
}  // namespace orvi
