// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include "qor/commands.h"
#include "qor/sysupgrade.h"

namespace qor {
namespace client {

bool connection_lost(orvi::Proxy& proxy) {
    // The engine forgets a peer before it tells that peer's commands of the
    // loss; a failure the board answered leaves the peer in place.
    return !proxy.get_transport();
}

void _wait_system_boot_end(orvi::Protocol& protocol, const SysupgradeHandler* handler,
                           int first_count) {
    int count = first_count;
    std::shared_ptr<SystemBootEnd> poll;
    try {
        for (;;) {
            poll = protocol.create_command_proxy<SystemBootEnd>();
            if (poll->execute()) return;
            poll.reset();
            sleep(1);
            if (handler) handler->on_connect_retry(static_cast<unsigned int>(count++));
        }
    } catch (...) {
        // A board that can no longer be asked has not finished booting, and
        // no other command can ask it.
        if (poll && connection_lost(*poll)) throw;
    }
    // A board without the polling command: block on the other one instead.
    std::shared_ptr<WaitSystemBootEnd> wait;
    try {
        wait = protocol.create_command_proxy<WaitSystemBootEnd>();
        wait->execute();
    } catch (...) {
        if (wait && connection_lost(*wait)) throw;
        // The next command tells whether the board really came back.
    }
}

}  // namespace client
}  // namespace qor
