// SPDX-License-Identifier: Apache-2.0
#include "qor/device/device.h"

#include <cassert>

#include "qor/device/commands.h"
#include "qor/device/device_manager.h"
#include "qor/protobuf/device/status.pb.h"

namespace qor {
namespace client {

namespace wire = qor::protobuf::device::status;
static_assert(DEVICE_OK == static_cast<int>(wire::DEVICE_OK) &&
                  DEVICE_NOT_FOUND == static_cast<int>(wire::DEVICE_NOT_FOUND) &&
                  DEVICE_LOST == static_cast<int>(wire::DEVICE_LOST),
              "the public device statuses are the board's");

std::map<orvi::Protocol*, std::shared_ptr<DeviceManager>> DeviceManager::s_deviceManagerMap;

const char* get_device_status_str(DeviceStatus s) {
    switch (static_cast<int>(s)) {
        case DEVICE_OK:
            return "device OK";
        case DEVICE_NOT_FOUND:
            return "device not found";
        case DEVICE_LOST:
            return "device lost";
        default:
            return "unknown device status";
    }
}

DeviceInfo::DeviceInfo(unsigned int device_id)
    : id(device_id), status(device_id == kUnknownDeviceId ? DEVICE_NOT_FOUND : DEVICE_OK) {}

Device::Device(orvi::Protocol* protocol, std::shared_ptr<DeviceInfo> info)
    : m_protocol(protocol), m_info(std::move(info)) {}

orvi::Protocol& Device::protocol() {
    assert(m_protocol);
    return *m_protocol;
}

void Device::check_usable() {
    protocol();
    if (!m_info) throw DeviceException(DEVICE_NOT_FOUND);
    if (m_info->status != DEVICE_OK) throw DeviceException(m_info->status);
}

void Device::activate_talvex(const std::string& passcode) {
    check_usable();
    m_protocol->create_command_proxy<DeviceActivate>()->execute(m_info->id, passcode);
}

void Device::get_identities(DeviceIdentities& out) {
    check_usable();
    m_protocol->create_command_proxy<DeviceIdentitiesGet>()->execute(m_info->id, out);
}

void Device::psi_get(const std::string& path, std::string& json) {
    check_usable();
    m_protocol->create_command_proxy<DevicePsiGet>()->execute(m_info->id, path, json);
}

void Device::psi_set(const std::string& path, const std::string& json) {
    check_usable();
    m_protocol->create_command_proxy<DevicePsiSet>()->execute(m_info->id, path, json);
}

void Device::reset_imei(const std::string& passcode) {
    check_usable();
    m_protocol->create_command_proxy<DeviceResetImei>()->execute(m_info->id, passcode);
}

DeviceManager::DeviceManager(orvi::Protocol& protocol) {
    protocol.register_life_handler(this);
}

DeviceManager::~DeviceManager() {
    // Still attached: the engine outlives us (program exit). Handles that
    // callers keep must not reach it any more.
    if (m_protocol) mark_lost();
    m_devices.clear();
}

void DeviceManager::mark_lost() {
    for (auto& entry : m_devices) {
        if (const auto& info = entry.second.info()) {
            info->id = kUnknownDeviceId;
            info->status = DEVICE_LOST;
        }
    }
}

void DeviceManager::on_protocol_destroyed(orvi::Protocol* protocol) {
    mark_lost();
    // Erasing the entry releases this manager; nothing below touches it.
    auto self = s_deviceManagerMap.find(protocol);
    if (self != s_deviceManagerMap.end()) {
        std::shared_ptr<DeviceManager> keep = std::move(self->second);
        s_deviceManagerMap.erase(self);
    }
}

Device get_device(orvi::Protocol& protocol, unsigned int id) {
    auto& registry = DeviceManager::s_deviceManagerMap;
    auto it = registry.find(&protocol);
    if (it == registry.end()) {
        it = registry.emplace(&protocol, std::make_shared<DeviceManager>(protocol)).first;
    }
    DeviceManager& manager = *it->second;
    auto cached = manager.m_devices.find(id);
    if (cached != manager.m_devices.end()) return cached->second;

    Device device = protocol.create_command_proxy<DeviceGet>()->execute(id);
    if (device.info() && device.info()->id != kUnknownDeviceId) manager.m_devices[id] = device;
    return device;
}

}  // namespace client
}  // namespace qor
