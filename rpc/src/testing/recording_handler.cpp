// SPDX-License-Identifier: Apache-2.0
#include "testing/recording_handler.h"

#include <chrono>

namespace orvi {
namespace testing {

unsigned int RecordingHandler::new_client(Transport&) {
    MutexLock lock(m_mutex);
    m_cond.notify_all();
    return m_nextId++;
}

void RecordingHandler::delete_client(unsigned int client_id) {
    MutexLock lock(m_mutex);
    m_deleted.push_back(client_id);
    m_cond.notify_all();
}

void RecordingHandler::new_message(unsigned int client_id, Message<BufferMutable>& message) {
    Received r{client_id, {}};
    for (const BufferMutable& b : message) r.buffers.emplace_back(b.data, b.size);
    MutexLock lock(m_mutex);
    m_messages.push_back(std::move(r));
    m_cond.notify_all();
}

bool RecordingHandler::wait_messages(size_t n, int timeoutMs) {
    MutexLock lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&]() REQUIRES(m_mutex) { return m_messages.size() >= n; });
}

bool RecordingHandler::wait_deleted(size_t n, int timeoutMs) {
    MutexLock lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&]() REQUIRES(m_mutex) { return m_deleted.size() >= n; });
}

bool RecordingHandler::wait_clients(size_t n, int timeoutMs) {
    MutexLock lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&]() REQUIRES(m_mutex) { return m_nextId - 1 >= n; });
}

std::vector<RecordingHandler::Received> RecordingHandler::messages() {
    MutexLock lock(m_mutex);
    return m_messages;
}

std::vector<unsigned int> RecordingHandler::deleted() {
    MutexLock lock(m_mutex);
    return m_deleted;
}

}  // namespace testing
}  // namespace orvi
