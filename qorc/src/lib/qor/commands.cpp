#include "commands.h"

#include "qor/protobuf/fallback_ffh.pb.h"
#include "qor/protobuf/fw_config_mode.pb.h"
#include "qor/protobuf/system_boot_end.pb.h"
#include "qor/protobuf/version.pb.h"
#include "qor/protobuf/wait_system_boot_end.pb.h"

namespace qor {
namespace client {

namespace pb = qor::protobuf;

const std::string& Echo::execute(const std::string& payload) {
    send_message(payload.data(), static_cast<unsigned int>(payload.size()));
    wait();
    return reply;
}

void Echo::process_message(const char* data, unsigned int size) {
    reply.assign(data, size);
}

void FallbackFfh::execute() {
    send_request(*this, pb::fallback_ffh::Request());
    wait();
}

void FallbackFfh::process_message(const char* data, unsigned int size) {
    parse_answer<pb::fallback_ffh::Answer>(data, size);
}

void FwConfigMode::execute(bool& out) {
    send_request(*this, pb::fw_config_mode::Request());
    wait();
    out = is_fff;
}

void FwConfigMode::process_message(const char* data, unsigned int size) {
    is_fff = parse_answer<pb::fw_config_mode::Answer>(data, size).is_fff();
}

bool SystemBootEnd::execute() {
    send_request(*this, pb::system_boot_end::Request());
    wait();
    return boot_done;
}

void SystemBootEnd::process_message(const char* data, unsigned int size) {
    boot_done = parse_answer<pb::system_boot_end::Answer>(data, size).boot_done();
}

void WaitSystemBootEnd::execute() {
    send_request(*this, pb::wait_system_boot_end::Request());
    wait();
}

void Version::execute(std::string& v, std::string& m) {
    version = &v;
    magic = &m;
    send_request(*this, pb::version::Request());
    wait();
    version = nullptr;
    magic = nullptr;
}

void Version::process_message(const char* data, unsigned int size) {
    const auto answer = parse_answer<pb::version::Answer>(data, size);
    if (std::string* v = version) *v = answer.version();
    if (std::string* m = magic) *m = answer.magic();
}

}  // namespace client
}  // namespace qor
