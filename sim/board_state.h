// SPDX-License-Identifier: Apache-2.0
// The simulated board's persistent state: devices, PSI documents,
// passcodes, firmware source and identity. Kept as one JSON document; every
// accepted change is written back durably before it is acknowledged (see
// state_file.h). Client input is bounded (see bounded_json.h).
// Thread-safe: every operation takes m_mutex.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "orvi/mutex.h"

namespace qord_sim {

struct Identities {
    std::string mac, imei, serial;
};

class BoardState {
  public:
    // Defaults for everything; the file (optional) overrides what it names.
    // Removes temporary files that dead writers left next to it. Throws
    // std::runtime_error naming the file and the faulty field.
    explicit BoardState(const std::string& path);

    static nlohmann::json defaults();

    bool has_device(long id);
    std::optional<Identities> identities(long id);
    std::optional<std::string> psi(long id);
    // RFC 7386 merge patch. Throws std::runtime_error for text that is not
    // JSON, too large or too deeply nested, or a result that would be too
    // large; the document is then unchanged.
    void amend_psi(long id, const std::string& patch);
    // Throws std::runtime_error for a wrong passcode.
    void reset_imei(long id, const std::string& passcode);
    void activate_talvex(long id, const std::string& passcode);

    bool is_fff();
    void set_fff(bool fff);
    std::string version();
    std::string magic();
    void install_firmware(const std::string& version, const std::string& magic);
    bool boot_done_at_start();

  private:
    nlohmann::json* device(long id) REQUIRES(m_mutex);
    // Applies a change to a copy, writes the copy, then adopts it: a change
    // that cannot be saved is not made.
    template <class F>
    void change(F&& mutate) REQUIRES(m_mutex);
    void save(const nlohmann::json& doc);

    orvi::Mutex m_mutex;
    nlohmann::json m_doc GUARDED_BY(m_mutex);
    std::string m_path;  // empty: nothing is written
};

}  // namespace qord_sim
