// SPDX-License-Identifier: Apache-2.0
#include "state_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>

#include "bounded_json.h"

namespace qord_sim {

using nlohmann::json;

namespace {

// The state file holds PSI documents three levels down (devices, device,
// psi), and several of them.
constexpr int kMaxStateDepth = kMaxPsiDepth + 3;
constexpr size_t kMaxStateBytes = 64 * kMaxPsiBytes;

[[noreturn]] void wrong_type(const std::string& pointer, const char* expected) {
    throw std::runtime_error(pointer + " must be " + expected);
}

void expect(const json& parent, const std::string& at, const char* key, bool (json::*is)() const,
            const char* expected) {
    if (!parent.contains(key)) return;
    if (!(parent[key].*is)()) wrong_type(at + "/" + key, expected);
}

void validate_device(const json& d, const std::string& at, std::set<long>& ids) {
    if (!d.is_object()) wrong_type(at, "an object");
    if (!d.contains("id")) throw std::runtime_error(at + "/id is missing");
    expect(d, at, "id", &json::is_number_integer, "an integer");
    if (!ids.insert(d["id"].get<long>()).second) {
        throw std::runtime_error(at + "/id repeats the id of another device");
    }
    for (const char* key :
         {"mac", "imei", "factory_imei", "serial", "imei_reset_passcode", "talvex_passcode"}) {
        expect(d, at, key, &json::is_string, "a string");
    }
    expect(d, at, "talvex_active", &json::is_boolean, "a boolean");
    expect(d, at, "imei_resets", &json::is_number_unsigned, "a whole number");
}

std::string temporary_prefix(const std::string& path) {
    return path + ".tmp.";
}

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

[[noreturn]] void save_failed(const std::string& path, int error) {
    throw std::runtime_error("cannot write the state file " + path + ": " + strerror(error));
}

void write_all(int fd, const std::string& text, const std::string& path) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t r = ::write(fd, text.data() + done, text.size() - done);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) save_failed(path, r < 0 ? errno : ENOSPC);
        done += static_cast<size_t>(r);
    }
}

}  // namespace

void validate_state(const json& doc) {
    if (!doc.is_object()) wrong_type("the document", "a JSON object");
    expect(doc, "", "firmware_source", &json::is_string, "a string");
    expect(doc, "", "magic", &json::is_string, "a string");
    expect(doc, "", "boot_done", &json::is_boolean, "a boolean");
    std::string ignored;
    if (doc.contains("version") && !decode_bytes(doc["version"], ignored)) {
        wrong_type("/version", "a string or {\"hex\": \"...\"}");
    }
    if (!doc.contains("devices")) return;
    if (!doc["devices"].is_array()) wrong_type("/devices", "an array");
    std::set<long> ids;
    for (size_t i = 0; i < doc["devices"].size(); ++i) {
        validate_device(doc["devices"][i], "/devices/" + std::to_string(i), ids);
    }
}

json load_state_file(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return json();
        throw std::runtime_error("cannot read the state file " + path + ": " + strerror(errno));
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t r = ::read(fd, buffer, sizeof buffer);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            const int error = errno;
            close(fd);
            throw std::runtime_error("cannot read the state file " + path + ": " + strerror(error));
        }
        if (r == 0) break;
        text.append(buffer, static_cast<size_t>(r));
        if (text.size() > kMaxStateBytes) break;  // refused by the size check below
    }
    close(fd);
    json doc = parse_bounded(text, "state file " + path, kMaxStateBytes, kMaxStateDepth);
    if (!doc.is_object()) throw std::runtime_error("state file " + path + " is not a JSON object");
    return doc;
}

void save_state_file(const std::string& path, const json& doc) {
    const std::string text = doc.dump(-1, ' ', false, json::error_handler_t::strict) + "\n";
    const std::string tmp = temporary_prefix(path) + std::to_string(getpid());
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    int fd = open(tmp.c_str(), flags, 0644);
    if (fd < 0 && errno == EEXIST) {
        // Ours from an earlier process with the same pid, or planted: the
        // name itself is removed (never what a link points to) and made anew.
        unlink(tmp.c_str());
        fd = open(tmp.c_str(), flags, 0644);
    }
    if (fd < 0) save_failed(path, errno);
    try {
        write_all(fd, text, path);
        if (fsync(fd) != 0) save_failed(path, errno);
    } catch (...) {
        close(fd);
        unlink(tmp.c_str());
        throw;
    }
    close(fd);
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(tmp.c_str());
        save_failed(path, error);
    }
    // The rename is durable only once the directory is.
    const int dir = open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
}

int remove_stale_temporaries(const std::string& path) {
    const std::string dirPath = directory_of(path);
    const size_t slash = path.rfind('/');
    const std::string prefix =
        temporary_prefix(slash == std::string::npos ? path : path.substr(slash + 1));
    DIR* dir = opendir(dirPath.c_str());
    if (!dir) return 0;
    int removed = 0;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) != 0) continue;
        const std::string pidText = name.substr(prefix.size());
        if (pidText.empty() || pidText.size() > 9 ||
            pidText.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const pid_t pid = static_cast<pid_t>(std::stol(pidText));
        if (pid != getpid() && (kill(pid, 0) == 0 || errno != ESRCH)) continue;
        if (unlinkat(dirfd(dir), name.c_str(), 0) == 0) ++removed;
    }
    closedir(dir);
    return removed;
}

}  // namespace qord_sim
