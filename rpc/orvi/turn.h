// SPDX-License-Identifier: Apache-2.0
// A peer's turn: the right to route that peer's messages. One thread holds
// it at a time, so a peer's messages, and finally its loss, are handled one
// at a time in the order they arrived, whichever thread that is. It is a
// capability that clang's -Wthread-safety checks: code that routes says
// REQUIRES(peer.turn), and calling it without the turn fails the build.
//
// The flag is guarded by the owner's mutex: take and give back the turn
// with that mutex held, so that a message queued while the holder is busy
// is always seen by the holder before it lets go.
// Public header: includes only other public headers.
#pragma once

#include "orvi/thread_annotations.h"

namespace orvi {

class CAPABILITY("turn") Turn {
  public:
    Turn() = default;
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    // True, with the turn, when nobody holds it.
    bool try_take() TRY_ACQUIRE(true) {
        if (m_held) return false;
        m_held = true;
        return true;
    }
    void give_back() RELEASE() { m_held = false; }

    // Passes the turn to another thread, which takes it up with resume().
    // Nobody else can take it in between.
    void hand_off() RELEASE() {}
    void resume() ACQUIRE() {}

  private:
    bool m_held = false;
};

}  // namespace orvi
