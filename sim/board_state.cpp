#include "board_state.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

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
    std::ifstream in(path);
    if (!in.is_open()) return;  // created on the first change
    json file;
    try {
        file = json::parse(in);
    } catch (const json::exception& e) {
        throw std::runtime_error("state file " + path + " is not JSON: " + e.what());
    }
    if (!file.is_object()) throw std::runtime_error("state file " + path + " is not a JSON object");
    m_doc.merge_patch(file);
    if (!m_doc["devices"].is_array()) {
        throw std::runtime_error("state file " + path + ": \"devices\" must be an array");
    }
    for (const json& d : m_doc["devices"]) {
        if (!d.is_object() || !d.contains("id") || !d["id"].is_number_integer()) {
            throw std::runtime_error("state file " + path +
                                     ": every device needs an integer \"id\"");
        }
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
    std::lock_guard<std::mutex> lock(m_mutex);
    return device(id) != nullptr;
}

std::optional<Identities> BoardState::identities(long id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    json* d = device(id);
    if (!d) return std::nullopt;
    return Identities{text(*d, "mac"), text(*d, "imei"), text(*d, "serial")};
}

std::optional<std::string> BoardState::psi(long id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    json* d = device(id);
    if (!d) return std::nullopt;
    return (*d)["psi"].dump();
}

void BoardState::amend_psi(long id, const std::string& patch) {
    json parsed;
    try {
        parsed = json::parse(patch);
    } catch (const json::exception&) {
        throw std::runtime_error("PSI amend refused: the text is not valid JSON");
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    change([&](json& doc) { device_or_throw(doc, id)["psi"].merge_patch(parsed); });
}

void BoardState::reset_imei(long id, const std::string& passcode) {
    std::lock_guard<std::mutex> lock(m_mutex);
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
    std::lock_guard<std::mutex> lock(m_mutex);
    change([&](json& doc) {
        json& d = device_or_throw(doc, id);
        if (passcode != text(d, "talvex_passcode")) {
            throw std::runtime_error("TALVEX activation refused: wrong passcode");
        }
        d["talvex_active"] = true;
    });
}

bool BoardState::is_fff() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return text(m_doc, "firmware_source") != "FFH";
}

void BoardState::set_fff(bool fff) {
    std::lock_guard<std::mutex> lock(m_mutex);
    change([&](json& doc) { doc["firmware_source"] = fff ? "FFF" : "FFH"; });
}

std::string BoardState::version() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return text(m_doc, "version");
}

std::string BoardState::magic() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return text(m_doc, "magic");
}

void BoardState::install_firmware(const std::string& version, const std::string& magic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    change([&](json& doc) {
        doc["version"] = version;
        doc["magic"] = magic;
    });
}

bool BoardState::boot_done_at_start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_doc.value("boot_done", true);
}

json BoardState::snapshot() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_doc;
}

void BoardState::save(const json& doc) {
    if (m_path.empty()) return;
    const std::string tmp = m_path + ".tmp." + std::to_string(getpid());
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << doc.dump(2) << '\n';
        out.flush();
        if (!out) {
            std::remove(tmp.c_str());
            throw std::runtime_error("cannot write the state file " + m_path);
        }
    }
    if (std::rename(tmp.c_str(), m_path.c_str()) != 0) {
        std::remove(tmp.c_str());
        throw std::runtime_error("cannot replace the state file " + m_path);
    }
}

}  // namespace qord_sim
