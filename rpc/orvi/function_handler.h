// SPDX-License-Identifier: Apache-2.0
// A command handler whose work is one function of the request body, and the
// factory that makes one for every incoming command. For boards built from
// a table of functions, and for test fakes.
// Public header: includes only other public headers.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "orvi/protocol.h"
#include "orvi/proxy.h"

namespace google {
namespace protobuf {
class MessageLite;
}  // namespace protobuf
}  // namespace google

namespace orvi {

// Runs on the thread that routes the request (see Protocol).
class FunctionHandler : public ProxyCommandHandler {
  public:
    using Body = std::function<void(FunctionHandler&, const std::string& request)>;
    FunctionHandler(Protocol& protocol, Body body)
        : ProxyCommandHandler(protocol), m_body(std::move(body)) {}

    // Sends the message as DATA, then DONE with no body.
    void answer(const google::protobuf::MessageLite& message);
    // Leaves the engine without DONE or EXCEPTION: the caller is never told
    // that the command ended, as with a board that forgets to answer.
    void abandon() { Proxy::set_done(); }

  protected:
    void process_message(const char* data, unsigned int size) override {
        m_body(*this, std::string(data, size));
    }

  private:
    Body m_body;
};

class FunctionFactory : public ProxyFactory {
  public:
    using Make = std::function<std::shared_ptr<Proxy>(Protocol&)>;
    explicit FunctionFactory(Make make) : m_make(std::move(make)) {}
    // A factory of FunctionHandlers that all run `body`.
    static std::shared_ptr<FunctionFactory> of(FunctionHandler::Body body) {
        return std::make_shared<FunctionFactory>([body](Protocol& protocol) {
            return std::make_shared<FunctionHandler>(protocol, body);
        });
    }
    std::shared_ptr<Proxy> operator()(Protocol& protocol) override { return m_make(protocol); }

  private:
    Make m_make;
};

}  // namespace orvi
