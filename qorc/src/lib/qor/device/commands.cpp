#include "qor/device/commands.h"

#include <iostream>

#include "qor/commands.h"
#include "qor/protobuf/device/get.pb.h"
#include "qor/protobuf/device/identities_get.pb.h"
#include "qor/protobuf/device/psi_get.pb.h"
#include "qor/protobuf/device/psi_set.pb.h"
#include "qor/protobuf/device/reset_imei.pb.h"
#include "qor/protobuf/device/tvx/activate.pb.h"

namespace qor {
namespace client {

namespace pb = qor::protobuf::device;

Device DeviceGet::execute(unsigned int device_id) {
    pb::get::Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    send_request(*this, request);
    wait();
    if (!found) return Device();
    return Device(&protocol(), std::make_shared<DeviceInfo>(device_id));
}

void DeviceGet::process_message(const char* data, unsigned int size) {
    const auto answer = parse_answer<pb::get::Answer>(data, size);
    found = answer.status() == qor::protobuf::device::status::DEVICE_OK;
}

void DeviceIdentitiesGet::execute(unsigned int device_id, DeviceIdentities& out) {
    identities = &out;
    pb::identities_get::Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    send_request(*this, request);
    wait();
    identities = nullptr;
}

void DeviceIdentitiesGet::process_message(const char* data, unsigned int size) {
    DeviceIdentities* out = identities;
    if (out == nullptr) return;
    const auto answer = parse_answer<pb::identities_get::Answer>(data, size);
    out->mac = answer.mac();
    out->imei = answer.imei();
    out->serial = answer.serial();
}

void DevicePsiGet::execute(unsigned int device_id, const std::string& path, std::string& out) {
    json = &out;
    pb::psi_get::Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    request.set_path(path);
    send_request(*this, request);
    wait();
    json = nullptr;
}

void DevicePsiGet::process_message(const char* data, unsigned int size) {
    std::string* out = json;
    if (out == nullptr) return;
    const auto answer = parse_answer<pb::psi_get::Answer>(data, size);
    *out = answer.json();
}

void DevicePsiSet::execute(unsigned int device_id, const std::string& path,
                           const std::string& json) {
    pb::psi_set::Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    request.set_path(path);
    std::cout << "json: " << json << std::endl;
    request.set_json(json);
    send_request(*this, request);
    wait();
}

void DeviceResetImei::execute(unsigned int device_id, const std::string& passcode) {
    pb::reset_imei::Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    request.set_passcode(passcode);
    send_request(*this, request);
    wait();
}

void DeviceActivate::execute(unsigned int device_id, const std::string& passcode) {
    pb::tvx::activate::Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    request.set_passcode(passcode);
    send_request(*this, request);
    wait();
}

}  // namespace client
}  // namespace qor
