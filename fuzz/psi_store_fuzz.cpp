// SPDX-License-Identifier: Apache-2.0
// The simulator's PSI store on any client text: merge patches either are
// refused or leave settings within the depth and size limits, and stored
// bytes always come back unchanged.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "board_state.h"
#include "bounded_json.h"
#include "fuzz_options.h"
#include "state_file.h"

namespace {

using nlohmann::json;

// Depth of a parsed document, measured without recursion.
int depth_of(const json& root) {
    int deepest = 0;
    std::vector<std::pair<const json*, int>> stack{{&root, 0}};
    while (!stack.empty()) {
        const auto [value, depth] = stack.back();
        stack.pop_back();
        if (!value->is_structured()) continue;
        if (depth + 1 > deepest) deepest = depth + 1;
        for (const json& child : *value) stack.push_back({&child, depth + 1});
    }
    return deepest;
}

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

// Input: patches separated by NUL bytes, applied in turn to device 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    qord_sim::BoardState state("");
    size_t begin = 0;
    while (begin <= input.size()) {
        size_t end = input.find('\0', begin);
        if (end == std::string::npos) end = input.size();
        const std::string patch = input.substr(begin, end - begin);
        begin = end + 1;

        // The cheap depth count never lets through what is deeper.
        try {
            const json parsed = qord_sim::parse_bounded(patch, "fuzz", qord_sim::kMaxPsiBytes,
                                                        qord_sim::kMaxPsiDepth);
            check(depth_of(parsed) <= qord_sim::kMaxPsiDepth);
            try {
                qord_sim::validate_state(parsed);
            } catch (const std::runtime_error&) {
            }
        } catch (const std::runtime_error&) {
        }
        try {
            state.amend_psi(0, patch);
        } catch (const std::runtime_error&) {
        }
        const json settings = json::parse(*state.psi(0));
        check(depth_of(settings) <= qord_sim::kMaxPsiDepth);
        check(settings.dump().size() <= qord_sim::kMaxPsiBytes);

        std::string back;
        check(qord_sim::decode_bytes(qord_sim::encode_bytes(patch), back) && back == patch);
    }
    return 0;
}
