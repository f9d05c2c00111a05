// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

namespace qor {
namespace client {

const std::string& Echo::execute(const std::string& payload) {
    send_message(payload.data(), static_cast<unsigned int>(payload.size()));
    wait();
    return reply;
}

void Echo::process_message(const char* data, unsigned int size) {
    reply.assign(data, size);
}

void FallbackFfh::execute() {
    send(Request());
    wait();
}

void FallbackFfh::process_message(const char* data, unsigned int size) {
    parse(data, size);
}

void FwConfigMode::execute(bool& out) {
    send(Request());
    wait();
    out = is_fff;
}

void FwConfigMode::process_message(const char* data, unsigned int size) {
    is_fff = parse(data, size).is_fff();
}

bool SystemBootEnd::execute() {
    send(Request());
    wait();
    return boot_done;
}

void SystemBootEnd::process_message(const char* data, unsigned int size) {
    boot_done = parse(data, size).boot_done();
}

void WaitSystemBootEnd::execute() {
    send(Request());
    wait();
}

void Version::execute(std::string& v, std::string& m) {
    version = &v;
    magic = &m;
    send(Request());
    wait();
    version = nullptr;
    magic = nullptr;
}

void Version::process_message(const char* data, unsigned int size) {
    const auto answer = parse(data, size);
    if (std::string* v = version) *v = answer.version();
    if (std::string* m = magic) *m = answer.magic();
}

}  // namespace client
}  // namespace qor
