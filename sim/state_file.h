// SPDX-License-Identifier: Apache-2.0
// The board state's file: loading with type checks, and saving so that a
// crash at any moment leaves either the old or the new document, whole.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace qord_sim {

// Throws std::runtime_error naming the first field, as a JSON pointer
// ("/devices/0/boot_done"), whose type is not what the board uses.
void validate_state(const nlohmann::json& doc);

// The document in `path`, or a null value when there is no such file.
// Throws std::runtime_error for a file that cannot be read or is not a JSON
// object within the size and depth limits.
nlohmann::json load_state_file(const std::string& path);

// Writes `doc` compactly to a temporary file created exclusively next to
// `path` (never through a link), syncs it, renames it over `path` and syncs
// the directory. Throws std::runtime_error; `path` is then unchanged.
void save_state_file(const std::string& path, const nlohmann::json& doc);

// Removes temporary files left next to `path` by writers that died (their
// pid no longer runs). Returns how many were removed.
int remove_stale_temporaries(const std::string& path);

}  // namespace qord_sim
