// SPDX-License-Identifier: Apache-2.0
#include "protocol_transport_handler.h"

#include "orvi/protocol.h"

namespace orvi {

Protocol* ProtocolTransportHandler::begin_call() {
    MutexLock lock(m_mutex);
    if (m_protocol) ++m_calls;
    return m_protocol;
}

void ProtocolTransportHandler::end_call() {
    MutexLock lock(m_mutex);
    if (--m_calls == 0) m_idle.notify_all();
}

namespace {
// One call into the engine, counted while it runs.
class EngineCall {
  public:
    explicit EngineCall(ProtocolTransportHandler& h, Protocol* p) : m_handler(h), m_protocol(p) {}
    ~EngineCall() {
        if (m_protocol) m_handler.end_call();
    }
    Protocol* operator->() const { return m_protocol; }
    explicit operator bool() const { return m_protocol != nullptr; }

  private:
    ProtocolTransportHandler& m_handler;
    Protocol* m_protocol;
};
}  // namespace

unsigned int ProtocolTransportHandler::new_client(Transport& transport) {
    EngineCall protocol(*this, begin_call());
    return protocol ? protocol->new_client(transport) : 0;
}

void ProtocolTransportHandler::delete_client(unsigned int client_id) {
    EngineCall protocol(*this, begin_call());
    if (protocol) protocol->delete_client(client_id);
}

void ProtocolTransportHandler::new_message(unsigned int client_id,
                                           Message<BufferMutable>& message) {
    EngineCall protocol(*this, begin_call());
    if (protocol) protocol->new_message(client_id, message);
}

void ProtocolTransportHandler::clear() {
    MutexLock lock(m_mutex);
    m_protocol = nullptr;
    m_idle.wait(lock, [this]() REQUIRES(m_mutex) { return m_calls == 0; });
}

}  // namespace orvi
