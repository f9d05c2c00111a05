// SPDX-License-Identifier: Apache-2.0
// One message received from a peer, with its header parsed once, on
// arrival; or the peer's loss, queued behind its messages.
#pragma once

#include "envelope/header.pb.h"
#include "orvi/message.h"

namespace orvi {

struct RoutingJob {
    Message<BufferMutable> message;
    // Whatever of the first buffer could be parsed: a header that does not
    // parse is routed as far as it goes.
    Header header;
    bool lost = false;
};

}  // namespace orvi
