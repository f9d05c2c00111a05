// SPDX-License-Identifier: Apache-2.0
#include "board_state.h"

#include <stdexcept>

#include "bounded_json.h"
#include "state_file.h"

namespace qord_sim {

using nlohmann::json;

json BoardState::defaults() {
    return json::parse(R"({
      "firmware_source": "FFF",
      "version": "qord-sim 1.0.0",
      "magic": "0000000000000000",
      "boot_done": true,
      "devices": [{
        "id": 0,
        "mac": "02:00:5E:10:00:01",
        "imei": "353456789012348",
        "factory_imei": "353456789012348",
        "serial": "QS-000001",
        "imei_reset_passcode": "RESET-1234",
        "talvex_passcode": "TALVEX-5678",
        "talvex_active": false,
        "psi": {"apn": "internet", "roaming": false, "band": {"lte": [1, 3, 7, 20]}}
      }]
    })");
}

BoardState::BoardState(const std::string& path) : m_doc(defaults()), m_path(path) {
    if (path.empty()) return;
    remove_stale_temporaries(path);
    const json file = load_state_file(path);
    if (file.is_null()) return;  // created on the first change
    m_doc.merge_patch(file);
    try {
        validate_state(m_doc);
    } catch (const std::runtime_error& e) {
        throw std::runtime_error("state file " + path + ": " + e.what());
    }
}

namespace {
std::string text(const json& d, const char* key) {
    return d.contains(key) && d[key].is_string() ? d[key].get<std::string>() : std::string();
}

json* find_device(json& doc, long id) {
    for (json& d : doc["devices"]) {
        if (d["id"].get<long>() == id) return &d;
    }
    return nullptr;
}

json& device_or_throw(json& doc, long id) {
    json* d = find_device(doc, id);
    if (!d) throw std::runtime_error("unknown device id " + std::to_string(id));
    return *d;
}
}  // namespace

json* BoardState::device(long id) {
    return find_device(m_doc, id);
}

template <class F>
void BoardState::change(F&& mutate) {
    json next = m_doc;
    mutate(next);
    save(next);
    m_doc.swap(next);
}

bool BoardState::has_device(long id) {
    orvi::MutexLock lock(m_mutex);
    return device(id) != nullptr;
}

std::optional<Identities> BoardState::identities(long id) {
    orvi::MutexLock lock(m_mutex);
    json* d = device(id);
    if (!d) return std::nullopt;
    return Identities{text(*d, "mac"), text(*d, "imei"), text(*d, "serial")};
}

std::optional<std::string> BoardState::psi(long id) {
    orvi::MutexLock lock(m_mutex);
    json* d = device(id);
    if (!d) return std::nullopt;
    return (*d)["psi"].dump();
}

void BoardState::amend_psi(long id, const std::string& patch) {
    const char* const refused = "PSI amend refused";
    const json parsed = parse_bounded(patch, refused, kMaxPsiBytes, kMaxPsiDepth);
    orvi::MutexLock lock(m_mutex);
    change([&](json& doc) {
        json& psi = device_or_throw(doc, id)["psi"];
        psi.merge_patch(parsed);
        if (psi.dump().size() > kMaxPsiBytes) {
            throw std::runtime_error(std::string(refused) + ": the settings would be larger than " +
                                     std::to_string(kMaxPsiBytes) + " bytes");
        }
    });
}

void BoardState::reset_imei(long id, const std::string& passcode) {
    orvi::MutexLock lock(m_mutex);
    change([&](json& doc) {
        json& d = device_or_throw(doc, id);
        if (passcode != text(d, "imei_reset_passcode")) {
            throw std::runtime_error("IMEI reset refused: wrong passcode");
        }
        d["imei"] = text(d, "factory_imei");
        d["imei_resets"] = d.value("imei_resets", 0) + 1;
    });
}

void BoardState::activate_talvex(long id, const std::string& passcode) {
    orvi::MutexLock lock(m_mutex);
    change([&](json& doc) {
        json& d = device_or_throw(doc, id);
        if (passcode != text(d, "talvex_passcode")) {
            throw std::runtime_error("TALVEX activation refused: wrong passcode");
        }
        d["talvex_active"] = true;
    });
}

bool BoardState::is_fff() {
    orvi::MutexLock lock(m_mutex);
    return text(m_doc, "firmware_source") != "FFH";
}

void BoardState::set_fff(bool fff) {
    orvi::MutexLock lock(m_mutex);
    change([&](json& doc) { doc["firmware_source"] = fff ? "FFF" : "FFH"; });
}

std::string BoardState::version() {
    orvi::MutexLock lock(m_mutex);
    std::string bytes;
    if (m_doc.contains("version")) decode_bytes(m_doc["version"], bytes);
    return bytes;
}

std::string BoardState::magic() {
    orvi::MutexLock lock(m_mutex);
    return text(m_doc, "magic");
}

void BoardState::install_firmware(const std::string& version, const std::string& magic) {
    orvi::MutexLock lock(m_mutex);
    change([&](json& doc) {
        doc["version"] = encode_bytes(version);
        doc["magic"] = magic;
    });
}

bool BoardState::boot_done_at_start() {
    orvi::MutexLock lock(m_mutex);
    return m_doc.value("boot_done", true);
}

void BoardState::save(const json& doc) {
    if (!m_path.empty()) save_state_file(m_path, doc);
}

}  // namespace qord_sim
