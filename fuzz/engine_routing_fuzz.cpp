// SPDX-License-Identifier: Apache-2.0
// Frames from a peer, decoded from the input, routed by an engine that has a
// client proxy waiting on a command and a handler registered for another.
// Whatever arrives, the engine neither crashes nor leaves the waiter hanging
// once the peer is gone.
#include <cstdint>
#include <string>

#include "fuzz_options.h"
#include "orvi/exceptions.h"
#include "orvi/protocol.h"
#include "transport/framing.h"

using namespace orvi;

namespace {

// An in-process transport with one peer; what the engine sends is dropped.
class NullTransport : public TransportClient {
  public:
    void start_serve(const std::shared_ptr<TransportHandler>& handler) override {
        m_handler = handler;
        m_id = handler->new_client(*this);
    }
    void stop_serve() override {}
    void notify_fork(Fork) override {}
    void connect(int) override {}
    void disconnect() override {}
    using TransportClient::send_message;
    void send_message(const Message<BufferConst>&) override {}
    void lose_peer() { m_handler->delete_client(m_id); }
    unsigned int id() const { return m_id; }

  private:
    std::shared_ptr<TransportHandler> m_handler;
    unsigned int m_id = 0;
};

struct Call : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::string reply;
    void process_message(const char* data, unsigned int size) override { reply.assign(data, size); }
};

struct Echo : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char* data, unsigned int size) override {
        send_message(data, size);
        if (size % 2) set_done();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Protocol protocol(1);
    protocol.add_command("echo", std::make_shared<ProxyFactoryTpl<Echo>>());
    auto transport = std::make_shared<NullTransport>();
    protocol.add_transport(transport);
    auto call = protocol.create_command_proxy<Call>("cmd");
    call->send_message("x", 1);

    simple_socket::MemorySource source(std::string(reinterpret_cast<const char*>(data), size));
    simple_socket::FrameDecoder decoder;
    try {
        for (;;) {
            Message<BufferMutable> m;
            if (decoder.read(source, m)) protocol.new_message(transport->id(), m);
        }
    } catch (const SimpleSocketException&) {
        // the end of the input
    }
    transport->lose_peer();
    try {
        call->wait();
    } catch (const std::exception&) {
    }
    return 0;
}
