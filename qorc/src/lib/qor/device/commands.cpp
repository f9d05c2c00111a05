// SPDX-License-Identifier: Apache-2.0
#include "qor/device/commands.h"

#include <iostream>

namespace qor {
namespace client {

Device DeviceGet::execute(unsigned int device_id) {
    Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    send(request);
    wait();
    if (!found) return Device();
    return Device(&protocol(), std::make_shared<DeviceInfo>(device_id));
}

void DeviceGet::process_message(const char* data, unsigned int size) {
    const auto answer = parse(data, size);
    found = answer.status() == protobuf::device::status::DEVICE_OK;
}

void DeviceIdentitiesGet::execute(unsigned int device_id, DeviceIdentities& out) {
    identities = &out;
    Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    send(request);
    wait();
    identities = nullptr;
}

void DeviceIdentitiesGet::process_message(const char* data, unsigned int size) {
    DeviceIdentities* out = identities;
    if (out == nullptr) return;
    const auto answer = parse(data, size);
    out->mac = answer.mac();
    out->imei = answer.imei();
    out->serial = answer.serial();
}

void DevicePsiGet::execute(unsigned int device_id, const std::string& path, std::string& out) {
    json = &out;
    Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    request.set_path(path);
    send(request);
    wait();
    json = nullptr;
}

void DevicePsiGet::process_message(const char* data, unsigned int size) {
    std::string* out = json;
    if (out == nullptr) return;
    const auto answer = parse(data, size);
    *out = answer.json();
}

void DevicePsiSet::execute(unsigned int device_id, const std::string& path,
                           const std::string& json) {
    Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    request.set_path(path);
    std::cout << "json: " << json << std::endl;
    request.set_json(json);
    send(request);
    wait();
}

void DeviceResetImei::execute(unsigned int device_id, const std::string& passcode) {
    Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    request.set_passcode(passcode);
    send(request);
    wait();
}

void DeviceActivate::execute(unsigned int device_id, const std::string& passcode) {
    Request request;
    request.set_device_id(static_cast<int32_t>(device_id));
    request.set_passcode(passcode);
    send(request);
    wait();
}

}  // namespace client
}  // namespace qor
