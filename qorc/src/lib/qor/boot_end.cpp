#include <unistd.h>

#include "qor/commands.h"
#include "qor/sysupgrade.h"

namespace qor {
namespace client {

void _wait_system_boot_end(orvi::Protocol& protocol, const SysupgradeHandler* handler,
                           int first_count) {
    int count = first_count;
    try {
        for (;;) {
            auto poll = protocol.create_command_proxy<SystemBootEnd>();
            if (poll->execute()) return;
            poll.reset();
            sleep(1);
            if (handler) handler->on_connect_retry(static_cast<unsigned int>(count++));
        }
    } catch (...) {
        // A board without the polling command: block on the other one instead.
        try {
            protocol.create_command_proxy<WaitSystemBootEnd>()->execute();
        } catch (...) {
            // The next command tells whether the board really came back.
        }
    }
}

}  // namespace client
}  // namespace qor
