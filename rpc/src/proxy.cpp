// SPDX-License-Identifier: Apache-2.0
#include "orvi/proxy.h"

#include "envelope/proxy/command_header.pb.h"
#include "orvi/exceptions.h"
#include "orvi/protocol.h"

namespace orvi {

namespace {

bool parse_command_header(CommandHeader& header, const BufferMutable& buffer) {
    return buffer.size <= INT_MAX &&
           header.ParseFromArray(buffer.data, static_cast<int>(buffer.size));
}

}  // namespace

void Proxy::set_done() {
    if (m_info) m_protocol->proxy_done(*m_info);
}

bool Proxy::is_done() const {
    if (!m_info) return false;
    MutexLock lock(m_info->state_mutex);
    return m_info->done;
}

void Proxy::send_message(MessageConst& message) {
    if (m_info) m_protocol->send_message(*m_info, message);
}

void Proxy::send_message(const char* data, unsigned int size) {
    MessageConst message;
    message.push_back(BufferConst(data, size));
    send_message(message);
}

std::shared_ptr<Transport> Proxy::get_transport() {
    return m_info ? m_protocol->get_proxy_transport(*m_info) : nullptr;
}

unsigned int Proxy::get_transport_client_id() const {
    return m_info ? m_info->client_id : 0;
}

void ProxyCommand::send_message(const CommandHeader& header, MessageConst& message) {
    std::string bytes;
    if (!header.IsInitialized() || !header.SerializeToString(&bytes)) {
        throw ProxyCommandException("missing required field(s) in protobuf message");
    }
    // `bytes` outlives the send, which is synchronous.
    message.push_back(BufferConst(bytes.data(), bytes.size()));
    Proxy::send_message(message);
}

void ProxyCommand::send_message(MessageConst& message) {
    CommandHeader header;
    header.set_status(CommandHeader::DATA);
    send_message(header, message);
}

void ProxyCommand::send_message(const char* data, unsigned int size) {
    MessageConst message;
    message.push_back(BufferConst(data, size));
    send_message(message);
}

ProxyCommandClient::~ProxyCommandClient() {
    MutexLock lock(m_mutex);
    m_cond.notify_all();
}

void ProxyCommandClient::new_message(const_iterator first, const_iterator last) {
    if (first == last) return;
    CommandHeader header;
    if (!parse_command_header(header, *first)) return;
    // The data riding on a DONE or EXCEPTION is processed before the waiter
    // is released, so that wait() returns with the whole answer in place.
    // The end is signalled even when processing throws.
    struct EndAfterProcessing {
        ProxyCommandClient& self;
        const CommandHeader& header;
        ~EndAfterProcessing() {
            if (header.status() == CommandHeader::DONE) {
                self.set_done();
            } else if (header.status() == CommandHeader::EXCEPTION) {
                self.set_remote_exception(header.message());
            }
        }
    } end{*this, header};
    for (auto it = first + 1; it != last; ++it) {
        process_message(it->data, static_cast<unsigned int>(it->size));
    }
}

void ProxyCommandClient::set_done() {
    MutexLock lock(m_mutex);
    m_ended.store(true, std::memory_order_release);
    m_cond.notify_one();
    Proxy::set_done();
}

void ProxyCommandClient::set_remote_exception(const std::string& text) {
    MutexLock lock(m_mutex);
    m_exception = text;
    m_ended.store(true, std::memory_order_release);
    m_cond.notify_one();
    Proxy::set_done();
}

void ProxyCommandClient::set_no_handler() {
    {
        MutexLock lock(m_mutex);
        m_noHandler = true;
    }
    set_remote_exception("No handler found");
}

void ProxyCommandClient::client_lost(const std::string& reason) {
    set_remote_exception(reason);
    set_done();
}

void ProxyCommandClient::wait() {
    // Where the engine routes on the reading thread, the waiting thread reads
    // the connection itself and routes its answer: no hand-off to reach it.
    if (!m_ended.load(std::memory_order_acquire) && protocol().caller_reads()) {
        if (std::shared_ptr<Transport> transport = protocol().get_proxy_transport(*info())) {
            transport->read_until([this] { return m_ended.load(std::memory_order_acquire); });
        }
    }
    MutexLock lock(m_mutex);
    m_cond.wait(lock, [this] { return is_done(); });
    if (m_exception.empty()) return;
    if (m_noHandler) throw ProxyCommandNoHandler(m_exception);
    throw ProxyCommandException(m_exception);
}

void ProxyCommandHandler::new_message(const_iterator first, const_iterator last) {
    if (first == last) return;
    CommandHeader header;
    if (!parse_command_header(header, *first)) return;
    if (header.status() == CommandHeader::DONE || header.status() == CommandHeader::EXCEPTION) {
        Proxy::set_done();
    }
    for (auto it = first + 1; it != last; ++it) {
        try {
            process_message(it->data, static_cast<unsigned int>(it->size));
        } catch (const std::exception& e) {
            send_command_exception(e.what());
            Proxy::set_done();
            return;
        } catch (...) {
            // Kept as is: the peer shows this text, spelling included.
            send_command_exception("Unknown exception occured");
            Proxy::set_done();
            return;
        }
    }
}

void ProxyCommandHandler::set_done() {
    send_command_done();
    Proxy::set_done();
}

void ProxyCommandHandler::send_command_done() {
    CommandHeader header;
    header.set_status(CommandHeader::DONE);
    MessageConst message;
    send_message(header, message);
}

void ProxyCommandHandler::send_command_exception(const std::string& text) {
    CommandHeader header;
    header.set_status(CommandHeader::EXCEPTION);
    header.set_message(text);
    MessageConst message;
    send_message(header, message);
}

}  // namespace orvi
