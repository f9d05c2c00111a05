// SPDX-License-Identifier: Apache-2.0
// The engine's side of the transport interface: what a transport calls.
// Threads: the transports' own threads call in, and so does a caller that
// reads its connection while it waits; the engine's owner clears it when the
// engine goes.
#pragma once

#include "orvi/mutex.h"
#include "orvi/transport.h"

namespace orvi {

class Protocol;

// What a transport calls. Holds a raw back pointer to the engine that the
// engine clears before it goes; clear() waits for the calls under way, none
// of which holds m_mutex while the engine routes (a proxy may run there).
class ProtocolTransportHandler : public TransportHandler {
  public:
    explicit ProtocolTransportHandler(Protocol* p) : m_protocol(p) {}
    unsigned int new_client(Transport& transport) override;
    void delete_client(unsigned int client_id) override;
    void new_message(unsigned int client_id, Message<BufferMutable>& message) override;
    void clear() EXCLUDES(m_mutex);

    // The engine, counted as in use until end_call; nullptr once cleared.
    Protocol* begin_call() EXCLUDES(m_mutex);
    void end_call() EXCLUDES(m_mutex);

  private:
    Mutex m_mutex;
    CondVar m_idle;
    Protocol* m_protocol GUARDED_BY(m_mutex);
    size_t m_calls GUARDED_BY(m_mutex) = 0;
};

}  // namespace orvi
