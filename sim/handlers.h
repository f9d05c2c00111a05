// Handler proxies of every command the board serves.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "orvi/protocol.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace qord_sim {

class Board;

// A handler whose work is one function of the request body. Answers go out
// as DATA, then DONE with no body.
class Handler : public orvi::ProxyCommandHandler {
  public:
    using Body = std::function<void(Handler&, const std::string& request)>;
    Handler(orvi::Protocol& protocol, Body body)
        : ProxyCommandHandler(protocol), m_body(std::move(body)) {}

    void answer(const google::protobuf::MessageLite& message);

  protected:
    void process_message(const char* data, unsigned int size) override;

  private:
    Body m_body;
};

class FunctionFactory : public orvi::ProxyFactory {
  public:
    using Make = std::function<std::shared_ptr<orvi::Proxy>(orvi::Protocol&)>;
    explicit FunctionFactory(Make make) : m_make(std::move(make)) {}
    std::shared_ptr<orvi::Proxy> operator()(orvi::Protocol& p) override { return m_make(p); }

  private:
    Make m_make;
};

// Full command name -> factory, with the board's misbehaviour options
// applied (refused commands are left out by the caller).
std::map<std::string, std::shared_ptr<orvi::ProxyFactory>> make_handler_factories(Board& board);

// The upgrade command. The new firmware's magic is a digest of the image;
// an image whose first line is "QORFW <version>" names its version.
std::shared_ptr<orvi::Proxy> make_upgrade_handler(orvi::Protocol& protocol, Board& board);

}  // namespace qord_sim
