// SPDX-License-Identifier: Apache-2.0
// A scripted board for the client library's tests: a serving engine whose
// commands the test defines one by one, counting how often each is called.
// It listens on a free loopback port, and takes in-process connections too.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "orvi/function_handler.h"
#include "orvi/mutex.h"
#include "orvi/protocol.h"
#include "orvi/transport_simple_socket_server.h"

namespace qor {
namespace testing {

class FakeBoard {
  public:
    FakeBoard();

    std::string port() const { return std::to_string(m_transport->local_port()); }
    // A new connection to this board with no socket in between: hand the
    // result to qor::Client::connect or an engine's add_transport.
    std::shared_ptr<orvi::Transport> pipe();

    // `name` is the short command name, e.g. "device.get".
    void on(const std::string& name, orvi::FunctionHandler::Body body) EXCLUDES(m_mutex);
    int calls(const std::string& name) EXCLUDES(m_mutex);

  private:
    std::unique_ptr<orvi::Protocol> m_protocol;
    std::shared_ptr<orvi::TransportSimpleSocketServer> m_transport;
    orvi::Mutex m_mutex;
    std::map<std::string, int> m_calls GUARDED_BY(m_mutex);
};

}  // namespace testing
}  // namespace qor
