// SPDX-License-Identifier: Apache-2.0
// A mutex, its scoped lock and a condition variable that clang's thread
// safety analysis understands (std::mutex carries no annotations). Thin
// wrappers over the standard ones, with the same semantics. Includes only
// public headers.
// Public header: includes only other public headers.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "orvi/thread_annotations.h"

namespace orvi {

class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }

  private:
    friend class MutexLock;
    std::mutex m_mutex;
};

// Tag: a mutex that a helper locked out of the analysis' sight (a hand-over-
// hand lookup), held by the MutexLock made with it from then on.
struct AdoptUnseen {};
constexpr AdoptUnseen kAdoptUnseen{};

// Holds a Mutex for its scope; may be released early and taken again.
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
    // Takes over a mutex that the caller has locked already.
    MutexLock(Mutex& mutex, std::adopt_lock_t) REQUIRES(mutex)
        : m_lock(mutex.m_mutex, std::adopt_lock) {}
    MutexLock(Mutex& mutex, AdoptUnseen) ACQUIRE(mutex) : m_lock(mutex.m_mutex, std::adopt_lock) {}
    ~MutexLock() RELEASE() {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    void lock() ACQUIRE() { m_lock.lock(); }
    void unlock() RELEASE() { m_lock.unlock(); }

  private:
    friend class CondVar;
    std::unique_lock<std::mutex> m_lock;
};

// Waits release the lock's mutex and hold it again on return. A predicate
// that reads guarded fields says so: [this]() REQUIRES(m_mutex) { ... }.
class CondVar {
  public:
    void notify_one() { m_cond.notify_one(); }
    void notify_all() { m_cond.notify_all(); }
    void wait(MutexLock& lock) { m_cond.wait(lock.m_lock); }
    template <class Predicate>
    void wait(MutexLock& lock, Predicate done) {
        m_cond.wait(lock.m_lock, done);
    }
    template <class Clock, class Duration>
    std::cv_status wait_until(MutexLock& lock,
                              const std::chrono::time_point<Clock, Duration>& until) {
        return m_cond.wait_until(lock.m_lock, until);
    }
    template <class Clock, class Duration, class Predicate>
    bool wait_until(MutexLock& lock, const std::chrono::time_point<Clock, Duration>& until,
                    Predicate done) {
        return m_cond.wait_until(lock.m_lock, until, done);
    }
    template <class Rep, class Period>
    std::cv_status wait_for(MutexLock& lock, const std::chrono::duration<Rep, Period>& time) {
        return m_cond.wait_for(lock.m_lock, time);
    }
    template <class Rep, class Period, class Predicate>
    bool wait_for(MutexLock& lock, const std::chrono::duration<Rep, Period>& time, Predicate done) {
        return m_cond.wait_for(lock.m_lock, time, done);
    }

  private:
    std::condition_variable m_cond;
};

}  // namespace orvi
