// SPDX-License-Identifier: Apache-2.0
// Makes not-yet-connected transports from URL texts, chosen by scheme.
// Public header: includes only other public headers.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "orvi/transport.h"
#include "orvi/url.h"

namespace orvi {
namespace detail {

class TransportFactory {
  public:
    virtual ~TransportFactory() = default;
    virtual std::shared_ptr<Transport> operator()(const Url& url) const = 0;
};

template <class T>
class TransportFactoryTpl : public TransportFactory {
  public:
    std::shared_ptr<Transport> operator()(const Url& url) const override {
        return std::make_shared<T>(url);
    }
};

using TransportFactoryMap = std::map<std::string, std::shared_ptr<TransportFactory>>;

// The process-wide client factory map. "tcp" is registered before main and
// the map is only read afterwards, so lookups need no lock.
TransportFactoryMap& get_client_factory_map();

// The first registration of a scheme wins; later ones return false.
template <class T>
bool register_protocol_transport(TransportFactoryMap& map, const std::string& scheme) {
    if (map.count(scheme) != 0) return false;
    map.emplace(scheme, std::make_shared<TransportFactoryTpl<T>>());
    return true;
}

// Exact, case-sensitive scheme match. Empty when no factory matches: callers
// must check.
std::shared_ptr<Transport> make_transport(const TransportFactoryMap& map, const std::string& url);

}  // namespace detail
}  // namespace orvi
