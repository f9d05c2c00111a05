// Shared between the engine's routing and its worker pool.
#pragma once

namespace orvi {

// Tells the worker running on this thread that a proxy finished while it
// routed the current message.
void note_proxy_finished();

}  // namespace orvi
