// SPDX-License-Identifier: Apache-2.0
#include "orvi/transport_registry.h"
#include "orvi/transport_simple_socket_client.h"

namespace orvi {
namespace detail {

TransportFactoryMap& get_client_factory_map() {
    static TransportFactoryMap map;
    return map;
}

std::shared_ptr<Transport> make_transport(const TransportFactoryMap& map, const std::string& url) {
    Url parsed;
    parse_url(parsed, url);
    auto it = map.find(parsed.scheme);
    if (it == map.end()) return nullptr;
    return (*it->second)(parsed);
}

namespace {
// Lives in the same file as the map so that linking the registry links this.
const bool tcpRegistered =
    register_protocol_transport<TransportSimpleSocketClient>(get_client_factory_map(), "tcp");
}  // namespace

}  // namespace detail
}  // namespace orvi
