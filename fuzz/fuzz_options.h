// SPDX-License-Identifier: Apache-2.0
// Included once by every fuzz target. A frame may announce any length, and
// the decoder allocates what is announced. Inputs are at most 64 KiB, so no
// frame over that can complete: let allocations above 24 MiB (libFuzzer
// itself needs about 20) fail, as they may on a board link, and be reported
// by the decoder, instead of spending the run on mapping memory.
#pragma once

extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=24";
}
