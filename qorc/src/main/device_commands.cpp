// SPDX-License-Identifier: Apache-2.0
#include "device_commands.h"

#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <sstream>

#include "local_files.h"
#include "passcode_file.h"
#include "qor/protobuf/catalogue.h"

namespace qorc {

namespace {

// A directory opens as a stream on Linux but holds no text to read.
bool is_directory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int open_failed(const std::string& path) {
    return file_failed("to open", path);
}

// Device 0, or "device not found" when the board does not know it (or
// reports it lost): a board's answer never reaches the handle's assertion.
qor::client::Device found_device(qor::Client& client) {
    qor::client::Device device = client.get_device(0);
    if (!device.valid()) {
        throw qor::client::DeviceException(qor::client::DEVICE_NOT_FOUND);
    }
    return device;
}

// Reads what is left of the stream; false on a read error (as opposed to
// the end of the file). Pipes work too.
bool read_rest(std::ifstream& file, std::string& out) {
    char chunk[64 * 1024];
    try {
        for (;;) {
            const std::streamsize n = file.rdbuf()->sgetn(chunk, sizeof chunk);
            if (n <= 0) return true;
            out.append(chunk, static_cast<size_t>(n));
        }
    } catch (const std::exception&) {
        return false;  // the stream buffer reports read errors by throwing
    }
}

}  // namespace

int fallback_ffh(qor::Client& client) {
    std::cout << "Fallback to FFH..." << std::flush;
    client.fallback_ffh();
    std::cout << "\rFallback to FFH completed, rebooting" << std::endl;
    return 0;
}

int fw_version(qor::Client& client) {
    std::string version, magic;
    client.version(version, magic);
    std::cout << "FW version: " << version << std::endl;
    return 0;
}

int fw_config_mode(qor::Client& client) {
    bool is_fff = false;
    client.fw_config_mode(is_fff);
    std::cout << "FW configuration mode: " << (is_fff ? "FFF" : "FFH") << std::endl;
    return 0;
}

int activate_talvex(qor::Client& client, const std::string& passcode) {
    found_device(client).activate_talvex(passcode);
    return 0;
}

int psi_get(qor::Client& client, const std::string& path) {
    std::string json;
    {
        qor::client::Device device = found_device(client);
        device.psi_get(qor::catalogue::kPsiReadPath, json);
    }
    if (path.empty() || is_stdio(path)) {
        std::cout << json << std::endl;
        return 0;
    }
    std::ofstream file(path, std::ios::out | std::ios::trunc);
    if (!file.is_open()) return open_failed(path);
    file << json << '\n';
    // A full disk shows only when the last bytes are flushed.
    file.close();
    if (file.fail()) return file_failed("to write", path);
    return 0;
}

int psi_set(qor::Client& client, const std::string& path) {
    std::string content;
    if (is_stdio(path)) {
        if (!read_stdin(content)) return file_failed("to read", path);
    } else {
        std::ifstream file(path, std::ios::in | std::ios::binary);
        if (!file.is_open() || is_directory(path)) return open_failed(path);
        file.seekg(0, std::ios::end);
        const std::streamoff size = file.tellg();
        if (size > 0) content.reserve(static_cast<size_t>(size));
        file.seekg(0, std::ios::beg);
        if (!read_rest(file, content)) return file_failed("to read", path);
    }
    found_device(client).psi_set(qor::catalogue::kPsiAmendPath, content);
    return 0;
}

int reset_imei(qor::Client& client, const std::string& path) {
    // Standard input is taken whole before the board is asked, so that a
    // failing read, like a file that does not open, costs no remote call.
    std::ifstream named;
    std::istringstream piped;
    std::istream* file = &named;
    if (is_stdio(path)) {
        std::string text;
        if (!read_stdin(text)) return file_failed("to read", path);
        piped.str(std::move(text));
        file = &piped;
    } else {
        named.open(path);
        if (!named.is_open() || is_directory(path)) return open_failed(path);
    }

    qor::client::Device device = found_device(client);
    qor::client::DeviceIdentities ids;
    device.get_identities(ids);
    std::cout << "device identities:\n\tMAC: " << ids.mac << "\n\tIMEI: " << ids.imei
              << "\n\tSERIAL: " << ids.serial << std::endl;

    std::string passcode;
    switch (find_passcode(*file, ids.mac, passcode)) {
        case PasscodeLookup::kFound:
            device.reset_imei(passcode);
            return 0;
        case PasscodeLookup::kReadError:
            return file_failed("to read", path);
        case PasscodeLookup::kNotFound:
            break;
    }
    std::cerr << "No passcode found for this device (" << ids.mac << ")" << std::endl;
    return 1;
}

void worker(const char* host, const char* port, bool loop, unsigned int number) {
    std::cout << "Worker" << std::endl;
    std::cout << host << ":" << port << std::endl;
    try {
        qor::Client client;
        client.connect(host, port, "", 0);
        for (unsigned long n = 1;; ++n) {
            std::string reply;
            client.echo("coucou", reply);
            client.echo("coucou", reply);
            std::cout << "Worker " << number << ": count = " << n << std::endl;
            if (!loop) break;
        }
    } catch (const std::exception& e) {
        std::cerr << "catch exception: " << e.what() << std::endl;
    }
}

}  // namespace qorc
