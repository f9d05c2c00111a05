// SPDX-License-Identifier: Apache-2.0
// JSON from clients and files, within limits that keep every later step
// (merge, dump, destruction) shallow and small: nlohmann's recursive
// algorithms are only ever run on documents that passed these checks.
#pragma once

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

namespace qord_sim {

constexpr int kMaxPsiDepth = 64;
constexpr size_t kMaxPsiBytes = 1 << 20;

// The deepest nesting of arrays and objects in `text`, counted without
// recursion and without parsing; brackets inside strings do not count.
// Stops counting once `limit` is passed and returns limit + 1.
int nesting_depth(const std::string& text, int limit);

// Parses `text`; throws std::runtime_error, with `what` leading the message,
// for text that is not JSON, larger than max_bytes or nested deeper than
// max_depth.
nlohmann::json parse_bounded(const std::string& text, const std::string& what, size_t max_bytes,
                             int max_depth);

// Text that survives any bytes in a JSON document: a string when the bytes
// are UTF-8, else {"hex": "..."}. decode_bytes reverses it and returns false
// for anything else.
nlohmann::json encode_bytes(const std::string& bytes);
bool decode_bytes(const nlohmann::json& value, std::string& bytes);

}  // namespace qord_sim
