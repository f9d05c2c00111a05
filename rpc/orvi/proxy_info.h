// SPDX-License-Identifier: Apache-2.0
// The engine's bookkeeping for one proxy, shared by the proxy and the engine.
// Public header: includes only other public headers.
#pragma once

#include <string>
#include <utility>

#include "orvi/mutex.h"

namespace orvi {

class Protocol;

// Who the proxy is never changes once the engine has made it, so any thread
// may read it without a lock; what it learns later is under state_mutex.
struct ProxyInfo {
    enum Kind { HANDLER = 0, CLIENT = 1, RESERVED = 2, INVALID = 3 };

    ProxyInfo(Protocol* owner, int proxy_kind, unsigned int client, std::string command,
              unsigned int local)
        : protocol(owner),
          kind(proxy_kind),
          client_id(client),
          name(std::move(command)),
          local_id(local) {}
    ProxyInfo(const ProxyInfo&) = delete;
    ProxyInfo& operator=(const ProxyInfo&) = delete;

    Protocol* const protocol;  // back reference; the engine outlives its proxies' use
    const int kind;
    const unsigned int client_id;
    const std::string name;  // command name, sent until the peer is known
    const unsigned int local_id;

    // Serialises this proxy's sends, so its messages leave in order. Taken
    // before state_mutex.
    Mutex send_mutex ACQUIRED_BEFORE(state_mutex);

    // A leaf lock: nothing else is ever taken while it is held, so routing
    // may read the peer under a client's mutex while a send is in progress.
    Mutex state_mutex;
    bool done GUARDED_BY(state_mutex) = false;
    bool remote_known GUARDED_BY(state_mutex) = false;
    unsigned int remote_id GUARDED_BY(state_mutex) = 0;
};

}  // namespace orvi
