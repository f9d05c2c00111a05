// A scripted board for the client library's tests: a serving engine on a
// free loopback port whose commands the test defines one by one, counting
// how often each is called.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "handlers.h"
#include "orvi/protocol.h"
#include "orvi/transport_simple_socket_server.h"

namespace qor {
namespace testing {

class FakeBoard {
  public:
    FakeBoard() : m_protocol(new orvi::Protocol(2)) {
        m_transport = std::make_shared<orvi::TransportSimpleSocketServer>("127.0.0.1", "0");
        m_transport->listen();
        m_protocol->add_transport(m_transport);
    }

    std::string port() const { return std::to_string(m_transport->local_port()); }

    // `name` is the short command name, e.g. "device.get".
    void on(const std::string& name, qord_sim::Handler::Body body) {
        const std::string full = "com.korvane.command." + name;
        auto counted = [this, full, body](qord_sim::Handler& h, const std::string& request) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                ++m_calls[full];
            }
            body(h, request);
        };
        m_protocol->add_command(
            full, std::make_shared<qord_sim::FunctionFactory>([counted](orvi::Protocol& p) {
                return std::make_shared<qord_sim::Handler>(p, counted);
            }));
    }

    int calls(const std::string& name) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls["com.korvane.command." + name];
    }

  private:
    std::unique_ptr<orvi::Protocol> m_protocol;
    std::shared_ptr<orvi::TransportSimpleSocketServer> m_transport;
    std::mutex m_mutex;
    std::map<std::string, int> m_calls;
};

}  // namespace testing
}  // namespace qor
