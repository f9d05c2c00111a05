// SPDX-License-Identifier: Apache-2.0
#include "fake_board.h"

#include "qor/protobuf/catalogue.h"
#include "testing/pipe_transport.h"

namespace qor {
namespace testing {

FakeBoard::FakeBoard() : m_protocol(new orvi::Protocol(2)) {
    m_transport = std::make_shared<orvi::TransportSimpleSocketServer>("127.0.0.1", "0");
    m_transport->listen();
    m_protocol->add_transport(m_transport);
}

std::shared_ptr<orvi::Transport> FakeBoard::pipe() {
    auto ends = orvi::testing::make_pipe();
    m_protocol->add_transport(ends.first);
    return ends.second;
}

void FakeBoard::on(const std::string& name, orvi::FunctionHandler::Body body) {
    const std::string full = catalogue::kCommandPrefix + name;
    m_protocol->add_command(
        full, orvi::FunctionFactory::of(
                  [this, full, body](orvi::FunctionHandler& h, const std::string& request) {
                      {
                          orvi::MutexLock lock(m_mutex);
                          ++m_calls[full];
                      }
                      body(h, request);
                  }));
}

int FakeBoard::calls(const std::string& name) {
    orvi::MutexLock lock(m_mutex);
    return m_calls[catalogue::kCommandPrefix + name];
}

}  // namespace testing
}  // namespace qor
