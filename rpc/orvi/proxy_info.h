// The engine's bookkeeping for one proxy, shared by the proxy and the engine.
// Public header: includes only other public headers.
#pragma once

#include <string>

#include "orvi/mutex.h"

namespace orvi {

class Protocol;

struct ProxyInfo {
    enum Kind { HANDLER = 0, CLIENT = 1, RESERVED = 2, INVALID = 3 };

    Protocol* protocol = nullptr;  // back reference; the engine outlives its proxies' use
    int kind = INVALID;
    unsigned int client_id = 0;
    std::string name;  // command name, sent until the peer is known
    unsigned int local_id = 0;

    // Serialises this proxy's sends, so its messages leave in order.
    Mutex send_mutex;

    // A leaf lock: nothing else is ever taken while it is held, so routing
    // may read the peer under a client's mutex while a send is in progress.
    Mutex state_mutex;
    bool done GUARDED_BY(state_mutex) = false;
    bool remote_known GUARDED_BY(state_mutex) = false;
    unsigned int remote_id GUARDED_BY(state_mutex) = 0;
};

}  // namespace orvi
