// Included once by every fuzz target. A frame may announce any length, and
// the decoder allocates what is announced: let an impossible allocation fail
// as it would on a board link instead of ending the run.
#pragma once

extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}
