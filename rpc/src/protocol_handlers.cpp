// The engine's side of the transport and life-handler interfaces.
#include "orvi/protocol.h"

namespace orvi {

ProtocolLifeHandler::~ProtocolLifeHandler() {
    if (Protocol* protocol = m_protocol.load()) protocol->unregister_life_handler(this);
}

unsigned int ProtocolTransportHandler::new_client(Transport& transport) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_protocol ? m_protocol->new_client(transport) : 0;
}

void ProtocolTransportHandler::delete_client(unsigned int client_id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_protocol) m_protocol->delete_client(client_id);
}

void ProtocolTransportHandler::new_message(unsigned int client_id,
                                           Message<BufferMutable>& message) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_protocol) m_protocol->new_message(client_id, message);
}

void ProtocolTransportHandler::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_protocol = nullptr;
}

}  // namespace orvi
